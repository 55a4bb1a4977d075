"""The completions know every command and option that the tool's help shows, and their shells accept
them.

    completions.py TOOL FOLDER
"""
import re
import shutil
import subprocess
import sys

TOOL, FOLDER = sys.argv[1:]
FILES = {"bash": "rvpmap.bash", "zsh": "_rvpmap", "fish": "rvpmap.fish"}
# How each shell's file names an option.
OPTION = {"bash": "--{}", "zsh": "--{}", "fish": "-l {} "}


def help_of(*command):
    return subprocess.run([TOOL, *command, "--help"], check=True, capture_output=True,
                          text=True).stdout


def part(text, title):
    """The lines below `title:` up to the next empty one."""
    return re.search(rf"^{title}:\n(.*?)(?:\n\n|\Z)", text, re.S | re.M).group(1)


def options(text):
    return re.findall(r"^  (?:-\w,)?--([a-z-]+)", part(text, "Options"), re.M)


def choices(text):
    return [word for group in re.findall(r"TEXT:\{([^}]*)\}", text) for word in group.split(",")]


def section(shell, text, command):
    """What the completion of a shell says of one command."""
    if shell == "fish":
        return "\n".join(line for line in text.splitlines() if
                         "from $commands" in line or
                         re.search(rf"from [a-z ]*\b{command}\b", line))
    start = rf"^ *{command}\) (.*?);;" if shell == "bash" else rf"^ *{command}\) own=(.*?);;"
    own = re.search(start, text, re.S | re.M)
    every = "" if shell == "zsh" else re.search(r"^ *\*\) (.*?);;", text, re.M).group(1)
    # zsh adds --json to all of them, bash names it in every case.
    shared = "'--json" if shell == "zsh" and "'--json[" in text else ""
    return (own.group(1) if own else every) + shared


overview = help_of()
commands = re.findall(r"^  ([a-z]+) ", part(overview, "Subcommands"), re.M)
assert len(commands) >= 10, commands
failures = []
for shell, name in FILES.items():
    with open(f"{FOLDER}/{name}", encoding="utf-8") as file:
        text = file.read()
    if shutil.which(shell):
        accepted = subprocess.run([shell, "-n", f"{FOLDER}/{name}"], capture_output=True, text=True)
        if accepted.returncode != 0 or accepted.stderr:
            failures.append(f"{shell} -n: {accepted.stderr}")
    else:
        print(f"{shell} is not installed, its file was not parsed")
    for option in options(overview):
        if option not in ("help", "version") and OPTION[shell].format(option) not in text:
            failures.append(f"{shell}: --{option}")
    for command in commands:
        if not re.search(rf"\b{command}\b", text):
            failures.append(f"{shell}: {command}")
        page = help_of(command)
        own = section(shell, text, command) + "\n"
        for option in options(page):
            if option != "help" and OPTION[shell].format(option) not in own:
                failures.append(f"{shell}: {command} --{option}")
        for word in choices(page):
            if not re.search(rf"\b{word}\b", text):
                failures.append(f"{shell}: {command}: {word}")
sys.exit("\n".join(failures) or 0)
