# SPDX-License-Identifier: MIT
# test_stress_storm.py: every signal goes to a child not yet reaped, whatever dies, fails or comes late.
#
# The explored interleavings check every order of the threads' steps. This story has real threads, processes
# and deaths, and the kernel's answer to each kill(2).
import contextlib
import os
import re
import signal
import time

from stress import GROUPS, SEED, chance, make_stations, report, size, time_limit
from support.callers import start_call, stop_call
from support.place import LOG

pytestmark = time_limit
STATIONS = 8
LAUNCH = re.compile(r"DISPLAY=:(\d+), actor_code=(\d), child=(\d+)\n")
ACTOR_OF_CODE = {"2": "local-login", "4": "press-fkey", "7": "xhotkey"}


class Children:
    """The last child of each group, read from the log as it grows."""

    def __init__(self):
        self.read = 0
        self.rest = ""
        self.last = {}

    def kill(self, group):
        with open(LOG) as log:
            log.seek(self.read)
            self.rest += log.read()
            self.read = log.tell()
        whole = self.rest.rfind("\n") + 1
        for display, code, pid in LAUNCH.findall(self.rest[:whole]):
            self.last[f":{display}", ACTOR_OF_CODE[code]] = int(pid)
        self.rest = self.rest[whole:]
        if group in self.last:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.last[group], signal.SIGKILL)


def test_no_stranger_is_signalled_in_a_storm_of_starts_stops_deaths_and_failures(bare):
    report("storm", seed=SEED, delays="30/1000", faults="30/1000")
    bare.set_rule("storm", f"{SEED} 30 30")
    bare.start_bus()
    bare.start_daemon(preloaded=True)
    caller = bare.caller()
    make_stations(caller, STATIONS)
    choice = chance()
    groups = [(f":{display}", actor) for display in range(STATIONS) for actor in GROUPS]
    children = Children()
    until = time.monotonic() + size(6, 60)
    calls = 0
    while time.monotonic() < until or calls < 1500:
        group = choice.choice(groups)
        action = choice.choice(["start", "stop", "death", "stop and death", "death and stop"])
        if action.startswith("death"):
            children.kill(group)
            time.sleep(choice.choice([0, 0, 0.0005, 0.002]))
        serials = []
        if action != "death":
            serials = caller.send_all([start_call(*group) if action == "start" else stop_call(*group)])
        if action == "stop and death":
            time.sleep(choice.choice([0, 0.0001, 0.0003, 0.001]))
            children.kill(group)
        assert caller.replies(serials) == len(serials) * [(True,)]
        calls += len(serials)
    log = bare.log_text()
    stops = log.count("proc_method_stop: child_pid ")
    with open("/run/stage/kills") as file:
        kills = [line.split() for line in file]
    strangers = [(pid, number) for pid, number, who in kills if who == "stranger"]
    hits = len(kills) - len(strangers)
    report("storm", calls=calls, stops=stops, children_signalled=hits, strangers_signalled=len(strangers))
    assert strangers == []
    assert hits > 50 and {int(number) for _, number, _ in kills} == {signal.SIGTERM}
    assert stops > hits, "no stop came while a child was dead"
    for failure in (
        "Unable to create child process.",
        "Unable to start thread for",
        "Unable to allocate memory",
    ):
        assert failure in log
