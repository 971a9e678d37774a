# SPDX-License-Identifier: MIT
# test_bursts.py: a request behind another finds what that one did, and nobody waits for an actor.
import contextlib
import os
import signal
import time
from pathlib import Path

import pytest

from support.callers import plugin_call
from support.processes import SIGTERM_KEPT_AWAY, descendants, process_state

MOST_SECONDS_OF_A_REPLY = 0.5  # far below any wait of the daemon's, far above what a loaded machine adds


def pairs(displays, actor):
    """A start and a stop right behind it, for each display."""
    calls = []
    for display in displays:
        calls.append(plugin_call("DisplayManager", "Start", "sss", display, actor, "COMMON"))
        calls.append(plugin_call("DisplayManager", "Stop", "ss", display, actor))
    return calls


def assert_no_actor_outlived_its_stop(machine, count):
    machine.wait_log(r"Exit from the current thread$", count, 30)
    assert machine.children() == []
    assert "sub process is not running" not in machine.log_text()
    assert "is already running" not in machine.log_text()
    assert len([text for text in machine.texts() if "child=" in text]) == count


def test_each_stop_in_a_burst_finds_the_child_of_the_start_before_it(machine):
    caller = machine.caller()
    assert caller.start(":1", "init-station") is True
    assert caller.burst(pairs([":1"] * 100, "xhotkey")) == 200 * [(True,)]
    assert_no_actor_outlived_its_stop(machine, 100)


def test_each_stop_in_a_burst_over_existing_stations_finds_its_child(machine):
    caller = machine.caller()
    displays = [f":{number}" for number in range(10)]
    for display in displays:
        assert caller.start(display, "init-station") is True
    assert caller.burst(pairs(displays * 10, "local-login")) == 200 * [(True,)]
    assert_no_actor_outlived_its_stop(machine, 100)


def test_each_stop_in_a_burst_over_new_stations_finds_its_child(machine):
    caller = machine.caller()
    assert caller.burst(pairs([f":{number}" for number in range(100)], "press-fkey")) == 200 * [(True,)]
    assert_no_actor_outlived_its_stop(machine, 100)
    assert [text for text in machine.texts() if text.startswith("Start a new station")] == [
        f"Start a new station thread for :{number}" for number in range(100)]


@pytest.mark.parametrize("how", SIGTERM_KEPT_AWAY)
def test_each_stop_in_a_burst_ends_its_child_although_the_daemon_was_started_with_sigterm_kept_away(bare, how):
    bare.start_bus()
    bare.start_daemon(preexec_fn=SIGTERM_KEPT_AWAY[how])
    assert bare.caller().burst(pairs([f":{number}" for number in range(100)], "xhotkey")) == 200 * [(True,)]
    assert_no_actor_outlived_its_stop(bare, 100)


@pytest.mark.parametrize("behaviour", ["ignore-term", "stop-self", "grandchild", "daemonise", "exit 0", "exit 1", None])
def test_replies_come_at_once_whatever_the_actors_do(machine, behaviour):
    for program in ("corvane-ls", "corvane-pfk", "corvane-x11-put-image", "corvane-xh"):
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


def test_a_stop_signals_the_child_alone_and_not_its_own_children(machine):
    machine.behave("corvane-xh", "grandchild")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    children = Path(f"/proc/{record.pid}/task/{record.pid}/children")
    grandchild = int(machine.wait("a grandchild", children.read_text))
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log("keep_alive field is FALSE")
    machine.wait_gone(record.pid)
    machine.wait("a grandchild that sleeps on", lambda: process_state(grandchild) == "S")


def test_an_actor_that_daemonises_counts_as_dead_and_is_out_of_a_stops_reach(machine):
    machine.behave("corvane-xh", "daemonise")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.wait_log(f"Child process died: {record.pid}$")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log(f"proc_method_stop: child_pid {record.pid}$")

    def away():
        with open(f"/proc/{machine.daemon.pid}/stat") as file:
            session = file.read().rpartition(")")[2].split()[3]
        found = []
        for pid in descendants():
            with contextlib.suppress(OSError):
                with open(f"/proc/{pid}/stat") as file:
                    name, _, rest = file.read().partition("(")[2].rpartition(")")
                if name == "corvane-xh" and rest.split()[3] != session and rest.split()[0] == "S":
                    found.append(pid)
        return found

    assert len(machine.wait("a daemon of the actor's", away)) == 1


def test_actors_live_on_when_the_daemon_ends(machine):
    assert machine.caller().start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.daemon.terminate()
    machine.daemon.wait(10)
    machine.wait("an actor that sleeps on", lambda: process_state(record.pid) == "S")


def test_a_stopped_child_is_no_dead_child_and_a_stop_waits_for_it(machine):
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    (first,) = machine.wait_records(1)
    machine.wait_log("child=")
    os.kill(first.pid, signal.SIGSTOP)
    machine.wait("the child to stand still", lambda: process_state(first.pid) == "T")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log(f"proc_method_stop: child_pid {first.pid}$")
    assert process_state(first.pid) == "T" and "died" not in machine.log_text()

    assert caller.start(":1", "xhotkey") is True
    second = machine.wait_records(2)[1]
    machine.wait_log(f"child={second.pid}$")
    assert machine.children() == sorted([first.pid, second.pid])
    os.kill(first.pid, signal.SIGCONT)
    machine.wait_log(f"Another process on the same actor group has been started: {second.pid}. "
                     "Exit from the current thread$")
    assert f"Child process died: {first.pid}" in machine.texts()
    assert machine.children() == [second.pid]
