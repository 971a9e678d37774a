# SPDX-License-Identifier: MIT
# calls.py: compares the daemon's HelloWorld with echo services and with the bus's own Ping.
import os
import statistics

from support.place import LOG, NAME

from machine import DUMMY, Machine, PING, Target, cpu_nanoseconds, floor_target, lines_of
from results import median

ECHO_LOG = "/var/log/corvane-bench-echo.log"
PREFIX = len("2000-01-01 00:00:00:")

# The daemon's present figures. One write for each line of the log limits them.
LEAST_OF_FLOOR = 0.97
MOST_CPU_OF_FLOOR = 1.03


def lines_per_call(machine, target, log):
    """The lines that a service logs for one call, without the time."""
    machine.ask("calls", *target("HelloWorld"), 1, 2)  # until the service has logged its set-up
    os.truncate(log, 0)
    machine.ask("calls", *target("HelloWorld"), 1, 1)
    return [line[PREFIX:] for line in lines_of(log)]


class Callee:
    """A service, and what a call of it costs."""

    def __init__(self, machine, target, process, member="HelloWorld", log=None):
        self.machine, self.target, self.process, self.member, self.log = machine, target, process, member, log

    def measure(self, outstanding, count):
        if self.log:
            os.truncate(self.log, 0)
        before = cpu_nanoseconds(self.process.pid)
        round_trip, total = self.machine.ask("calls", *self.target(self.member), outstanding, count)
        cpu = cpu_nanoseconds(self.process.pid) - before
        return {"round trip": round_trip, "per call": total / count, "cpu": cpu / count}


def callees(run, machine):
    # The floor with a log has the daemon's path and interface, so that its lines have the same length.
    name = "bench.echo_log"
    log_target = Target(name, *DUMMY.words[1:])
    echo_log = machine.serve([f"{run.programs}/bench-echo-log", name, ECHO_LOG], name)
    result = {
        "daemon": Callee(machine, DUMMY, machine.serve([run.daemon], NAME), log=LOG),
        "echo with log": Callee(machine, log_target, echo_log, log=ECHO_LOG),
        "Ping of the bus": Callee(machine, PING, machine.bus, "Ping"),
    }
    for kind, program in (("echo", "echo"), ("sd-bus echo", "echo-sd-bus"), ("GDBus echo", "echo-gdbus")):
        path = f"{run.programs}/bench-{program}"
        if os.path.exists(path):
            name = f"bench.{program.replace('-', '_')}"
            result[kind] = Callee(machine, floor_target(name), machine.serve([path, name], name))
        else:
            run.results.row(f"{kind}: its library is not installed", "")
    logged = [result[name] for name in ("daemon", "echo with log")]
    daemon, floor = (lines_per_call(machine, callee.target, callee.log) for callee in logged)
    if [len(line) for line in daemon] != [len(line) for line in floor]:
        raise SystemExit(f"bench: echo-log.cpp and the daemon log different lines:\n{daemon}\n{floor}")
    return result


def rounds(run, subjects, label, outstanding, count, how_many):
    """figure -> its rounds, each with a value for every subject."""
    for callee in subjects.values():
        callee.measure(outstanding, count)  # warms the caches
    figures = []
    for _ in range(how_many):
        figures.append({name: subjects[name].measure(outstanding, count) for name in run.in_turn(subjects)})
    run.results.numbers[label] = figures
    kinds = ("round trip", "per call", "cpu")
    return {kind: [{name: of[name][kind] for name in subjects} for of in figures] for kind in kinds}


def calls(run):
    with Machine(run.programs) as machine:
        subjects = callees(run, machine)
        one = rounds(run, subjects, "calls, one outstanding", 1, 200, run.rounds)
        many = rounds(run, subjects, "calls, 32 outstanding", 32, 640, run.rounds)
        machine.spread_out()
        spread = rounds(run, subjects, "calls, any processor", 1, 200, max(3, run.rounds // 4))

    row = run.results.ratio_row
    others = [name for name in subjects if name not in ("daemon", "echo with log", "echo")]
    row("HelloWorld round trip, one processor", one["round trip"], "echo with log", 1.00)
    row("HelloWorld round trip, one processor", one["round trip"], "echo", 1.10)
    for other in others:
        row("HelloWorld round trip, one processor", one["round trip"], other)
    row("HelloWorld round trip, any processor", spread["round trip"], "echo with log", detail=True)
    for other in ("echo with log", "echo", *others):
        ratio = statistics.median(of[other] / of["daemon"] for of in many["per call"])
        values = [f"{1e9 / median(many['per call'], name):.0f}/s" for name in ("daemon", other)]
        is_judged = other == "echo with log"
        bar, met = (f"at least {LEAST_OF_FLOOR}", ratio >= LEAST_OF_FLOOR) if is_judged else ("", None)
        what = "HelloWorld, 32 outstanding, calls/s"
        run.results.row(what, values[0], other, values[1], f"{ratio:.3f}", bar, met, detail=not is_judged)

    row("service CPU per HelloWorld", one["cpu"], "echo with log", MOST_CPU_OF_FLOOR)
    row("service CPU per HelloWorld", one["cpu"], "echo", detail=True)
    row("service CPU per HelloWorld, 32 outstanding", many["cpu"], "echo with log", detail=True)
