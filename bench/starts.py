# SPDX-License-Identifier: MIT
# starts.py: the daemon's main job beside the least that it takes, and beside other supervisors.
import os
import shutil
import statistics
import time

from support.place import NAME
from support.processes import stat_of

import supervisors
from machine import DISPLAY_MANAGER, DUMMY, Machine, floor_target, wait_for
from results import median

FLOOR = "two-thread fork"
FLOOR_NAME = "bench.launcher"
FORK_SECONDS = 0.1  # of slow-fork.c


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


def the_floor(run, machine):
    return Starter(machine, floor_target(FLOOR_NAME),
                   machine.serve([f"{run.programs}/bench-launcher", FLOOR_NAME], FLOOR_NAME))


def starts(run):
    """From Start to the actor's first instruction, on machines with few and with many stations."""
    for stations in run.stations:
        what = f"Start to the actor's first instruction, {stations} station{'s' if stations > 1 else ''}"
        if run.is_32_bit and stations > 200:
            run.results.row(what, "does not fit", FLOOR, "nor does this: stacks of 8 MiB, 32 bits of addresses")
            continue
        with Machine(run.programs) as machine:
            starters = {"daemon": the_daemon(run, machine), FLOOR: the_floor(run, machine)}
            for starter in starters.values():
                starter.fill(stations)
            figures = []
            for turn in range(run.rounds):
                display = f":{turn % stations + 1}"
                figures.append({name: starters[name].again(display) for name in run.in_turn(starters)})
        run.results.numbers[f"starts, {stations} stations"] = figures
        run.results.ratio_row(what, figures, FLOOR, 1.05 if stations == 1 else 0.85)


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
                        f"{longer:+.2f} ms", "at most 0.8 ms more", longer <= 0.8)


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
