# SPDX-License-Identifier: MIT
# footprint.py: exact counts: system calls, context switches, memory, mappings, the size of the executable.
import os
import signal
import subprocess
import time
from collections import Counter

from support.place import LOG, STAGE

from calls import lines_per_call
from machine import DUMMY, Machine, context_switches, floor_target, lines_of, mappings, own_kib
from machine import private_kib, threads, wait_for
from starts import the_daemon

COUNTED_CALLS = 1000
IDLE_SECONDS = 10
EACH = 4  # besides the log: one wait, two reads (the second finds nothing), one send
WAITS = ("select", "_newselect", "pselect6", "pselect6_time64", "restart_syscall")
MOST_IDLE_KIB = 32  # of memory written to, more than the echo
MOST_STATION_KIB = 20
MOST_EXECUTABLE_KIB = 60


def count_system_calls(machine, pid):
    """The system calls of COUNTED_CALLS calls of HelloWorld, by name."""
    command = ["strace", "-f", "-o", f"{STAGE}/trace", "-p", str(pid)]
    tracer = subprocess.Popen(command, stderr=subprocess.DEVNULL)

    def all_are_traced():
        return not any("TracerPid:\t0\n" in lines_of(f"{thread}/status") for thread in threads(pid))

    wait_for("strace", all_are_traced)
    machine.ask("calls", *DUMMY("HelloWorld"), 1, COUNTED_CALLS)
    time.sleep(0.05)  # until the daemon waits again
    tracer.send_signal(signal.SIGINT)
    tracer.wait()
    calls = [line.split(None, 1)[1] for line in lines_of(f"{STAGE}/trace")]
    names = [call.partition("(")[0] for call in calls if not call.startswith("<...")]  # not the end of a call
    return Counter("wait" if name in WAITS else name for name in names)


def system_calls(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        lines = len(lines_per_call(machine, DUMMY, LOG))
        counts = count_system_calls(machine, daemon.process.pid)
    run.results.numbers[f"system calls of {COUNTED_CALLS} calls"] = counts
    expected = Counter({"wait": 1, "recvmsg": 2, "sendmsg": 1, "write": lines})
    total = sum(counts.values()) / COUNTED_CALLS
    # strace may attach and detach during a wait, so up to two more waits are counted.
    surplus = {name: counts[name] - COUNTED_CALLS * expected[name] for name in counts | expected}
    exact = 0 <= surplus.pop("wait") <= 2 and not any(surplus.values())
    by_name = ", ".join(f"{name} {counts[name] / COUNTED_CALLS:.2f}" for name in sorted(counts))
    bar = f"{EACH} and {lines} writes, one for each line of the log"
    run.results.row("system calls per HelloWorld", f"{total:.2f} ({by_name})", bar=bar, met=exact, gate=exact)


def idle(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        daemon.fill(16)
        time.sleep(1)
        before = context_switches(daemon.process.pid)
        time.sleep(IDLE_SECONDS)
        switches = context_switches(daemon.process.pid) - before
    what, none = "context switches in 10 s idle, 16 running stations", switches == 0
    run.results.row(what, str(switches), bar="0", met=none, gate=none)


def guards_need_no_mapping():
    """Since Linux 6.13 a stack and its guard can share a mapping."""
    return [int(number) for number in os.uname().release.split("-")[0].split(".")[:2]] >= [6, 13]


def memory(run):
    with Machine(run.programs) as machine:
        daemon = the_daemon(run, machine)
        echo = machine.serve([f"{run.programs}/bench-echo", "bench.echo"], "bench.echo")
        for target in (DUMMY, floor_target("bench.echo")):
            machine.ask("calls", *target("HelloWorld"), 1, 100)  # the first use allocates
        pid = daemon.process.pid
        row = run.results.row
        for what, measure in (("", private_kib), (", without files", own_kib)):
            one, other = measure(pid), measure(echo.pid)
            values = f"{one} KiB", "echo", f"{other} KiB", f"{one / other:.3f}"
            gate = measure is private_kib or one <= other + MOST_IDLE_KIB
            row(f"private memory, idle, no station{what}", *values, "at most 1.10", one <= 1.10 * other, gate)
        figures = []
        for number in range(1, 65):
            daemon.start(f":{number}")
            figures.append((own_kib(pid), len(mappings(pid))))
        libraries = sorted({os.path.basename(line.split()[-1]) for line in mappings(pid) if ".so" in line})
    run.results.numbers["own KiB and mappings with 1, 2, ... 64 stations"] = figures
    run.results.numbers["libraries"] = libraries
    # The first stations pay for what all stations share: the first growth of the heap and the first block of
    # stacks.
    kib, maps = ((figures[-1][i] - figures[15][i]) / (len(figures) - 16) for i in (0, 1))
    what, gate = "private memory per station with a running actor", kib <= MOST_STATION_KIB
    row(what, f"{kib:.1f} KiB", bar="at most 18 KiB", met=kib <= 18, gate=gate)
    shared = guards_need_no_mapping()
    most, bar = (0.2, "0.2: adjacent stacks") if shared else (2.1, "2: a stack and its guard")
    what, met = "mappings per station with a running actor", maps <= most
    row(what, f"{maps:.2f}", bar=bar, met=met, gate=met, detail=True)
    runtime = ", ".join(name for name in libraries if name.startswith(("libstdc++", "libc++")))
    runtime, met = runtime or "not mapped", not runtime
    row("C++ runtime", runtime, bar="not mapped", met=met, gate=met, detail=True)


def stripped_kib(program):
    subprocess.run(["strip", "-o", f"{STAGE}/stripped", program], check=True)
    return os.path.getsize(f"{STAGE}/stripped") / 1024


def size(run):
    kib, echo = (stripped_kib(program) for program in (run.daemon, f"{run.programs}/bench-echo"))
    values = f"{kib:.1f} KiB", "echo", f"{echo:.1f} KiB", f"{kib / echo:.3f}"
    met = kib <= MOST_EXECUTABLE_KIB
    run.results.row("executable, stripped", *values, f"at most {MOST_EXECUTABLE_KIB} KiB", met, met)
