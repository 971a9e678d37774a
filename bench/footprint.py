# SPDX-License-Identifier: MIT
# footprint.py: what can be counted: system calls, context switches, memory, mappings, the executable's size.
import os
import signal
import subprocess
import time
from collections import Counter

from support.place import LOG, STAGE

from calls import lines_per_call
from machine import (DUMMY, Machine, context_switches, floor_target, lines_of, mappings, own_kib,
                     private_kib, threads, wait_for)
from starts import the_daemon

COUNTED_CALLS = 1000
IDLE_SECONDS = 10
EACH = 4  # beside the lines of the log: one wait, two reads (the second finds nothing), one send
WAITS = ("select", "_newselect", "pselect6", "pselect6_time64", "restart_syscall")
MOST_IDLE_KIB = 32  # that the daemon may have written to more than the echo
MOST_STATION_KIB = 20
MOST_EXECUTABLE_KIB = 60


def count_system_calls(machine, pid):
    """System calls of COUNTED_CALLS calls of HelloWorld, by name."""
    tracer = subprocess.Popen(["strace", "-f", "-o", f"{STAGE}/trace", "-p", str(pid)],
                              stderr=subprocess.DEVNULL)
    wait_for("strace", lambda: not any("TracerPid:\t0\n" in lines_of(f"{thread}/status")
                                       for thread in threads(pid)))
    machine.ask("calls", *DUMMY("HelloWorld"), 1, COUNTED_CALLS)
    time.sleep(0.05)  # until the daemon waits again
    tracer.send_signal(signal.SIGINT)
    tracer.wait()
    calls = [line.split(None, 1)[1] for line in lines_of(f"{STAGE}/trace")]
    names = [call.partition("(")[0] for call in calls if not call.startswith("<...")]  # the end of a call
    return Counter("wait" if name in WAITS else name for name in names)


def system_calls(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        lines = len(lines_per_call(machine, DUMMY, LOG))
        counts = count_system_calls(machine, daemon.process.pid)
    run.results.numbers[f"system calls of {COUNTED_CALLS} calls"] = counts
    expected = Counter({"wait": 1, "recvmsg": 2, "sendmsg": 1, "write": lines})
    total = sum(counts.values()) / COUNTED_CALLS
    # One wait more: the one in which the daemon was found, or in which it is left.
    surplus = {name: counts[name] - COUNTED_CALLS * expected[name] for name in counts | expected}
    exact = 0 <= surplus.pop("wait") <= 2 and not any(surplus.values())
    by_name = ", ".join(f"{name} {counts[name] / COUNTED_CALLS:.2f}" for name in sorted(counts))
    run.results.row("system calls per HelloWorld", f"{total:.2f} ({by_name})",
                    bar=f"{EACH} and {lines} writes, one for each line of the log", met=exact, gate=exact)


def idle(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(16)
        time.sleep(1)
        before = context_switches(daemon.process.pid)
        time.sleep(IDLE_SECONDS)
        switches = context_switches(daemon.process.pid) - before
    run.results.row("context switches in 10 s idle, 16 running stations", str(switches), bar="0",
                    met=switches == 0, gate=switches == 0)


def guards_need_no_mapping():
    """Since Linux 6.13 a stack's guard can be a part of its mapping."""
    return [int(number) for number in os.uname().release.split("-")[0].split(".")[:2]] >= [6, 13]


def memory(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        echo = machine.serve([f"{run.programs}/bench-echo", "bench.echo"], "bench.echo")
        for target in (DUMMY, floor_target("bench.echo")):
            machine.ask("calls", *target("HelloWorld"), 1, 100)  # whatever is set up at first use
        pid = daemon.process.pid
        row = run.results.row
        for what, measure in (("", private_kib), (", without files", own_kib)):
            one, other = measure(pid), measure(echo.pid)
            row(f"private memory, idle, no station{what}", f"{one} KiB", "echo", f"{other} KiB",
                f"{one / other:.3f}", "at most 1.10", one <= 1.10 * other,
                gate=measure is private_kib or one <= other + MOST_IDLE_KIB)
        figures = []
        for number in range(1, 65):
            daemon.start(f":{number}")
            figures.append((own_kib(pid), len(mappings(pid))))
        libraries = sorted({os.path.basename(line.split()[-1]) for line in mappings(pid) if ".so" in line})
    run.results.numbers["own KiB and mappings with 1, 2, ... 64 stations"] = figures
    run.results.numbers["libraries"] = libraries
    # The first stations pay for what all share: the heap's first growth and the first block of stacks.
    kib, maps = ((figures[-1][i] - figures[15][i]) / (len(figures) - 16) for i in (0, 1))
    row("private memory per station with a running actor", f"{kib:.1f} KiB", bar="at most 18 KiB",
        met=kib <= 18, gate=kib <= MOST_STATION_KIB)
    most = 0.2 if guards_need_no_mapping() else 2.1
    row("mappings per station with a running actor", f"{maps:.2f}",
        bar="0.2: stacks lie side by side" if most < 1 else "2: a stack and its guard", met=maps <= most,
        gate=maps <= most)
    runtime = [name for name in libraries if name.startswith(("libstdc++", "libc++"))]
    row("C++ runtime", ", ".join(runtime) or "not mapped", bar="not mapped", met=not runtime,
        gate=not runtime)


def stripped_kib(program):
    subprocess.run(["strip", "-o", f"{STAGE}/stripped", program], check=True)
    return os.path.getsize(f"{STAGE}/stripped") / 1024


def size(run):
    kib, echo = (stripped_kib(program) for program in (run.daemon, f"{run.programs}/bench-echo"))
    run.results.row("executable, stripped", f"{kib:.1f} KiB", "echo", f"{echo:.1f} KiB", f"{kib / echo:.3f}",
                    f"at most {MOST_EXECUTABLE_KIB} KiB", kib <= MOST_EXECUTABLE_KIB, kib <= MOST_EXECUTABLE_KIB)
