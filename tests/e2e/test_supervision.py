# SPDX-License-Identifier: MIT
# test_supervision.py: an actor is kept alive until it is stopped, and is the only one of its group.
import os
import signal

import pytest

from support.callers import plugin_call
from support.processes import process_state
from transcript import launch, now, transcript

PAUSE = 2.0
MOST_SECONDS_OF_A_RELAUNCH = 2.9  # less than the next whole second: the pause is neither shorter nor longer


def assert_one_pause_between(first, second):
    assert PAUSE <= second.started - first.started < MOST_SECONDS_OF_A_RELAUNCH


@pytest.mark.parametrize("status", [0, 3])
def test_an_actor_that_ends_is_started_again_after_two_seconds_with_new_arguments(machine, status):
    caller = machine.caller()
    machine.behave("corvane-pfk", f"exit {status}")
    assert caller.start(":3", "click-mouse") is True
    (first,) = machine.wait_records(1)
    machine.wait_log(f"Child process died: {first.pid}$")
    machine.behave("corvane-pfk", "stay")
    since = now(machine)
    second = machine.wait_records(2)[1]
    machine.wait_log("child=", 2)
    assert second.pid != first.pid
    assert_one_pause_between(first, second)
    argv = ["corvane-pfk", "-display", ":3", "--mouse", "--verbose", "--logfile", "/var/log/corvane-pfk3.log"]
    assert first.argv == second.argv == argv
    assert transcript(machine, since) == launch(5, 3, second.pid, *argv)
    assert second.parent == machine.daemon.pid and second.descriptors == first.descriptors
    assert (second.blocked, second.ignored) == (first.blocked, first.ignored)
    assert caller.stop(":3", "click-mouse") is True
    machine.wait_gone(second.pid)


def test_an_actor_that_is_killed_counts_as_running_through_the_pause_and_comes_back(machine):
    caller = machine.caller()
    assert caller.start(":1", "local-login") is True
    (first,) = machine.wait_records(1)
    os.kill(first.pid, signal.SIGKILL)
    machine.wait_log(f"Child process died: {first.pid}$")
    since = now(machine)
    assert caller.start(":1", "remote-login") is True
    machine.wait_log("is already running")
    assert transcript(machine, since)[-2:] == [
        ("proc_method_start", "group:1, is_running:1"),
        ("proc_method_start", "Sub thread of actor group for 1 is already running."),
    ]
    second = machine.wait_records(2)[1]
    assert second.argv == ["corvane-ls", ":1"]
    assert machine.children() == [second.pid]


def test_an_actor_comes_back_as_often_as_it_dies(machine):
    machine.behave("corvane-xh", "exit 1")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    first, second, third = machine.wait_records(3)
    assert_one_pause_between(first, second)
    assert_one_pause_between(second, third)


def test_a_daemon_that_was_started_with_child_signals_ignored_supervises(bare):
    bare.start_bus()
    bare.start_daemon(preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    assert bare.caller().start(":1", "xhotkey") is True
    (first,) = bare.wait_records(1)
    os.kill(first.pid, signal.SIGKILL)
    bare.wait_log(f"Child process died: {first.pid}$")
    second = bare.wait_records(2)[1]
    assert bare.children() == [second.pid]


def test_a_start_behind_a_stop_waits_for_no_death_and_its_actor_stays_supervised(machine):
    machine.behave("corvane-xh", "ignore-term")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (first,) = machine.wait_records(1)
    machine.wait("a deaf actor", lambda: os.path.exists(f"/run/stage/actors/records/{first.pid}.deaf"))
    assert caller.burst([plugin_call("DisplayManager", "Stop", "ss", ":1", "xhotkey"),
                         plugin_call("DisplayManager", "Start", "sss", ":1", "xhotkey", "COMMON")]) == 2 * [(True,)]
    second = machine.wait_records(2)[1]
    machine.wait_log(f"child={second.pid}$")
    assert machine.children() == sorted([first.pid, second.pid])

    since = now(machine)
    os.kill(first.pid, signal.SIGKILL)
    machine.wait_log("Another process")
    assert transcript(machine, since) == [
        ("method_start_thread", f"Child process died: {first.pid}"),
        ("method_start_thread", "Another process on the same actor group has been started: "
                                f"{second.pid}. Exit from the current thread"),
    ]
    machine.behave("corvane-xh", "stay")
    os.kill(second.pid, signal.SIGKILL)
    third = machine.wait_records(3)[2]
    machine.wait_log(f"child={third.pid}$")
    assert machine.children() == [third.pid]
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(third.pid)


def test_the_supervision_of_an_actor_that_was_stopped_ends_with_it_and_nothing_comes_back(machine):
    caller = machine.caller()
    assert caller.start(":1", "init-station") is True
    machine.wait_log("No action needed")
    machine.wait("the group thread to be gone", lambda: len(machine.threads()) == 2)
    machine.behave("corvane-xh", "ignore-term")
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.wait("a deaf actor", lambda: os.path.exists(f"/run/stage/actors/records/{record.pid}.deaf"))
    machine.wait_log("child=")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log("proc_method_stop: child_pid")
    assert process_state(record.pid) and len(machine.threads()) == 3  # waited for, however long it takes
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread$")
    machine.wait("the group thread to be gone", lambda: len(machine.threads()) == 2)
    assert len(machine.records()) == 1
