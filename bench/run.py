"""Runs the benchmarks beside their peers and writes the report.

    run.py BIN IMAGES

BIN holds the built programs, IMAGES the volumes that `scripts/bench` makes.
"""
import calls
import programs
import stacks
from report import machine, report

where = machine()
for benchmark in (*programs.ALL, *stacks.ALL, *calls.ALL):
    benchmark()
report(where)
