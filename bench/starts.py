# SPDX-License-Identifier: MIT
# starts.py: the daemon's main job beside the least that it takes, and beside other supervisors.
import os
import shutil
import statistics
import time

from support.place import NAME
from support.processes import stat_of

import supervisors
from machine import (DISPLAY_MANAGER, DUMMY, Machine, floor_target, mappings, own_kib, threads,
                     wait_for)
from results import median

FLOOR = "two-thread fork"
FLOOR_NAME = "bench.launcher"
FORK_SECONDS = 0.1  # of slow-fork.c
MOST_OF_FLOOR = {1: 1.06, 16: 0.65, 100: 0.28, 400: 0.12}  # by the number of stations
MOST_GROWTH = 1.60
MOST_MORE_ON_A_NEW_STATION = 0.1  # ms
MOST_OF_FIRST_CYCLES = 1.10
MOST_KIB_A_CYCLE = 13
MOST_MAPPINGS_OF_ALL_CYCLES = 8
LEAST_STATIONS = 4000


class Starter:
    """The daemon or its floor, which start actors on the bus."""

    def __init__(self, machine, target, process):
        self.machine, self.target, self.process = machine, target, process
        self.actors = {}  # display -> pid

    def start(self, display, actor="local-login"):
        """Nanoseconds until the reply and until the actor's first instruction."""
        reply, first, self.actors[display] = self.machine.ask("start", *self.target("Start"), display, actor,
                                                              "PCI")
        return reply, first

    def stop(self, display, actor="local-login"):
        """Ends the actor and waits until its starter has seen that."""
        self.machine.ask("call", *self.target("Stop"), display, actor)
        pid = self.actors.pop(display)
        wait_for(f"the end of {pid}", lambda: stat_of(pid) is None)
        time.sleep(0.001)

    def fill(self, stations):
        for number in range(1, stations + 1):
            self.start(f":{number}")

    def again(self, display):
        self.stop(display)
        return self.start(display)[1]


def the_daemon(run, machine, **options):
    return Starter(machine, DISPLAY_MANAGER, machine.serve([run.daemon], NAME, **options))


def the_floor(run, machine, stations):
    """Its stacks of 8 MiB do not fit 32 bits for many stations; smaller ones are visited in the same time."""
    smaller_stacks = ["prlimit", f"--stack={2**20}"] if run.is_32_bit and stations > 200 else []
    return Starter(machine, floor_target(FLOOR_NAME),
                   machine.serve([*smaller_stacks, f"{run.programs}/bench-launcher", FLOOR_NAME], FLOOR_NAME))


def starts(run):
    """From Start to the actor's first instruction, on machines with few and with many stations."""
    medians = []
    for stations in run.stations:
        what = f"Start to the actor's first instruction, {stations} station{'s' if stations > 1 else ''}"
        with Machine(run.programs) as machine:
            starters = {"daemon": the_daemon(run, machine), FLOOR: the_floor(run, machine, stations)}
            for starter in starters.values():
                starter.fill(stations)
            figures = []
            for turn in range(run.rounds):
                display = f":{turn % stations + 1}"
                figures.append({name: starters[name].again(display) for name in run.in_turn(starters)})
        run.results.numbers[f"starts, {stations} stations"] = figures
        run.results.ratio_row(what, figures, FLOOR, MOST_OF_FLOOR[stations])
        medians.append(median(figures, "daemon"))
    growth = medians[-1] / medians[0]
    few, many = run.stations[0], run.stations[-1]
    run.results.row(f"the same, growth from {few} to {many} stations", f"{growth:.2f}",
                    bar=f"at most {MOST_GROWTH:.2f}", met=growth <= MOST_GROWTH)


def peers(run):
    """The same, of one station, beside those who start programs otherwise."""
    services = 3 if run.short else 16
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(1)
        subjects = {"daemon": lambda _: daemon.again(":1"),
                    "fork by the client": lambda _: machine.ask("run", f"{run.programs}/bench-actor")[0]}
        bars = {"fork by the client": None, "s6": 1.00, "runit": 1.00, "supervisor": 1 / 3}
        memory = []
        for supervisor in supervisors.ALL:
            if not shutil.which(supervisor.program):
                run.results.row(f"{supervisor.name}: not installed", "")
                continue
            one = supervisor(machine, services)
            subjects[one.name] = one.start
            memory.append(one)
        figures = [{name: subjects[name](turn) for name in run.in_turn(subjects)}
                   for turn in range(services)]
        kib = {one.name: one.private_kib() for one in memory}
    run.results.numbers["starts beside peers"] = figures
    run.results.numbers["memory of peers"] = kib
    for name in subjects:
        if name != "daemon":
            run.results.ratio_row("Start to the actor's first instruction", figures, name, bars[name])
    for name, (idle, each) in kib.items():
        run.results.row("private memory", "", name, f"{idle:.0f} KiB and {each:.1f} KiB per station")


def new_station(run):
    """A first Start waits for the new worker; how much longer than on a station that has one."""
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        figures = []
        for number in range(1, min(run.rounds, 50) + 1):  # each round leaves a station behind
            reply, first = daemon.start(f":{number}")
            daemon.stop(f":{number}")
            known_reply, known = daemon.start(f":{number}")
            daemon.stop(f":{number}")
            figures.append({"new": first, "known": known, "reply, new": reply, "reply, known": known_reply})
    run.results.numbers["first start on a new station"] = figures
    for what, new, known in (("first instruction", "new", "known"), ("reply", "reply, new", "reply, known")):
        longer = statistics.median(of[new] - of[known] for of in figures) / 1e6
        values = [f"{median(figures, name) / 1e6:.2f} ms" for name in (new, known)]
        run.results.row(f"first Start on a new station: {what}", values[0], "a known station", values[1],
                        f"{longer:+.2f} ms", f"at most {MOST_MORE_ON_A_NEW_STATION} ms more",
                        longer <= MOST_MORE_ON_A_NEW_STATION)


def cycles(run):
    """Start and Stop, again and again: each leaves the stack of a thread, and the next ones must not pay for it."""
    count, sample = (200, 50) if run.short else (20000, 500)
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        pid = daemon.process.pid

        def cycle():
            """Nanoseconds from the Start to the end of its thread."""
            begin = time.perf_counter_ns()
            daemon.start(":1")
            machine.ask("call", *DISPLAY_MANAGER("Stop"), ":1", "local-login")
            while len(threads(pid)) > 2:  # asks without a pause, because it is timed
                pass
            return time.perf_counter_ns() - begin

        def pair():
            """A cycle, and in the same moment a program that the client starts: the machine's speed, which changes."""
            return {"cycle": cycle(), "fork": machine.ask("run", f"{run.programs}/bench-actor")[0]}

        for _ in range(sample):
            cycle()  # warm
        kib, maps = own_kib(pid), len(mappings(pid))
        first = [pair() for _ in range(sample)]
        for _ in range(count - 2 * sample):
            cycle()
        last = [pair() for _ in range(sample)]
        kib, maps = (own_kib(pid) - kib) / count, len(mappings(pid)) - maps
    run.results.numbers["cycles"] = {"first": first, "last": last}
    longer = (statistics.median(of["cycle"] / of["fork"] for of in last)
              / statistics.median(of["cycle"] / of["fork"] for of in first))
    what = f"{count} cycles of Start and Stop"
    run.results.row(f"{what}: the last {sample}", f"{median(last, 'cycle') / 1000:.1f} us", f"the first {sample}",
                    f"{median(first, 'cycle') / 1000:.1f} us", f"{longer:.3f}", f"at most {MOST_OF_FIRST_CYCLES:.2f}",
                    longer <= MOST_OF_FIRST_CYCLES)
    run.results.row(f"{what}: memory of each", f"{kib:.1f} KiB", bar=f"at most {MOST_KIB_A_CYCLE} KiB",
                    met=kib <= MOST_KIB_A_CYCLE)
    run.results.row(f"{what}: mappings of all", f"{maps:+d}", bar=f"at most {MOST_MAPPINGS_OF_ALL_CYCLES}",
                    met=maps <= MOST_MAPPINGS_OF_ALL_CYCLES)


def stations(run):
    """How many stations fit, each with its worker and a running actor, up to a few more than the bar."""
    if not run.is_32_bit:
        return
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        try:
            daemon.fill(50 if run.short else LEAST_STATIONS + 100)
        except SystemExit as end:
            print(end, flush=True)
    served = len(daemon.actors)
    run.results.row("stations with a running actor each, 32 bits", str(served), bar=f"at least {LEAST_STATIONS}",
                    met=None if run.short else served >= LEAST_STATIONS)


def replies(machine, station, pause):
    """Seconds until the replies to Starts for three groups of a station that is known, with a pause between."""
    machine.ask("call", *DISPLAY_MANAGER("Start"), f":{station}", "init-station", "PCI")
    waits = []
    for actor in ("local-login", "press-fkey", "xhotkey"):
        time.sleep(pause)
        waits.append(machine.ask("call", *DISPLAY_MANAGER("Start"), f":{station}", actor, "PCI")[0] / 1e9)
    return waits


def reply_while_launching(run):
    """How long a Start waits for the launch of another on its station, when each fork takes FORK_SECONDS."""
    stations = 3 if run.short else 8
    with Machine(run.programs) as machine:
        the_daemon(run, machine, env={**os.environ, "LD_PRELOAD": f"{run.programs}/libbench-slow-fork.so"})
        one = [wait for number in range(stations) for wait in replies(machine, number, FORK_SECONDS / 4)]
        burst = [wait for number in range(stations) for wait in replies(machine, stations + number, 0)]
    run.results.numbers["replies while a fork takes 0.1 s, in seconds"] = {"one": one, "burst": burst}
    for what, waits in (("longest", one), ("longest in a burst of three", burst)):
        forks = max(waits) / FORK_SECONDS
        run.results.row(f"reply to Start on a known station while it launches, {what}", f"{forks:.2f} forks",
                        bar="one fork", met=forks < 1.5)  # the rest is the call; a second fork would make it 2


def ready(run):
    """From before the fork of the service until it has its name and answers."""
    with Machine(run.programs) as machine:
        commands = {"daemon": (DUMMY, [run.daemon]),
                    "echo": (floor_target("bench.echo"), [f"{run.programs}/bench-echo", "bench.echo"])}
        figures = [{name: machine.ask("ready", *commands[name][0]("HelloWorld"), *commands[name][1])[0]
                    for name in run.in_turn(commands)} for _ in range(run.rounds + 1)]
    del figures[0]  # nothing had been read from the disk
    run.results.numbers["ready"] = figures
    run.results.ratio_row("start of the process to its first answer", figures, "echo", 1.10)


def restart(run):
    """How long after its death an actor is back."""
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(16)
        deaths = [word for display, pid in daemon.actors.items() for word in (pid, display)]
        seconds = [nanoseconds / 1e9 for nanoseconds in machine.ask("restart", *deaths)]
    run.results.numbers["restart, in seconds"] = seconds
    middle = statistics.median(seconds)
    run.results.row("restart after a death", f"{middle:.4f} s ({min(seconds):.4f} to {max(seconds):.4f})",
                    bar="2.000 to 2.015 s", met=min(seconds) >= 2.0 and middle <= 2.015)
