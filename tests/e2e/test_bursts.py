# SPDX-License-Identifier: MIT
# test_bursts.py: each request sees the effect of the one before it, and no caller waits for an actor.
import contextlib
import os
import signal
import time
from pathlib import Path

import pytest

from support.callers import start_call, stop_call
from support.place import PROGRAMS
from support.processes import WITHOUT_SIGTERM, descendants, process_state

MOST_SECONDS_OF_A_REPLY = 0.5  # far less than any wait of the daemon, far more than load on the machine adds


def pairs(displays, actor):
    """A start and then a stop, for each display."""
    return [make(display, actor) for display in displays for make in (start_call, stop_call)]


def assert_each_stop_hit_its_actor(machine, count):
    machine.wait_log(r"Exit from the current thread$", count, 30)
    assert machine.children() == []
    assert "sub process is not running" not in machine.log_text()
    assert "is already running" not in machine.log_text()
    assert len([text for text in machine.texts() if "child=" in text]) == count


def test_each_stop_in_a_burst_signals_the_child_of_the_start_before_it(machine):
    caller = machine.caller()
    assert caller.start(":1", "init-station") is True
    assert caller.burst(pairs([":1"] * 100, "xhotkey")) == 200 * [(True,)]
    assert_each_stop_hit_its_actor(machine, 100)


def test_each_stop_in_a_burst_over_new_stations_signals_its_child(machine):
    caller = machine.caller()
    assert caller.burst(pairs([f":{number}" for number in range(100)], "press-fkey")) == 200 * [(True,)]
    assert_each_stop_hit_its_actor(machine, 100)
    assert [text for text in machine.texts() if text.startswith("Start a new station")] == [
        f"Start a new station thread for :{number}" for number in range(100)
    ]


@pytest.mark.parametrize("how", WITHOUT_SIGTERM)
def test_each_stop_in_a_burst_works_with_sigterm_ignored_or_blocked_at_the_start(bare, how):
    bare.start_bus()
    bare.start_daemon(preexec_fn=WITHOUT_SIGTERM[how])
    assert bare.caller().burst(pairs([f":{number}" for number in range(100)], "xhotkey")) == 200 * [(True,)]
    assert_each_stop_hit_its_actor(bare, 100)


@pytest.mark.parametrize(
    "behaviour", ["ignore-term", "stop-self", "grandchild", "daemonise", "exit 0", "exit 1", None]
)
def test_replies_come_at_once_whatever_the_actors_do(machine, behaviour):
    for program in PROGRAMS:
        if behaviour:
            machine.behave(program, behaviour)
        else:
            machine.remove(program)
    caller = machine.caller()
    slowest = 0
    for call in pairs([":1", ":2", ":1"], "local-login") + pairs([":1", ":3", ":1"], "xhotkey"):
        begin = time.monotonic()
        assert caller.ask(call) == (True,)
        slowest = max(slowest, time.monotonic() - begin)
    assert slowest < MOST_SECONDS_OF_A_REPLY


def test_a_stop_signals_the_child_and_not_its_children(machine):
    machine.behave("corvane-xh", "grandchild")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    children = Path(f"/proc/{record.pid}/task/{record.pid}/children")
    grandchild = int(machine.wait("grandchild", children.read_text))
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log("keep_alive field is FALSE")
    machine.wait_gone(record.pid)
    machine.wait("sleeping grandchild", lambda: process_state(grandchild) == "S")


def test_an_actor_that_daemonises_counts_as_dead_and_a_stop_does_not_reach_it(machine):
    machine.behave("corvane-xh", "daemonise")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.wait_log(f"Child process died: {record.pid}$")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log(f"proc_method_stop: child_pid {record.pid}$")

    def escaped():
        found = []
        for pid in descendants():
            with contextlib.suppress(OSError):
                is_away = os.getsid(pid) != os.getsid(machine.daemon.pid) and process_state(pid) == "S"
                if is_away and Path(f"/proc/{pid}/comm").read_text() == "corvane-xh\n":
                    found.append(pid)
        return found

    assert len(machine.wait("sleeping process in another session", escaped)) == 1


def test_actors_survive_the_daemon(machine):
    assert machine.caller().start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.daemon.terminate()
    machine.daemon.wait(10)
    machine.wait("sleeping actor", lambda: process_state(record.pid) == "S")


def test_a_child_stopped_by_sigstop_does_not_count_as_dead(machine):
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (first,) = machine.wait_records(1)
    machine.wait_log("child=")
    os.kill(first.pid, signal.SIGSTOP)
    machine.wait("stopped child", lambda: process_state(first.pid) == "T")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log(f"proc_method_stop: child_pid {first.pid}$")
    assert process_state(first.pid) == "T" and "died" not in machine.log_text()

    assert caller.start(":1", "xhotkey") is True
    second = machine.wait_records(2)[1]
    machine.wait_log(f"child={second.pid}$")
    assert machine.children() == sorted([first.pid, second.pid])
    os.kill(first.pid, signal.SIGCONT)
    machine.wait_log(
        f"Another process on the same actor group has been started: {second.pid}. "
        "Exit from the current thread$"
    )
    assert f"Child process died: {first.pid}" in machine.texts()
    assert machine.children() == [second.pid]
