# SPDX-License-Identifier: MIT
# test_faults.py: what the display manager says and keeps when a thread, a process or memory cannot be had.
import os
import re
import resource
import time

import pytest

from support.callers import plugin_call
from support.machine import not_under_a_sanitizer
from transcript import START, STOP, begun, launch, now, transcript


@pytest.fixture
def faulty(bare):
    """A machine whose daemon can be made to fail; it lists its stations."""
    bare.start_bus()
    bare.start_faulty_daemon("--verbose")
    return bare


def row(position, display, code=1):
    return ("dm_start_station_thread", f"#{position} station: display_num={display}, type={code}")


# ---- memory for messages ----


def memory_of(machine, field):
    with open(f"/proc/{machine.daemon.pid}/status") as file:
        return int(re.search(rf"{field}:\s*(\d+)", file.read())[1])


def processor_seconds(machine):
    with open(f"/proc/{machine.daemon.pid}/stat") as file:
        times = file.read().rpartition(")")[2].split()[11:13]
    return sum(map(int, times)) / os.sysconf("SC_CLK_TCK")


@not_under_a_sanitizer("its own memory is beyond every limit")
def test_at_its_memory_limit_the_daemon_waits_without_being_busy_and_then_serves_every_call(machine):
    caller, other = machine.caller(), machine.caller()
    no_limit = resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS)
    limit = memory_of(machine, "VmSize") * 1024 + 2**20
    resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS, (limit, no_limit[1]))
    large = caller.send_all([plugin_call("Dummy", "HelloWorld", "ay", bytes(30_000_000))])
    machine.wait_log(r"\{EE\} No memory for the next message$")
    behind = other.send_all([plugin_call("Dummy", "HelloWorld"),
                             plugin_call("DisplayManager", "Start", "sss", ":1", "xhotkey", "PCI")])

    # Each pause is a wait; a busy loop has none.
    waits = memory_of(machine, "voluntary_ctxt_switches")
    begin, busy = time.monotonic(), processor_seconds(machine)
    machine.wait("ten pauses", lambda: memory_of(machine, "voluntary_ctxt_switches") >= waits + 10, 20)
    assert processor_seconds(machine) - busy < 0.5 * (time.monotonic() - begin)
    assert machine.records() == []

    resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS, no_limit)
    assert caller.replies(large) == [("How are you?",)]
    assert other.replies(behind) == [("How are you?",), (True,)]
    machine.wait_records(1)
    assert caller.hello() == "How are you?"
    assert machine.texts().count("{EE} No memory for the next message") == 1


# ---- threads ----


def test_a_station_without_a_thread_is_refused_and_leaves_no_trace(faulty):
    caller = faulty.caller()
    faulty.fail("pthread_create")
    since = now(faulty)
    assert caller.start(":7", "xhotkey", "PCI") is False
    assert caller.stop(":7", "xhotkey") is False
    assert transcript(faulty, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:7, actor=xhotkey, stationtype=PCI"),
        ("dm_start_station_thread", "Start a new station thread for :7"),
        ("dm_start_station_thread", "{DM} Unable to start thread for display=7, rc=11"),
        STOP,
        ("dbus_dm_stop", "display_num=7, actor_code=7"),
        ("add_station_event", "{DM} Unable to find station entry for display 7"),
        ("dbus_dm_stop", "{DM} Unable to add event"),
    ]
    assert caller.start(":7", "xhotkey", "USB") is True
    assert faulty.wait_records(1)[0].argv == ["corvane-xh", "-display", ":7"]
    assert row(1, 7, 3) in transcript(faulty, since)


def test_a_station_without_a_thread_leaves_those_before_it_as_they_are(faulty):
    caller = faulty.caller()
    assert caller.start(":1", "init-station") is True
    assert caller.start(":2", "init-station") is True
    faulty.wait_log("No action needed", 2)
    faulty.fail("pthread_create")
    assert caller.start(":3", "init-station") is False
    since = now(faulty)
    assert caller.start(":4", "init-station") is True
    assert caller.start(":3", "init-station") is True
    listed = [said for said in transcript(faulty, since) if said[1].startswith("#")]
    assert listed == [row(1, 1), row(2, 2), row(3, 4), row(1, 1), row(2, 2), row(3, 4), row(4, 3)]


@pytest.mark.parametrize("actor, code, group", [("init-station", 1, 0), ("remote-login", 3, 1), ("click-mouse", 5, 2)])
def test_a_group_without_a_thread_stays_idle_and_its_station_goes_on(faulty, actor, code, group):
    caller = faulty.caller()
    assert caller.start(":1", "init-station") is True
    faulty.wait_log("No action needed")
    faulty.fail("pthread_create")
    since = now(faulty)
    assert caller.start(":1", actor) is True
    faulty.wait_log("Unable to start thread")
    assert transcript(faulty, since) == [
        START,
        ("dbus_dm_start", f"dbus_dm_start(): display=:1, actor={actor}, stationtype=COMMON"),
        ("dm_start_station_thread", "station thread for :1 exists."),
        ("dbus_dm_start", f"Start requested actor code: {code} on display :1"),
        ("proc_method_start", f"group:{group}, is_running:0"),
        ("proc_method_start", f"Start method_start_thread for actor:{code}"),
        ("proc_method_start", f"{{DM}} Unable to start thread for event:{code}"),
    ]
    assert caller.stop(":1", actor) is True
    faulty.wait_log("sub process is not running")
    assert caller.start(":1", actor) is True
    faulty.wait_log("child=" if group else "No action needed", 1 if group else 2)


def test_a_group_without_a_stack_for_its_thread_stays_idle_and_its_station_goes_on(faulty):
    caller = faulty.caller()
    faulty.fail("mmap")
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_log(r"proc_method_start: DEBUG: \{DM\} Unable to start thread for event:7$")
    assert caller.start(":1", "xhotkey") is True
    (record,) = faulty.wait_records(1)
    assert faulty.children() == [record.pid]


# ---- processes ----


def test_a_first_launch_without_a_process_ends_its_thread_and_leaves_the_group_idle(faulty):
    caller = faulty.caller()
    assert caller.start(":1", "local-login") is True
    (bystander,) = faulty.wait_records(1)
    faulty.wait_log("child=")
    faulty.fail("fork")
    since = now(faulty)
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_log("Unable to create child process")
    assert caller.stop(":1", "xhotkey") is True
    faulty.wait_log("sub process is not running")
    assert transcript(faulty, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:1, actor=xhotkey, stationtype=COMMON"),
        ("dm_start_station_thread", "station thread for :1 exists."),
        ("dbus_dm_start", "Start requested actor code: 7 on display :1"),
        ("proc_method_start", "group:3, is_running:0"),
        ("proc_method_start", "Start method_start_thread for actor:7"),
        ("method_start_thread", "method_start_thread() for actor_code:7, display_num:1"),
        ("method_start_thread", "{DM} method_start_thread(): corvane-xh"),
        ("method_start_thread", "{DM} method_start_thread(): -display"),
        ("method_start_thread", "{DM} method_start_thread(): :1"),
        ("method_start_thread", "{DM} Unable to create child process. Login thread for display 1"),
        STOP,
        ("dbus_dm_stop", "display_num=1, actor_code=7"),
        ("proc_method_stop", "proc_method_stop"),
        ("proc_method_stop", "{DM} sub process is not running"),
    ]
    assert faulty.children() == [bystander.pid]  # no signal went to every process there is
    assert caller.start(":1", "xhotkey") is True
    assert faulty.wait_records(2)[1].program == "corvane-xh"


@not_under_a_sanitizer("each child has every stack", "thread")
def test_a_launch_whose_stack_cannot_be_shown_to_the_child_counts_as_one_without_a_process(faulty):
    caller = faulty.caller()
    assert caller.start(":1", "local-login") is True  # what the heap has grown by is left out now
    (other,) = faulty.wait_records(1)
    faulty.wait_log("child=")
    faulty.fail("madvise")
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_log("Unable to create child process. Login thread for display 1$")
    assert caller.start(":1", "xhotkey") is True
    (record,) = faulty.wait_records(1, "corvane-xh")
    assert faulty.children() == sorted([other.pid, record.pid])


def test_a_relaunch_without_a_process_ends_the_supervision(faulty):
    caller = faulty.caller()
    faulty.behave("corvane-xh", "exit 1")
    assert caller.start(":1", "xhotkey") is True
    (record,) = faulty.wait_records(1)
    faulty.wait_log("Child process died")
    faulty.behave("corvane-xh", "stay")
    faulty.fail("fork")
    faulty.wait_log("Unable to create child process. Login thread for display 1$")
    since = now(faulty)
    assert caller.stop(":1", "xhotkey") is True
    faulty.wait_log("sub process is not running")
    assert caller.start(":1", "xhotkey") is True
    second = faulty.wait_records(2)[1]
    faulty.wait_log(f"child={second.pid}$")
    assert ("proc_method_start", "group:3, is_running:0") in transcript(faulty, since)
    assert faulty.children() == [second.pid] and second.pid != record.pid


def test_a_launch_that_takes_long_holds_up_neither_another_stations_calls_nor_the_dummys(faulty):
    caller = faulty.caller()
    faulty.hold("fork")
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_held("fork")
    assert caller.start(":2", "local-login") is True
    assert faulty.wait_records(1)[0].argv == ["corvane-ls", ":2"]
    assert caller.hello() == "How are you?"
    assert caller.stop(":2", "local-login") is True
    faulty.wait_log("keep_alive field is FALSE")
    assert len(faulty.records()) == 1
    faulty.release("fork")
    assert faulty.wait_records(2)[1].argv == ["corvane-xh", "-display", ":1"]


def test_a_stop_waits_for_the_launch_of_the_start_before_it(faulty):
    caller = faulty.caller()
    faulty.hold("fork")
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_held("fork")
    serials = caller.send_all([plugin_call("DisplayManager", "Stop", "ss", ":1", "xhotkey")])
    faulty.wait_log("display_num=1, actor_code=7")
    assert "proc_method_stop" not in faulty.texts()
    faulty.release("fork")
    assert caller.replies(serials) == [(True,)]
    faulty.wait_log("keep_alive field is FALSE")
    assert faulty.children() == []


def test_a_program_that_cannot_be_run_ends_its_child_with_status_0(faulty):
    faulty.remove("corvane-xh")
    faulty.hold("wait")
    assert faulty.caller().start(":1", "xhotkey") is True
    child = int(faulty.wait_log(r"child=(\d+)$")[0][1])
    faulty.wait_held("wait")

    def fields():
        with open(f"/proc/{child}/stat") as file:
            return file.read().rpartition(")")[2].split()

    faulty.wait("the child's end", lambda: fields()[0] == "Z")
    assert fields()[-1] == "0"  # the status that waitpid(2) will tell
    faulty.release("wait")
    faulty.wait_log(f"Child process died: {child}$")


# ---- memory ----


@pytest.mark.parametrize("nth", [1, 2])
def test_a_station_without_memory_is_refused_and_leaves_no_trace(faulty, nth):
    caller = faulty.caller()
    faulty.fail("memory", nth)
    since = now(faulty)
    assert caller.start(":7", "xhotkey") is False
    assert transcript(faulty, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:7, actor=xhotkey, stationtype=COMMON"),
        ("dm_start_station_thread", "Start a new station thread for :7"),
        ("dm_start_station_thread", "{DM} Unable to allocate memory."),
    ]
    assert caller.stop(":7", "xhotkey") is False
    assert caller.start(":7", "xhotkey") is True
    faulty.wait_records(1)


def test_a_start_event_without_memory_is_refused_and_its_new_station_stays(faulty):
    caller = faulty.caller()
    faulty.fail("memory", 3)
    since = now(faulty)
    assert caller.start(":7", "xhotkey") is False
    faulty.wait_log("Thread for Display 7 started")
    said = transcript(faulty, since)
    said.remove(begun(7))
    assert said == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:7, actor=xhotkey, stationtype=COMMON"),
        ("dm_start_station_thread", "Start a new station thread for :7"),
        row(1, 7),
        ("dbus_dm_start", "{DM} Unable to allocate memory"),
    ]
    assert caller.start(":7", "xhotkey") is True
    faulty.wait_records(1)
    assert ("dm_start_station_thread", "station thread for :7 exists.") in transcript(faulty, since)


def test_a_stop_event_without_memory_is_refused_and_the_actor_runs_on(faulty):
    caller = faulty.caller()
    assert caller.start(":7", "xhotkey") is True
    (record,) = faulty.wait_records(1)
    faulty.wait_log("child=")
    faulty.fail("memory")
    since = now(faulty)
    assert caller.stop(":7", "xhotkey") is False
    assert transcript(faulty, since) == [
        STOP, ("dbus_dm_stop", "display_num=7, actor_code=7"), ("dbus_dm_stop", "{DM} Unable to allocate memory")]
    assert faulty.children() == [record.pid]
    assert caller.stop(":7", "xhotkey") is True
    faulty.wait_gone(record.pid)


@pytest.mark.parametrize("actor, code, copies, argv", [
    ("local-login", 2, 3, ["corvane-ls", ":7"]),
    ("click-mouse", 5, 7, ["corvane-pfk", "-display", ":7", "--mouse", "--verbose", "--logfile",
                           "/var/log/corvane-pfk7.log"]),
    ("disable-station", 6, 6, ["corvane-x11-put-image", ":7", "/usr/share/corvane/images/kva-images.bundle",
                               "disabled"]),
])
def test_a_start_without_memory_anywhere_on_its_way_is_dropped_and_the_next_one_runs(
        faulty, actor, code, copies, argv):
    caller = faulty.caller()
    assert caller.start(":7", "init-station") is True
    faulty.wait_log("No action needed")
    since = now(faulty)

    def attempts():
        return [said for said in transcript(faulty, since) if said[1] == "{DM} Unable to allocate memory"]

    for nth in range(1, 2 + copies + 1):  # the event, the copy of it for the thread, and the arguments
        faulty.fail("memory", nth)
        assert caller.start(":7", actor) is (nth > 1)
        faulty.wait("the attempt's end", lambda: len(attempts()) == nth)
    assert [function for function, _ in attempts()] == (
        ["dbus_dm_start", "proc_method_start"] + copies * ["method_start_thread"])
    assert caller.stop(":7", actor) is True
    faulty.wait_log("sub process is not running")
    assert not any("{DM} method_start_thread():" in text for _, text in transcript(faulty, since))
    since = now(faulty)
    assert caller.start(":7", actor) is True
    (record,) = faulty.wait_records(1)
    faulty.wait_log("child=")
    assert transcript(faulty, since)[-len(argv) - 1:] == launch(code, 7, record.pid, *argv)


def test_a_relaunch_without_memory_for_its_arguments_ends_the_supervision(faulty):
    caller = faulty.caller()
    faulty.behave("corvane-xh", "exit 1")
    assert caller.start(":1", "xhotkey") is True
    faulty.wait_records(1)
    faulty.wait_log("Child process died")
    faulty.behave("corvane-xh", "stay")
    faulty.fail("memory")
    faulty.wait_log("Unable to allocate memory")
    assert caller.stop(":1", "xhotkey") is True
    faulty.wait_log("sub process is not running")
    assert caller.start(":1", "xhotkey") is True
    second = faulty.wait_records(2)[1]
    assert faulty.children() == [second.pid]
