# SPDX-License-Identifier: MIT
# machine.py: the machine of a measurement: a bus, the services on it, and the kernel's figures about them.
#
# All compared programs run on one processor with the bus and the load. With several, the figures jump between
# the cost of a wake-up on the same processor and on another one. Everything runs with a higher priority where
# that is allowed, so that other work on the machine falls into few measurements.
import contextlib
import glob
import os
import re
import shutil
import subprocess

from support import processes
from support.bus import start_bus
from support.place import NAME, PATH, PROGRAMS, STAGE, clear_stage, set_stage

ACTORS = f"{STAGE}/actors/bin"
PRIORITY = -15


class Target:
    """An interface of a service as words for the load; a call with a member gives a method."""

    def __init__(self, service, path, interface):
        self.words = [service, path, interface]

    def __call__(self, member):
        return [*self.words, member]


DUMMY = Target(NAME, f"{PATH}/Dummy", f"{NAME}.Dummy")
DISPLAY_MANAGER = Target(NAME, f"{PATH}/DisplayManager", f"{NAME}.DisplayManager")
PING = Target("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer")


def floor_target(name):
    return Target(name, "/bench", "bench.Service")


def lines_of(path):
    with open(path) as file:
        return file.readlines()


def threads(pid):
    return glob.glob(f"/proc/{pid}/task/[0-9]*")


def cpu_nanoseconds(pid):
    """The processor time of all threads of a process, user and system."""
    return sum(int(lines_of(f"{thread}/schedstat")[0].split()[0]) for thread in threads(pid))


def context_switches(pid):
    switches = 0
    for thread in threads(pid):
        status = "".join(lines_of(f"{thread}/status"))
        switches += sum(int(n) for n in re.findall(r"ctxt_switches:\s+(\d+)", status))
    return switches


def kib(pid, field):
    """The sum of the fields whose names match, over all memory of a process."""
    rollup = "".join(lines_of(f"/proc/{pid}/smaps_rollup"))
    return sum(int(n) for n in re.findall(rf"^{field}:\s+(\d+)", rollup, re.M))


def private_kib(pid):
    """Memory that no other process uses at the moment, including pages of files."""
    return kib(pid, "Private_(?:Clean|Dirty)")


def own_kib(pid):
    """Memory that the process has written to, so that no other process can use it."""
    return kib(pid, "Anonymous")


def mappings(pid):
    return lines_of(f"/proc/{pid}/maps")


def wait_for(what, condition):
    processes.wait_for(what, condition, pause=0.0005)


class Machine:
    """A private bus and everything that runs on it, until the end of a with block."""

    def __init__(self, programs):
        self.programs = programs  # the directory of the bench's programs
        self.processors = sorted(os.sched_getaffinity(0))
        self.one = {self.processors[-1]}
        self.children = []

    def __enter__(self):
        # The bus complains on standard error that it cannot raise its limit of descriptors.
        self.bus, address = start_bus(preexec_fn=self.pin, stderr=subprocess.DEVNULL)
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address
        self.children.append(self.bus)
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
        self.load = self.start([f"{self.programs}/bench-load"], **pipes)
        return self

    def __exit__(self, *_):
        for child in reversed(self.children):
            self.end(child)
        processes.kill_descendants()
        processes.reap_orphans()

    def pin(self):
        os.sched_setaffinity(0, self.one)

    def start(self, command, **options):
        child = subprocess.Popen(command, preexec_fn=self.pin, **options)
        self.children.append(child)
        return child

    def serve(self, command, name, **options):
        """Starts a service and waits until it has its name."""
        child = self.start(command, **options)
        self.ask("await", name)
        return child

    def end(self, child):
        if child in self.children:
            self.children.remove(child)
        child.kill()
        child.wait()

    def ask(self, *words):
        """Sends a command to the load; returns its figures."""
        print(*words, file=self.load.stdin, flush=True)
        answer = self.load.stdout.readline()
        if not answer.endswith("\n"):
            raise SystemExit(f"bench: the load gave up at: {' '.join(map(str, words))}")
        return [int(word) for word in answer.split()]

    def spread_out(self):
        """Lets everything that runs use every processor."""
        for child in self.children:
            for thread in threads(child.pid):
                os.sched_setaffinity(int(os.path.basename(thread)), self.processors)


@contextlib.contextmanager
def stage(programs):
    """Sets up the actors on the path and a higher priority, and cleans up; yields the allowed priority."""
    processes.adopt_orphans()
    set_stage()
    for program in PROGRAMS:
        shutil.copy(f"{programs}/bench-actor", f"{ACTORS}/{program}")
    os.environ["PATH"] = f"{ACTORS}:{os.environ['PATH']}"
    with contextlib.suppress(PermissionError):
        os.setpriority(os.PRIO_PROCESS, 0, PRIORITY)
    try:
        yield os.getpriority(os.PRIO_PROCESS, 0)
    finally:
        clear_stage()
