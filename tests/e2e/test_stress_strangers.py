# SPDX-License-Identifier: MIT
# test_stress_strangers.py: whoever is signalled is a child of the daemon's that it has not reaped, in any storm.
import os
import re
import signal
import time

from support.place import LOG
from stress import GROUPS, chance, make_stations, report, size, start_call, start_in_storm, stop_call, time_limit

pytestmark = time_limit
STATIONS = 8
LAUNCH = re.compile(r"DISPLAY=:(\d+), actor_code=(\d), child=(\d+)\n")
ACTOR_OF_CODE = {"2": "local-login", "4": "press-fkey", "7": "xhotkey"}


def judged(verdict):
    """The signals of the daemon's that hit a "child" or a "stranger", as (pid, signal)."""
    try:
        with open("/run/stage/storm/kills") as file:
            kills = [line.split() for line in file]
    except FileNotFoundError:
        return []
    return [(int(pid), int(number)) for pid, number, said in kills if said == verdict]


class Children:
    """The last child of each group, read off the log as it grows."""

    def __init__(self):
        self.read = 0
        self.rest = ""
        self.last = {}

    def __getitem__(self, group):
        with open(LOG) as log:
            log.seek(self.read)
            self.rest += log.read()
            self.read = log.tell()
        whole = self.rest.rfind("\n") + 1
        for display, code, pid in LAUNCH.findall(self.rest[:whole]):
            self.last[int(display), ACTOR_OF_CODE[code]] = int(pid)
        self.rest = self.rest[whole:]
        return self.last.get(group)


def end(pid):
    if pid:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def test_in_a_storm_of_starts_stops_deaths_and_failures_no_stranger_is_signalled(bare):
    start_in_storm(bare, delays=30, faults=30)
    caller = bare.caller()
    make_stations(caller, STATIONS)
    choice = chance()
    groups = [(display, actor) for display in range(STATIONS) for actor in GROUPS]
    children = Children()
    until = time.monotonic() + size(6, 60)
    calls = 0
    while time.monotonic() < until:
        group = choice.choice(groups)
        action = choice.choice(["start", "stop", "death", "stop and death", "death and stop"])
        if action.startswith("death"):
            end(children[group])
            time.sleep(choice.choice([0, 0, 0.0005, 0.002]))
        serials = []
        if action != "death":
            serials = caller.send_all([start_call(*group) if action == "start" else stop_call(*group)])
        if action == "stop and death":
            time.sleep(choice.choice([0, 0.0001, 0.0003, 0.001]))
            end(children[group])
        assert caller.replies(serials) == len(serials) * [(True,)]
        calls += len(serials)
    log = bare.log_text()
    stops = log.count("proc_method_stop: child_pid ")
    hit, strangers = judged("child"), judged("stranger")
    report("storm", calls=calls, stops_of_a_group_that_runs=stops, children_signalled=len(hit),
           strangers_signalled=len(strangers), of_them_all_processes=strangers.count((-1, signal.SIGTERM)))
    assert strangers == []
    assert len(hit) > 50 and {number for _, number in hit} == {signal.SIGTERM}
    assert stops > len(hit), "no stop came while a child was dead"
    assert log.count("Unable to create child process.") > 0


def test_a_relaunch_without_a_process_leaves_nothing_that_a_stop_could_signal(bare):
    start_in_storm(bare)
    caller = bare.caller()
    groups = [(display, actor) for display in range(STATIONS) for actor in GROUPS]
    strangers = 0
    for turn in range(1, size(1, 10) + 1):
        assert caller.burst([start_call(*group) for group in groups]) == len(groups) * [(True,)]
        bare.wait_log(", child=", turn * len(groups))
        signalled = len(judged("child"))
        with open("/run/stage/storm/no-forks", "w"):
            pass
        for pid in bare.children():
            end(pid)
        bare.wait("a fork that fails", lambda: os.path.exists("/run/stage/storm/failed-forks"))
        while os.path.getsize("/run/stage/storm/failed-forks") < len(groups):
            caller.burst([stop_call(*group) for group in groups])
        bare.wait_log("Unable to create child process.", turn * len(groups))
        caller.burst([stop_call(*group) for group in groups])
        os.unlink("/run/stage/storm/no-forks")
        os.unlink("/run/stage/storm/failed-forks")
        strangers += len(judged("stranger"))
        assert len(judged("child")) == signalled
    report("relaunches without a process", groups=turn * len(groups), strangers_signalled=strangers)
    assert judged("stranger") == []
