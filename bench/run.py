"""Runs the benchmarks beside their peers and writes bench/results.md.

    run.py BIN IMAGES

BIN holds the built programs, IMAGES what scripts/bench has made. Whole programs that are compared
take turns, so that what disturbs the machine hits them alike. Their ratio is the median over the
rounds of processor time (user and system) in one round: wall time on a busy machine measures the
others as well. Everything is read from the page cache, which a first round that does not count
fills.
"""
import os
import platform
import re
import statistics
import subprocess
import sys
import tempfile

BIN, IMAGES = (os.path.abspath(path) for path in sys.argv[1:3])
HERE = os.path.dirname(os.path.abspath(__file__))
ROUNDS = 15
FEW_ROUNDS = 5

RVPMAP = f"{BIN}/rvpmap"
CATALOG = [RVPMAP, "catalog", "--extents", "--format", "ndjson"]

bars = []  # (what, bar, measured, whether it is reached)
details = []


class Run:
    """What one run of a command took: seconds and peak resident KiB."""

    def __init__(self, command):
        done = subprocess.run([f"{BIN}/measure", *command], capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
        self.wall, self.user, self.system, peak = map(float, done.stdout.split())
        self.processor = self.user + self.system
        self.peak = int(peak)


class Runs:
    """The rounds of one command."""

    def __init__(self, label):
        self.label = label
        self.rounds = []

    def median(self, what):
        return statistics.median(getattr(run, what) for run in self.rounds)

    def least(self, what):
        return min(getattr(run, what) for run in self.rounds)

    def peak(self):
        return max(run.peak for run in self.rounds)

    def times(self, peer, what="processor"):
        """How many times the peer's time this took."""
        return statistics.median(
            getattr(mine, what) / getattr(other, what)
            for mine, other in zip(self.rounds, peer.rounds)
        )


def take_turns(commands, rounds=ROUNDS, after=lambda: None):
    """Runs labelled commands by turns; the first round does not count."""
    runs = [Runs(label) for label in commands]
    for count in range(rounds + 1):
        for result, command in zip(runs, commands.values()):
            run = Run(command)
            after()
            if count != 0:
                result.rounds.append(run)
    return runs


def tell(title, runs):
    lines = [
        f"### {title}",
        "",
        "| | wall, median | wall, least | processor, median | least | peak memory |",
        "|---|---|---|---|---|---|",
    ]
    for run in runs:
        lines.append(
            f"| {run.label} | {run.median('wall'):.3f} s | {run.least('wall'):.3f} s | "
            f"{run.median('processor'):.3f} s | {run.least('processor'):.3f} s | "
            f"{run.peak() / 1024:.1f} MiB |"
        )
    details.extend(lines + [""])


def bar(what, limit, measured, reached):
    bars.append((what, limit, measured, reached))
    print(f"{'reached' if reached else 'MISSED '}  {what}: {measured} (bar: {limit})", flush=True)


def output_of(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
    return done.stdout


def figures(pattern, text):
    """The groups of the first match, as numbers."""
    found = re.search(pattern, text)
    if found is None:
        sys.exit(f"nothing in the output matches {pattern!r}:\n{text}")
    return [float(group) for group in found.groups()]


# ---- Whole programs ------------------------------------------------------------------------------


def catalog():
    tree = f"{IMAGES}/tree-100000.img"
    bare, ours, table, fls, small = take_turns(
        {
            "bare program over libext2fs": [f"{BIN}/bare_walk", tree],
            "`rvpmap catalog --extents --format ndjson`": [*CATALOG, tree],
            "`rvpmap catalog --extents`, a table": [RVPMAP, "catalog", "--extents", tree],
            "`fls -r -p`, no extents": ["fls", "-r", "-p", tree],
            "`rvpmap catalog`, 10,000 files": [*CATALOG, f"{IMAGES}/tree-10000.img"],
        }
    )
    tell("Catalogue of 100,000 files in 1,000 directories", [bare, ours, table, fls, small])
    for what, run in ("ndjson", ours), ("table", table):
        ratio = run.times(bare)
        wall = run.times(bare, "wall")
        bar(
            f"catalogue with extents ({what}), beside a bare program",
            "at most 1.5 times its time",
            f"{ratio:.2f} times (wall: {wall:.2f})",
            ratio <= 1.5,
        )
    bar(
        "catalogue, peak memory",
        "under 64 MiB, within 10 % of that for 10,000 files",
        f"{ours.peak() / 1024:.1f} MiB and {small.peak() / 1024:.1f} MiB",
        ours.peak() < 64 * 1024 and ours.peak() <= 1.1 * small.peak(),
    )
    ratio = ours.times(fls)
    bar(
        "catalogue, beside `fls -r -p`",
        "faster",
        f"{1 / ratio:.2f} times its speed (wall: {1 / ours.times(fls, 'wall'):.2f})",
        ratio < 1,
    )


def catalog_into_database():
    tree = f"{IMAGES}/tree-100000.img"
    with tempfile.TemporaryDirectory(dir=IMAGES) as work:
        database = f"{work}/tree.db"

        def forget():
            if os.path.exists(database):
                os.remove(database)

        ours, peer = take_turns(
            {
                "`rvpmap catalog --extents --format ndjson`": [*CATALOG, tree],
                "`tsk_loaddb`": ["tsk_loaddb", "-d", database, tree],
            },
            rounds=1,
            after=forget,
        )
    tell("Catalogue beside a database of The Sleuth Kit", [ours, peer])
    faster = peer.times(ours)
    bar(
        "catalogue, beside `tsk_loaddb`",
        "at least 20 times faster",
        f"{faster:.0f} times (wall: {peer.times(ours, 'wall'):.0f})",
        faster >= 20,
    )


def large_directories():
    sizes = 100_000, 300_000, 1_000_000
    for label, options in ("`ls`, sorted by name", []), ("`ls --unsorted`", ["--unsorted"]):
        runs = take_turns(
            {
                f"{size:,} entries": [RVPMAP, "ls", *options, f"{IMAGES}/flat-{size}.img", "/flat"]
                for size in sizes
            },
            rounds=FEW_ROUNDS,
        )
        tell(f"{label} of one directory", runs)
        each = [run.least("processor") / size * 1e9 for run, size in zip(runs, sizes)]
        bar(
            f"{label}: time an entry at {' / '.join(f'{size:,}' for size in sizes)}",
            "linear: at most 1.5 times from the first to the last",
            " / ".join(f"{time:.0f}" for time in each) + " ns",
            each[-1] <= 1.5 * each[0],
        )


def extraction():
    with tempfile.TemporaryDirectory(dir=IMAGES) as work:
        copy, ours = f"{work}/copy", f"{work}/extracted"

        def forget():
            for name in copy, ours:
                if os.path.exists(name):
                    os.remove(name)

        peer, extract = take_turns(
            {
                "`cp` of an ordinary file": ["cp", f"{IMAGES}/ordinary", copy],
                "`rvpmap extract`": [
                    RVPMAP, "extract", f"{IMAGES}/fragments.img", "/fragmented", "-o", ours
                ],
            },
            rounds=ROUNDS,
            after=forget,
        )
    tell("1 GiB in 500 fragments to a file", [peer, extract])
    speed = 1 / extract.times(peer)
    bar(
        "extraction of a fragmented 1 GiB, beside `cp`",
        "at least 0.9 of its speed",
        f"{speed:.2f} (wall: {1 / extract.times(peer, 'wall'):.2f})",
        speed >= 0.9,
    )


# ---- Calls ---------------------------------------------------------------------------------------


def instructions(program, arguments, toggle):
    """What callgrind counts inside of a function, by object file and function: {(object, name)}."""
    with tempfile.NamedTemporaryFile() as out:
        output_of(
            "valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}",
            f"--toggle-collect={toggle}", program, *arguments,
        )
        text = output_of("callgrind_annotate", "--auto=no", "--threshold=100", out.name)
    counts = {}
    for count, name in re.findall(r"^\s*([\d,]+) \([^)]*\)\s+(.*)$", text, re.MULTILINE):
        if name != "PROGRAM TOTALS":
            counts[name] = counts.get(name, 0) + int(count.replace(",", ""))
    return counts


def get_extent():
    root = f"{os.path.dirname(BIN)}/bench/root"
    calls = 10_000
    counts = instructions(f"{BIN}/call_bench", [root, "count"], "rvp_map_get_extent")
    own = sum(count for name, count in counts.items() if "MemoryObject" in name) / calls
    heap = sum(
        count for name, count in counts.items()
        if re.search(r"malloc|free|operator (new|delete)|arena", name)
    ) / calls
    # What the loader does at the first call is not part of one.
    loader = sum(count for name, count in counts.items() if "/elf/" in name or "ld-linux" in name)
    everything = (sum(counts.values()) - loader) / calls
    bar(
        "`rvp_map_get_extent` over a library that answers from memory",
        "under 300 instructions besides the library's own",
        f"{everything - own:.0f} ({heap:.0f} of them the C library's, for the records' memory)",
        everything - own < 300,
    )
    text = output_of(f"{BIN}/call_bench", root)
    details.extend(["### Calls over a library that answers from memory", "", "```", text.rstrip()])
    details.extend(["```", ""])
    before, after = figures(r"closed: (\d+) KiB, after \d+: (\d+) KiB", text)
    bar(
        "memory after 1,000,000 files opened and closed, beside 10,000",
        "flat: at most 1 MiB more",
        f"{after - before:.0f} KiB more",
        after - before <= 1024,
    )


def map_address():
    counts = instructions(f"{BIN}/raid_bench", ["one"], "RvpRaid::calculatePartitionRun*")
    each = sum(count for name, count in counts.items() if "/elf/" not in name) / 10_000
    text = output_of(f"{BIN}/raid_bench")
    details.extend(["### Arrays", "", "```", text.rstrip(), "```", ""])
    time, in_order = figures(
        r"level 5, 6 members, volume on the first\s+([\d.]+) ns a call at random,\s+([\d.]+)", text
    )
    bar(
        "`calculatePartitionRun` on a 6-member level 5 array",
        "under 40 ns a call, or under 120 instructions",
        f"{time:.1f} ns at random, {in_order:.1f} ns in order, {each:.0f} instructions",
        time < 40 or each < 120,
    )
    (half,) = figures(r"500 level 0 arrays of 8 members .* (\d+) ns a member", text)
    (whole,) = figures(r"1000 level 0 arrays of 8 members .* (\d+) ns a member", text)
    bar(
        "assembling 1,000 arrays of 8 members",
        "nothing quadratic beyond the first-match search",
        f"{whole:.0f} ns a member, {half:.0f} ns at 500 arrays",
        whole <= 2.5 * half,
    )


def metadata():
    text = output_of(f"{BIN}/lvm_bench")
    details.extend(["### LVM2 metadata", "", "```", text.rstrip(), "```", ""])
    middle = text[text.index("\n4000 logical volumes"):]
    large = text[text.index("\n40000 logical volumes"):]
    (speed,) = figures(r"LvmConfig::parse has ([\d.]+) times its speed", middle)
    (rate,) = figures(r"LvmConfig::parse +[\d.]+ ms +([\d.]+) MB/s", middle)
    (large_rate,) = figures(r"LvmConfig::parse +[\d.]+ ms +([\d.]+) MB/s", large)
    (dump,) = figures(r"dumping takes ([\d.]+) of the time", middle)
    bar(
        "`LvmConfig::parse` of 4,000 logical volumes, beside `dm_config_from_string`",
        "at least 10 times its speed",
        f"{speed:.1f} times, {rate:.0f} MB/s",
        speed >= 10,
    )
    bar(
        "the same of 40,000 logical volumes",
        "linear",
        f"{large_rate:.0f} MB/s",
        large_rate >= rate / 1.5,
    )
    bar("dumping the tree to a stream", "faster than parsing", f"{dump:.2f} of the time", dump < 1)


def bitmap():
    text = output_of(f"{BIN}/bitmap_bench")
    details.extend(["### Bitmap", "", "```", text.rstrip(), "```", ""])

    def ratios(what, peer):
        found = re.findall(
            rf"^  {re.escape(what)} +\d+ ns +{re.escape(peer)} +\d+ ns +([\d.]+) times", text,
            re.MULTILINE,
        )
        return [float(value) for value in found]

    def speeds(what, candidate, peer, least, limit):
        found = ratios(candidate, peer)
        bar(what, limit, " / ".join(f"{value:.2f}" for value in found), min(found) >= least)

    sizes = "(1 MiB / 128 MiB)"
    speeds(f"`getExtent` over one run, beside the sum of the words {sizes}", "getExtent",
           "sum of the words", 0.8, "at least 0.8 of its speed")
    speeds(f"mapped kind beside the heap kind {sizes}", "getExtent, mapped", "getExtent, heap",
           0.9, "within 10 %")
    speeds(f"`setRegion` beside `memset` {sizes}", "setRegion", "memset", 0.8,
           "at least 0.8 of its speed")
    speeds(f"`clearRegion` beside `memset` {sizes}", "clearRegion", "memset", 0.8,
           "at least 0.8 of its speed")
    speeds("`getExtent` beside `std::vector<bool>`", "getExtent", "vector<bool>, std::find", 50,
           "at least 50 times its speed")
    speeds("`getExtent` beside boost::dynamic_bitset, bit by bit", "getExtent",
           "dynamic_bitset, bit by bit", 50, "at least 50 times its speed")
    (heap,) = figures(r"Heap: ([\d.]+) ns a run", text)
    bar("scan over runs of 64 bits on average", "at most 20 ns a run", f"{heap:.1f} ns", heap <= 20)


# ---- Report --------------------------------------------------------------------------------------


def machine():
    with open("/proc/cpuinfo", encoding="ascii") as file:
        name = re.search(r"model name\s*: (.*)", file.read()).group(1)
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    versions = output_of(
        "dpkg-query", "-W", "-f", "${Package} ${Version}\\n", "g++", "e2fsprogs", "sleuthkit",
        "libdevmapper-dev", "libboost-dev", "valgrind", "coreutils",
    )
    load = os.getloadavg()[0]
    return (
        f"{name}, {os.cpu_count()} processors, {memory:.0f} GiB, Linux {platform.release()}; "
        f"load at the start {load:.1f}. Built with -O2. " + ", ".join(versions.split("\n")[:-1])
        + "."
    )


def report(where):
    reached = sum(ok for *_, ok in bars)
    lines = ["# Results of `scripts/bench`", "", where, "", f"{reached} of {len(bars)} bars reached.",
             "", "| what | bar | measured | |", "|---|---|---|---|"]
    for what, limit, measured, ok in bars:
        lines.append(f"| {what} | {limit} | {measured} | {'reached' if ok else '**missed**'} |")
    lines += ["", "Ratios are medians over paired rounds of user and system time; wall times stand "
              "beside them.", ""]
    with open(f"{HERE}/results.md", "w", encoding="utf-8") as file:
        file.write("\n".join(lines + details))


def main():
    where = machine()
    for benchmark in (catalog, catalog_into_database, large_directories, extraction, get_extent,
                      map_address, metadata, bitmap):
        benchmark()
    report(where)


main()
