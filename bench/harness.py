"""What every benchmark uses: commands run by turns with their peers, bars, tables and charts.

A ratio is the median over the rounds of processor time (user and system) in one round: wall time on
a busy machine measures the others as well. Everything is read from the page cache, which a first
round that does not count fills.
"""
import os
import re
import statistics
import subprocess
import sys

BIN, IMAGES = (os.path.abspath(path) for path in sys.argv[1:3])
ROUNDS = 15
FEW_ROUNDS = 5

RVPMAP = f"{BIN}/rvpmap"
CATALOG = [RVPMAP, "catalog", "--extents", "--format", "ndjson"]

bars = []  # (what, bar, measured, whether it is reached)
details = []  # lines of Markdown
charts = []  # (name, title, unit, [(label, value, whether it is ours)])


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


def tell(name, title, runs):
    """The table of what commands took, and their chart."""
    details.extend([
        f"### {title}",
        "",
        "| | wall, median | wall, least | processor, median | least | peak memory |",
        "|---|---|---|---|---|---|",
    ])
    for run in runs:
        details.append(
            f"| {run.label} | {run.median('wall'):.3f} s | {run.least('wall'):.3f} s | "
            f"{run.median('processor'):.3f} s | {run.least('processor'):.3f} s | "
            f"{run.peak() / 1024:.1f} MiB |"
        )
    details.append("")
    chart(name, title, "seconds of processor time, median",
          [(run.label, run.median("processor")) for run in runs])


def quote(title, text):
    """A program's own output."""
    details.extend([f"### {title}", "", "```", text.rstrip(), "```", ""])


def chart(name, title, unit, rows):
    """Bars of (label, value); labels with a call or command of ours are drawn in its colour."""
    charts.append((name, title, unit, rows))


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


def figure(pattern, text):
    """The only group."""
    return figures(pattern, text)[0]


def remover(*names):
    """What removes these files where they are."""
    def remove():
        for name in names:
            if os.path.exists(name):
                os.remove(name)
    return remove
