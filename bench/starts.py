# SPDX-License-Identifier: MIT
# starts.py: compares the daemon's main job with a floor and with other supervisors.
import os
import shutil
import statistics
import time

from support.place import NAME
from support.processes import stat_of

import supervisors
from machine import DISPLAY_MANAGER, DUMMY, Machine, floor_target, mappings, own_kib, threads, wait_for
from results import median, microseconds

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
    """The daemon or its floor: a service that starts actors."""

    def __init__(self, machine, target, process):
        self.machine, self.target, self.process = machine, target, process
        self.actors = {}  # display -> pid

    def start(self, display, actor="local-login"):
        """Nanoseconds until the reply and until the actor's first instruction."""
        words = [*self.target("Start"), display, actor, "PCI"]
        reply, first, self.actors[display] = self.machine.ask("start", *words)
        return reply, first

    def stop(self, display, actor="local-login"):
        """Ends the actor and waits until the service has noticed."""
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
    """Many stacks of 8 MiB do not fit 32 bits; a fork takes the same time with smaller ones."""
    smaller_stacks = ["prlimit", f"--stack={2**20}"] if run.is_32_bit and stations > 200 else []
    command = [*smaller_stacks, f"{run.programs}/bench-launcher", FLOOR_NAME]
    return Starter(machine, floor_target(FLOOR_NAME), machine.serve(command, FLOOR_NAME))


def starts(run):
    """The time from Start to the actor's first instruction, with few and with many stations."""
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
    what, bar = f"the same, growth from {few} to {many} stations", f"at most {MOST_GROWTH:.2f}"
    run.results.row(what, f"{growth:.2f}", bar=bar, met=growth <= MOST_GROWTH)


def peers(run):
    """The same with one station, compared with other ways to start programs."""
    services = 3 if run.short else 16
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(1)
        subjects = {
            "daemon": lambda _: daemon.again(":1"),
            "fork by the client": lambda _: machine.ask("run", f"{run.programs}/bench-actor")[0],
        }
        bars = {"fork by the client": None, "s6": 1.00, "runit": 1.00, "supervisor": 1 / 3}
        memory = []
        for supervisor in supervisors.ALL:
            if not shutil.which(supervisor.program):
                run.results.row(f"{supervisor.name}: not installed", "")
                continue
            one = supervisor(machine, services)
            subjects[one.name] = one.start
            memory.append(one)
        turns = range(services)
        figures = [{name: subjects[name](turn) for name in run.in_turn(subjects)} for turn in turns]
        kib = {one.name: one.private_kib() for one in memory}
    run.results.numbers["starts beside peers"] = figures
    run.results.numbers["memory of peers"] = kib
    for name in subjects:
        if name != "daemon":
            run.results.ratio_row("Start to the actor's first instruction", figures, name, bars[name])
    for name, (idle, each) in kib.items():
        run.results.row("private memory", "", name, f"{idle:.0f} KiB and {each:.1f} KiB per station")


def new_station(run):
    """How much longer the first Start takes on a new station: it waits for the new worker."""
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        figures = []
        for number in range(1, min(run.rounds, 50) + 1):  # each round leaves a station
            reply, first = daemon.start(f":{number}")
            daemon.stop(f":{number}")
            known_reply, known = daemon.start(f":{number}")
            daemon.stop(f":{number}")
            figures.append({"new": first, "known": known, "reply, new": reply, "reply, known": known_reply})
    run.results.numbers["first start on a new station"] = figures
    for what, new, known in (("first instruction", "new", "known"), ("reply", "reply, new", "reply, known")):
        longer = statistics.median(of[new] - of[known] for of in figures) / 1e6
        values = [f"{median(figures, name) / 1e6:.2f} ms" for name in (new, known)]
        cells = values[0], "a known station", values[1], f"{longer:+.2f} ms"
        bar, met = f"at most {MOST_MORE_ON_A_NEW_STATION} ms more", longer <= MOST_MORE_ON_A_NEW_STATION
        run.results.row(f"first Start on a new station: {what}", *cells, bar, met)


def cycles(run):
    """Many Starts and Stops: each leaves the stack of a thread, which must not slow the next ones."""
    count, sample = (200, 50) if run.short else (20000, 500)
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        pid = daemon.process.pid

        def cycle():
            """Nanoseconds from the Start to the end of its thread."""
            begin = time.perf_counter_ns()
            daemon.start(":1")
            machine.ask("call", *DISPLAY_MANAGER("Stop"), ":1", "local-login")
            while len(threads(pid)) > 2:  # without a pause, because this is timed
                pass
            return time.perf_counter_ns() - begin

        def pair():
            """A cycle, and then a fork by the client, which shows the present speed of the machine."""
            return {"cycle": cycle(), "fork": machine.ask("run", f"{run.programs}/bench-actor")[0]}

        for _ in range(sample):
            cycle()  # warms the caches
        kib, maps = own_kib(pid), len(mappings(pid))
        first = [pair() for _ in range(sample)]
        for _ in range(count - 2 * sample):
            cycle()
        last = [pair() for _ in range(sample)]
        kib, maps = (own_kib(pid) - kib) / count, len(mappings(pid)) - maps
    run.results.numbers["cycles"] = {"first": first, "last": last}
    in_forks = [statistics.median(of["cycle"] / of["fork"] for of in part) for part in (first, last)]
    longer = in_forks[1] / in_forks[0]
    what = f"{count} cycles of Start and Stop"
    values = microseconds(last, "cycle"), f"the first {sample}", microseconds(first, "cycle"), f"{longer:.3f}"
    row, bar = run.results.row, f"at most {MOST_OF_FIRST_CYCLES:.2f}"
    row(f"{what}: the last {sample}", *values, bar, longer <= MOST_OF_FIRST_CYCLES)
    bar, met = f"at most {MOST_KIB_A_CYCLE} KiB", kib <= MOST_KIB_A_CYCLE
    row(f"{what}: memory of each", f"{kib:.1f} KiB", bar=bar, met=met)
    bar, met = f"at most {MOST_MAPPINGS_OF_ALL_CYCLES}", maps <= MOST_MAPPINGS_OF_ALL_CYCLES
    row(f"{what}: mappings of all", f"{maps:+d}", bar=bar, met=met)


def stations(run):
    """How many stations with a running actor fit the address space, up to a few more than the bar."""
    if not run.is_32_bit:
        return
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        try:
            daemon.fill(50 if run.short else LEAST_STATIONS + 100)
        except SystemExit as end:
            print(end, flush=True)
    served = len(daemon.actors)
    met = None if run.short else served >= LEAST_STATIONS
    what, bar = "stations with a running actor each, 32 bits", f"at least {LEAST_STATIONS}"
    run.results.row(what, str(served), bar=bar, met=met)


def replies(machine, station, pause):
    """Seconds until the replies to Starts for three groups of a known station, with pauses between them."""
    machine.ask("call", *DISPLAY_MANAGER("Start"), f":{station}", "init-station", "PCI")
    waits = []
    for actor in ("local-login", "press-fkey", "xhotkey"):
        time.sleep(pause)
        waits.append(machine.ask("call", *DISPLAY_MANAGER("Start"), f":{station}", actor, "PCI")[0] / 1e9)
    return waits


def reply_while_launching(run):
    """How long a Start waits for another launch on its station if each fork takes FORK_SECONDS."""
    stations = 3 if run.short else 8
    with Machine(run.programs) as machine:
        preload = f"{run.programs}/libbench-slow-fork.so"
        the_daemon(run, machine, env={**os.environ, "LD_PRELOAD": preload})
        one = [wait for number in range(stations) for wait in replies(machine, number, FORK_SECONDS / 4)]
        burst = [wait for number in range(stations) for wait in replies(machine, stations + number, 0)]
    run.results.numbers["replies while a fork takes 0.1 s, in seconds"] = {"one": one, "burst": burst}
    for what, waits in (("longest", one), ("longest in a burst of three", burst)):
        forks = max(waits) / FORK_SECONDS
        what = f"reply to Start on a known station while it launches, {what}"
        met = forks < 1.5  # the rest is the call; a second fork would make it 2
        run.results.row(what, f"{forks:.2f} forks", bar="one fork", met=met, detail=waits is burst)


def ready(run):
    """The time from before the fork of the service until it owns its name and answers."""
    with Machine(run.programs) as machine:
        echo = [f"{run.programs}/bench-echo", "bench.echo"]
        words = {
            "daemon": [*DUMMY("HelloWorld"), run.daemon],
            "echo": [*floor_target("bench.echo")("HelloWorld"), *echo],
        }
        figures = []
        for _ in range(run.rounds + 1):
            figures.append({name: machine.ask("ready", *words[name])[0] for name in run.in_turn(words)})
    del figures[0]  # it had to read from the disk
    run.results.numbers["ready"] = figures
    run.results.ratio_row("start of the process to its first answer", figures, "echo", 1.10)


def restart(run):
    """The time from the exit of an actor to the first instruction of the next."""
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(16)
        deaths = [word for display, pid in daemon.actors.items() for word in (pid, display)]
        seconds = [nanoseconds / 1e9 for nanoseconds in machine.ask("restart", *deaths)]
    run.results.numbers["restart, in seconds"] = seconds
    middle = statistics.median(seconds)
    value = f"{middle:.4f} s ({min(seconds):.4f} to {max(seconds):.4f})"
    met = min(seconds) >= 2.0 and middle <= 2.015
    run.results.row("restart after a death", value, bar="2.000 to 2.015 s", met=met)
