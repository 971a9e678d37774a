# SPDX-License-Identifier: MIT
# test_endurance.py: the twenty-thousandth start costs as much as the first one.
#
# The daemon neither joins nor detaches its threads, so each cycle keeps a stack and memory grows. It must
# grow evenly, by little and in few mappings: each mapping makes fork slower, and their number is limited. The
# test compares the times with those of a young daemon, in alternating cycles, because other load slows both.
# It makes three comparisons, and one must be below the bound: a daemon that has become slow fails all of
# them.
import collections
import os
import statistics
import time

import pytest

from stress import make_stations, report, size, time_limit
from support.machine import not_under_a_sanitizer
from support.place import LOG

pytestmark = time_limit
MOST_KIB_A_CYCLE = 13
MOST_SLOWDOWN = 1.25
COMPARISONS = 3
POSSIBLE = 65530 // 2  # half of the mappings that the kernel allows
CYCLES = size(600, 20000)
SAMPLE = size(150, 500)  # the compared cycles: the last ones, and the first ones of a young daemon


@pytest.fixture
def one_processor():
    """Runs all processes on one processor, because the scheduler's placement would change the times."""
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    yield
    os.sched_setaffinity(0, processors)


class Daemon:
    """A daemon with one station, a caller, and a reader of its log."""

    def __init__(self, machine):
        self.machine = machine
        self.pid = machine.daemon.pid
        self.caller = machine.caller()
        self.cycles = collections.Counter()
        make_stations(self.caller, 1)
        machine.wait_log("No action needed")
        machine.wait("worker as the only other thread", lambda: self.status("Threads") == 2)
        self.log = open(LOG)
        self.log.seek(0, os.SEEK_END)

    def status(self, field):
        with open(f"/proc/{self.pid}/status") as file:
            for line in file:
                name, _, value = line.partition(":")
                if name == field:
                    return int(value.split()[0])
        raise AssertionError(f"no {field} in the status of the daemon")

    def mappings(self):
        with open(f"/proc/{self.pid}/maps") as file:
            return sum(1 for _ in file)

    def seconds_of(self, what):
        """The seconds of a cycle, until its last line in the log and the end of its thread."""
        cycle, last_line = KINDS[what]
        self.cycles[what] += 1
        begin = time.perf_counter()
        cycle(self.caller)
        seen = ""
        while last_line not in seen or self.status("Threads") != 2:  # no pause: this is timed
            os.sched_yield()
            seen += self.log.read()
            assert time.perf_counter() < begin + 10, f"no end of the cycle; log:\n{self.whole_log()[-3000:]}"
        return time.perf_counter() - begin

    def whole_log(self):
        self.log.seek(0)
        return self.log.read()


def start_and_stop(caller):
    assert caller.start(":0", "xhotkey") is True
    assert caller.stop(":0", "xhotkey") is True


def start_station(caller):
    assert caller.start(":0", "init-station") is True


KINDS = {
    "Start and Stop": (start_and_stop, "Exit from the current thread\n"),
    "Start of init-station": (start_station, "No action needed for INIT_STATION."),
}


def young_daemon(machine):
    """Starts one more daemon on another bus. The old one continues to write to its own log."""
    os.rename(LOG, f"{LOG}.of-the-old")
    machine.start_bus(path="/run/stage/bus-of-the-young")
    machine.start_daemon()
    return Daemon(machine)


def endure(daemon, what):
    """Runs the cycles one after the other, and asserts that memory stays within the bounds."""
    memory, mapped = daemon.status("RssAnon"), daemon.mappings()
    for number in range(CYCLES):
        if number == CYCLES // 2:
            halfway = daemon.status("RssAnon")
        daemon.seconds_of(what)
    grown = (daemon.status("RssAnon") - memory) / CYCLES
    grown_late = (daemon.status("RssAnon") - halfway) / (CYCLES - CYCLES // 2)
    more_mappings = daemon.mappings() - mapped

    report(
        f"{CYCLES} times {what}",
        kib_a_cycle=f"{grown:.2f}",
        in_the_second_half=f"{grown_late:.2f}",
        more_mappings=more_mappings,
        virtual_mib=daemon.status("VmSize") // 1024,
    )
    assert grown <= MOST_KIB_A_CYCLE and grown_late <= 1.05 * grown + 0.5
    assert more_mappings <= CYCLES // 16 + 8 and more_mappings < POSSIBLE


def slowdown(old, young, what):
    """The ratio of the times of the old daemon to those of the young one, in alternating cycles."""
    times = [(old.seconds_of(what), young.seconds_of(what)) for _ in range(SAMPLE)]
    last, first = (1000 * statistics.median(some) for some in zip(*times))
    report(
        f"after {old.cycles[what] - SAMPLE} times {what}",
        median_ms=f"{last:.2f}",
        of_a_young_daemon=f"{first:.2f}",
        ratio=f"{last / first:.2f}",
    )
    return last / first


@not_under_a_sanitizer("it uses memory and time itself")
def test_the_last_cycles_cost_as_much_as_the_first_ones(one_processor, machine):
    old = Daemon(machine)
    young = None
    for what in KINDS:
        endure(old, what)
        young = young or young_daemon(machine)
        holds = any(slowdown(old, young, what) <= MOST_SLOWDOWN for _ in range(COMPARISONS))
        assert holds or size(True, False)  # a short run only reports the times

    for daemon in (old, young):
        log = daemon.whole_log()
        ends = log.count("keep_alive field is FALSE. Exit from the current thread\n")
        stations = log.count("No action needed for INIT_STATION. display_num: 0\n")
        assert ends == daemon.cycles["Start and Stop"]
        assert stations == daemon.cycles["Start of init-station"] + 1  # one more created the station
        assert " ERROR: " not in log and "Unable" not in log and "is not running" not in log
    assert old.caller.start(":0", "local-login") is True
    machine.wait_records(1, "corvane-ls")
