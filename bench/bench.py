#!/usr/bin/python3
# SPDX-License-Identifier: MIT
# bench.py: compares the daemon with floors and peers, and prints a table with bars.
#
# Run it through tools/private-machine; README.md explains the method and the rows. The run fails only with
# --short, and only for a count that is exact on every machine. It never fails for a time.
#
# usage: bench.py DAEMON PROGRAMS RESULTS [--short] [--seed N] [--only SECTION...]
#   DAEMON    the executable          PROGRAMS  directory of the programs of the bench
#   RESULTS   directory for results.json and table.md
import argparse
import os
import random
import sys
import time

import calls
import footprint
import machine
import starts
from results import Results

SECTIONS = {
    "calls": calls.calls,
    "system-calls": footprint.system_calls,
    "starts": starts.starts,
    "peers": starts.peers,
    "new-station": starts.new_station,
    "cycles": starts.cycles,
    "stations": starts.stations,
    "launching": starts.reply_while_launching,
    "ready": starts.ready,
    "restart": starts.restart,
    "memory": footprint.memory,
    "idle": footprint.idle,
    "size": footprint.size,
}


class Run:
    """What every section gets."""

    def __init__(self, options):
        self.daemon, self.programs, self.short = options.daemon, options.programs, options.short
        self.rounds = 5 if options.short else options.rounds
        self.stations = [1, 16] if options.short else [1, 16, 100, 400]
        self.is_32_bit = sys.maxsize < 2**32
        self.seed = options.seed
        self.random = random.Random(options.seed)

    def in_turn(self, subjects):
        """The names of the subjects in a new random order."""
        return self.random.sample(sorted(subjects), len(subjects))


def main():
    parser = argparse.ArgumentParser()
    for name in ("daemon", "programs", "results"):
        parser.add_argument(name, type=os.path.abspath)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1000000)
    parser.add_argument("--rounds", type=int, default=600)
    parser.add_argument("--only", nargs="+", choices=SECTIONS, default=list(SECTIONS))
    options = parser.parse_args()

    run = Run(options)
    with machine.stage(run.programs) as priority:
        measure(run, options, priority)


def measure(run, options, priority):
    architecture = "i386" if run.is_32_bit else "amd64"
    processors, load = len(os.sched_getaffinity(0)), os.getloadavg()[0]
    heading = f"{architecture}, {processors} processors, load {load:.1f}, priority {priority}, "
    run.results = Results(f"{heading}{run.rounds} rounds, seed {run.seed}:")
    print(run.results.heading, flush=True)
    for section in options.only:
        began = time.monotonic()
        SECTIONS[section](run)
        print(f"-- {section}: {time.monotonic() - began:.1f} s", flush=True)
    run.results.write(options.results)
    print(f"\n{run.results.table()}")
    if not options.short and options.only == list(SECTIONS):
        run.results.write_page(f"{os.path.dirname(os.path.abspath(__file__))}/README.md", architecture)
    if options.short and run.results.broken_gates:
        sys.exit(f"bench: these exact counts miss their bars: {'; '.join(run.results.broken_gates)}")


main()
