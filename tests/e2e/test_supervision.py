# SPDX-License-Identifier: MIT
# test_supervision.py: an actor is relaunched until it is stopped, and a group runs only one actor.
import os
import signal

import pytest

from support.callers import start_call, stop_call
from support.processes import process_state
from transcript import launch, now, transcript

PAUSE = 2.0
MOST_SECONDS_OF_A_RELAUNCH = 2.9  # less than with a pause of 3 seconds


def assert_one_pause_between(first, second):
    assert PAUSE <= second.started - first.started < MOST_SECONDS_OF_A_RELAUNCH


def start_deaf_actor(machine, caller):
    """Starts an actor that ignores SIGTERM."""
    machine.behave("corvane-xh", "ignore-term")
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.wait_deaf(record)
    machine.wait_log("child=")
    return record


@pytest.mark.parametrize("status", [0, 3])
def test_an_actor_that_exits_is_relaunched_after_two_seconds(machine, status):
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


def test_a_group_counts_as_running_during_the_pause_after_its_actor_was_killed(machine):
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


def test_an_actor_is_relaunched_each_time_it_exits(machine):
    machine.behave("corvane-xh", "exit 1")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    first, second, third = machine.wait_records(3)
    assert_one_pause_between(first, second)
    assert_one_pause_between(second, third)


def test_a_start_after_a_stop_does_not_wait_for_the_old_actor_and_its_actor_is_supervised(machine):
    caller = machine.caller()
    first = start_deaf_actor(machine, caller)
    assert caller.burst([stop_call(":1", "xhotkey"), start_call(":1", "xhotkey")]) == 2 * [(True,)]
    second = machine.wait_records(2)[1]
    machine.wait_log(f"child={second.pid}$")
    assert machine.children() == sorted([first.pid, second.pid])

    since = now(machine)
    os.kill(first.pid, signal.SIGKILL)
    machine.wait_log("Another process")
    assert transcript(machine, since) == [
        ("method_start_thread", f"Child process died: {first.pid}"),
        (
            "method_start_thread",
            "Another process on the same actor group has been started: "
            f"{second.pid}. Exit from the current thread",
        ),
    ]
    machine.behave("corvane-xh", "stay")
    os.kill(second.pid, signal.SIGKILL)
    third = machine.wait_records(3)[2]
    machine.wait_log(f"child={third.pid}$")
    assert machine.children() == [third.pid]
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(third.pid)


def test_the_thread_of_a_stopped_actor_ends_with_it_without_a_relaunch(machine):
    caller = machine.caller()
    assert caller.start(":1", "init-station") is True
    machine.wait_log("No action needed")
    machine.wait("end of the group thread", lambda: len(machine.threads()) == 2)
    record = start_deaf_actor(machine, caller)
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log("proc_method_stop: child_pid")
    assert process_state(record.pid) and len(machine.threads()) == 3  # the thread waits for the actor
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread$")
    machine.wait("end of the group thread", lambda: len(machine.threads()) == 2)
    assert len(machine.records()) == 1
