# SPDX-License-Identifier: MIT
# test_faults.py: what the daemon does without memory, without a process, or during a slow launch.
import os
import re
import resource
import time

import pytest

from support.callers import plugin_call, start_call
from support.machine import not_under_a_sanitizer
from transcript import START, STOP, now, transcript


@pytest.fixture
def faulty(bare):
    """A machine with a preloaded daemon."""
    bare.start_bus()
    bare.start_daemon(preloaded=True)
    return bare


def memory_of(machine, field):
    with open(f"/proc/{machine.daemon.pid}/status") as file:
        return int(re.search(rf"{field}:\s*(\d+)", file.read())[1])


def processor_seconds(machine):
    with open(f"/proc/{machine.daemon.pid}/stat") as file:
        times = file.read().rpartition(")")[2].split()[11:13]
    return sum(map(int, times)) / os.sysconf("SC_CLK_TCK")


@not_under_a_sanitizer("its own memory exceeds every limit")
def test_at_its_memory_limit_the_daemon_pauses_and_later_serves_every_call(machine):
    caller, other = machine.caller(), machine.caller()
    no_limit = resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS)
    limit = memory_of(machine, "VmSize") * 1024 + 2**20
    resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS, (limit, no_limit[1]))
    large = caller.send_all([plugin_call("Dummy", "HelloWorld", "ay", bytes(30_000_000))])
    machine.wait_log(r"\{EE\} No memory for the next message$")
    later = other.send_all([plugin_call("Dummy", "HelloWorld"), start_call(":1", "xhotkey")])

    # A busy loop would never give up the processor.
    waits = memory_of(machine, "voluntary_ctxt_switches")
    begin, busy = time.monotonic(), processor_seconds(machine)
    machine.wait("ten pauses", lambda: memory_of(machine, "voluntary_ctxt_switches") >= waits + 10, 20)
    assert processor_seconds(machine) - busy < 0.5 * (time.monotonic() - begin)
    assert machine.records() == []

    resource.prlimit(machine.daemon.pid, resource.RLIMIT_AS, no_limit)
    assert caller.replies(large) == [("How are you?",)]
    assert other.replies(later) == [("How are you?",), (True,)]
    machine.wait_records(1)
    assert caller.hello() == "How are you?"
    assert machine.texts().count("{EE} No memory for the next message") == 1


def test_a_failed_fork_ends_the_thread_and_leaves_the_group_idle(faulty):
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
    assert faulty.children() == [bystander.pid]  # kill(-1) did not signal every process
    assert caller.start(":1", "xhotkey") is True
    assert faulty.wait_records(2)[1].program == "corvane-xh"


def test_a_failed_fork_at_a_relaunch_ends_the_supervision(faulty):
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


def test_a_slow_launch_delays_neither_other_stations_nor_the_dummy_plugin(faulty):
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
