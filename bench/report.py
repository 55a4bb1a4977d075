"""Writes what was measured: results.md beside this file, charts, and the table of the bars into the
page on performance."""
import os
import platform
import re

from charts import bar_chart
from harness import bars, charts, details, output_of

HERE = os.path.dirname(os.path.abspath(__file__))
DOCS = f"{os.path.dirname(HERE)}/docs"
BEGIN, END = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
PACKAGES = ("g++", "e2fsprogs", "sleuthkit", "libdevmapper-dev", "libboost-dev", "valgrind",
            "coreutils", "libsqlite3-0")
OURS = re.compile(r"rvpmap|rvp_map|LvmConfig|calculatePartitionRun|getExtent|setRegion|clearRegion")


def machine():
    with open("/proc/cpuinfo", encoding="ascii") as file:
        name = re.search(r"model name\s*: (.*)", file.read()).group(1)
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    versions = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *PACKAGES)
    return (
        f"{name}, {os.cpu_count()} processors, {memory:.0f} GiB, Linux {platform.release()}; "
        f"load at the start {os.getloadavg()[0]:.1f}. Built with -O2. "
        + ", ".join(versions.split("\n")[:-1]) + "."
    )


def verdicts():
    reached = sum(ok for *_, ok in bars)
    lines = [f"{reached} of {len(bars)} bars reached.", "", "| what | bar | measured | |",
             "|---|---|---|---|"]
    for what, limit, measured, ok in bars:
        lines.append(f"| {what} | {limit} | {measured} | {'reached' if ok else '**missed**'} |")
    return lines


def write(path, lines):
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


def write_charts():
    os.makedirs(f"{DOCS}/charts", exist_ok=True)
    shown = []
    for name, title, unit, rows in charts:
        coloured = [(label.replace("`", ""), value, bool(OURS.search(label)))
                    for label, value in rows]
        write(f"{DOCS}/charts/{name}.svg", [bar_chart(title.replace("`", ""), unit, coloured)])
        shown += [f"![{title}](charts/{name}.svg)", ""]
    return shown


def replace_measured(lines):
    path = f"{DOCS}/performance.md"
    with open(path, encoding="utf-8") as file:
        page = file.read()
    head, rest = page.split(BEGIN)
    write(path, [head + BEGIN + "\n".join(lines) + "\n" + END + rest.split(END)[1]])


def report(where):
    write(f"{HERE}/results.md", [
        "# Results of `scripts/bench`", "", where, "", *verdicts(), "",
        "Ratios are medians over paired rounds of user and system time; wall times stand beside "
        "them.", "", *details,
    ])
    replace_measured([where, "", *verdicts(), "", *write_charts()])
