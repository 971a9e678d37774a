# SPDX-License-Identifier: MIT
# test_endurance.py: the twenty-thousandth start costs what the first one cost.
#
# A thread that is neither joined nor detached leaves its stack behind, so memory grows with each cycle. It must grow
# evenly, by little, and in few mappings: fork slows with each, and their number is limited.
import os
import statistics
import time

import pytest
from machine import LOG, not_under_a_sanitizer
from stress import make_stations, report, size, time_limit

pytestmark = time_limit
MOST_KIB_A_CYCLE = 13
MOST_SLOWDOWN = 1.25
SAMPLE = 500  # cycles whose median counts, at the begin and at the end
POSSIBLE = 65530 // 2  # of the system's mappings, so that as many cycles again would pass


@pytest.fixture
def one_processor():
    """All on one processor: where the scheduler puts who would decide on the times otherwise."""
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    yield
    os.sched_setaffinity(0, processors)


def status(machine, field):
    with open(f"/proc/{machine.daemon.pid}/status") as file:
        for line in file:
            name, _, value = line.partition(":")
            if name == field:
                return int(value.split()[0])
    raise AssertionError(f"no {field} in the status of the daemon")


def mappings(machine):
    with open(f"/proc/{machine.daemon.pid}/maps") as file:
        return sum(1 for _ in file)


class End:
    """The end of a cycle: one more line of the log with this text, and no more threads than in idleness."""

    def __init__(self, machine, last_line):
        self.machine = machine
        self.last_line = last_line
        self.threads = status(machine, "Threads")
        self.log = open(LOG)
        self.log.seek(0, os.SEEK_END)

    def wait(self):  # asks without a pause, because it is timed
        seen = ""
        deadline = time.monotonic() + 10
        while self.last_line not in seen or status(self.machine, "Threads") != self.threads:
            os.sched_yield()
            seen += self.log.read()
            assert time.monotonic() < deadline, f"no end of the cycle; the log:\n{self.machine.log_text()[-3000:]}"


def endure(machine, what, cycles, cycle, last_line):
    """Runs the cycles one after the other, each to the end of its thread, and holds the costs against the bounds."""
    end = End(machine, last_line)
    memory, mapped = status(machine, "RssAnon"), mappings(machine)
    sample = min(SAMPLE, cycles // 4)
    times = []
    for number in range(cycles):
        if number == cycles // 2:
            halfway = status(machine, "RssAnon")
        begin = time.perf_counter()
        cycle()
        end.wait()
        times.append(time.perf_counter() - begin)
    grown = (status(machine, "RssAnon") - memory) / cycles
    grown_late = (status(machine, "RssAnon") - halfway) / (cycles - cycles // 2)
    more_mappings = mappings(machine) - mapped

    first, last = ([1000 * tenth for tenth in statistics.quantiles(some, n=10)]
                   for some in (times[:sample], times[-sample:]))
    report(f"{cycles} times {what}", kib_a_cycle=f"{grown:.2f}", in_the_second_half=f"{grown_late:.2f}",
           more_mappings=more_mappings, virtual_mib=status(machine, "VmSize") // 1024,
           median_ms=f"{first[4]:.2f} to {last[4]:.2f} ({last[4] / first[4]:.2f})",
           fastest_tenth_ms=f"{first[0]:.2f} to {last[0]:.2f} ({last[0] / first[0]:.2f})")
    assert grown <= MOST_KIB_A_CYCLE and grown_late <= 1.05 * grown + 0.5
    assert more_mappings <= cycles // 16 + 8 and more_mappings < POSSIBLE
    if size(False, True):  # a short run is no place for a timed test
        # What grows slows all cycles down; a machine that has become busier leaves the fastest as they were.
        assert min(last[4] / first[4], last[0] / first[0]) <= MOST_SLOWDOWN


@not_under_a_sanitizer("memory and time are its own as well")
def test_the_last_cycles_cost_what_the_first_ones_did(one_processor, machine):
    caller = machine.caller()
    make_stations(caller, 1)
    machine.wait_log("No action needed")
    machine.wait("the worker to be the only thread", lambda: status(machine, "Threads") == 2)

    def start_and_stop():
        assert caller.start(":0", "xhotkey") is True
        assert caller.stop(":0", "xhotkey") is True

    def start_station():
        assert caller.start(":0", "init-station") is True

    cycles = size(600, 20000)
    endure(machine, "Start and Stop", cycles, start_and_stop, last_line="Exit from the current thread\n")
    endure(machine, "Start of init-station", cycles, start_station, last_line="No action needed for INIT_STATION.")
    log = machine.log_text()
    assert log.count("keep_alive field is FALSE. Exit from the current thread\n") == cycles
    assert log.count("No action needed for INIT_STATION. display_num: 0\n") == cycles + 1  # one made the station
    assert " ERROR: " not in log and "Unable" not in log and "is not running" not in log

    assert caller.start(":0", "local-login") is True
    machine.wait_records(1, "corvane-ls")
