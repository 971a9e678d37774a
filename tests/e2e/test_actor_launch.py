# SPDX-License-Identifier: MIT
# test_actor_launch.py: what an actor is given at its start: arguments, environment, signals, descriptors.
import os
import re
import signal
import subprocess

import pytest

from support.machine import STAND_IN, not_under_a_sanitizer
from support.place import PID_FILE
from support.processes import SIGTERM_KEPT_AWAY
from transcript import launch, now, transcript

ARGUMENTS = {  # of each actor: code, and the arguments on display 3
    "local-login": (2, ["corvane-ls", ":3"]),
    "remote-login": (3, ["corvane-ls", ":3", "-query", "localhost"]),
    "press-fkey": (4, ["corvane-pfk", "-display", ":3", "--verbose", "--logfile", "/var/log/corvane-pfk3.log"]),
    "click-mouse": (5, ["corvane-pfk", "-display", ":3", "--mouse", "--verbose", "--logfile",
                        "/var/log/corvane-pfk3.log"]),
    "disable-station": (6, ["corvane-x11-put-image", ":3", "/usr/share/corvane/images/kva-images.bundle", "disabled"]),
    "xhotkey": (7, ["corvane-xh", "-display", ":3"]),
}


def started_directly(machine, **popen):
    """The record of a program that the story starts as it starts the daemon."""
    with subprocess.Popen([STAND_IN], env=machine.environment(), stdin=subprocess.DEVNULL, **popen) as process:
        (record,) = machine.wait_records(1, "stand-in")
        process.kill()
    return record


# ---- arguments ----


@pytest.mark.parametrize("display", [0, 3, 10, 2147483647])
def test_each_actor_is_given_its_own_arguments_with_the_display_in_them(machine, display):
    caller = machine.caller()
    for count, (actor, (code, on_display_3)) in enumerate(ARGUMENTS.items(), 1):
        argv = [word.replace(":3", f":{display}").replace("pfk3", f"pfk{display}") for word in on_display_3]
        since = now(machine)
        assert caller.start(f"host:{display}.1", actor) is True
        record = machine.wait_records(count)[-1]
        machine.wait_log("child=", count)
        assert record.argv == argv
        assert transcript(machine, since)[-len(argv) - 1:] == launch(code, display, record.pid, *argv)
        assert caller.stop(f":{display}", actor) is True
        machine.wait_log("keep_alive field is FALSE", count)


def test_the_arguments_on_the_largest_display_are_written_out(machine):
    caller = machine.caller()
    assert caller.start(":2147483647", "click-mouse") is True
    assert caller.start(":2147483647", "xhotkey") is True
    machine.wait_records(2)
    assert machine.records("corvane-pfk")[0].argv == [
        "corvane-pfk", "-display", ":2147483647", "--mouse", "--verbose", "--logfile",
        "/var/log/corvane-pfk2147483647.log"]
    assert machine.records("corvane-xh")[0].argv == ["corvane-xh", "-display", ":2147483647"]


def test_no_environment_variable_changes_an_argument(bare):
    bare.start_bus()
    bare.start_daemon(environment={"CORVANE_DIR": "/tmp", "DISPLAY": ":99", "HOSTNAME": "elsewhere"})
    caller = bare.caller()
    assert caller.start(":3", "disable-station") is True
    assert caller.start(":3", "remote-login") is True
    bare.wait_records(2)
    assert bare.records("corvane-x11-put-image")[0].argv == ARGUMENTS["disable-station"][1]
    assert bare.records("corvane-ls")[0].argv == ARGUMENTS["remote-login"][1]


# ---- surroundings ----


def test_an_actor_has_the_daemons_environment_session_and_directory(bare):
    bare.start_bus()
    bare.start_daemon(environment={"LANG": "de_DE.UTF-8", "EMPTY": "", "ODD": "a=b \"c\" \\ \u2603"}, cwd="/usr/share",
                      start_new_session=True)
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    with open(f"/proc/{bare.daemon.pid}/environ") as file:
        environment = file.read().split("\0")[:-1]
    assert record.environment == environment and "EMPTY=" in environment
    assert record.parent == bare.daemon.pid
    assert record.session == bare.daemon.pid
    assert record.directory == "/usr/share"


def test_an_actor_of_a_daemon_in_the_background_is_in_its_session_and_in_the_root_directory(bare):
    bare.start_bus()
    away = subprocess.DEVNULL
    assert bare.run("--start", cwd="/usr/share", stdout=away, stderr=away).returncode == 0
    bare.wait_log(r"Start mainloop \.\.\.")
    with open(PID_FILE) as file:
        daemon = int(file.read())
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert (record.parent, record.session, record.directory) == (daemon, os.getsid(daemon), "/")


def test_an_actor_inherits_the_standard_descriptors_and_no_other(machine):
    assert machine.caller().start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    assert record.descriptors == {number: os.readlink(f"/proc/{machine.daemon.pid}/fd/{number}") for number in "012"}


def test_an_actor_of_a_daemon_in_the_background_inherits_no_other_either(bare):
    bare.start_bus()
    assert bare.daemonise("--start").returncode == 0
    bare.wait_log(r"Start mainloop \.\.\.")
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    terminal = "/run/stage/terminal"
    assert record.descriptors == {"0": "/dev/null", "1": terminal, "2": terminal}


def test_an_actor_of_a_later_launch_holds_no_more_than_one_of_an_early_one(machine):
    caller = machine.caller()
    for number in range(1, 6):
        assert caller.start(f":{number}", "xhotkey") is True
    records = machine.wait_records(5)
    assert all(record.descriptors == records[0].descriptors for record in records)


# ---- signals ----


def test_an_actor_finds_its_signals_as_if_started_in_the_daemons_place(machine):
    direct = started_directly(machine)
    assert machine.caller().start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1, "corvane-xh")
    assert (record.blocked, record.ignored, record.caught) == (direct.blocked, direct.ignored, direct.caught)
    assert signal.SIGPIPE not in record.ignored and signal.SIGCHLD not in record.ignored
    assert record.blocked == [] and record.caught == []


def test_a_daemon_started_with_signals_ignored_or_blocked_hands_them_on_as_they_were(bare):
    def ignore_and_block():
        for number in (signal.SIGINT, signal.SIGPIPE, signal.SIGCHLD):
            signal.signal(number, signal.SIG_IGN)
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])

    bare.start_bus()
    bare.start_daemon(preexec_fn=ignore_and_block)
    direct = started_directly(bare, preexec_fn=ignore_and_block)
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1, "corvane-xh")
    assert {signal.SIGINT, signal.SIGPIPE, signal.SIGCHLD} <= set(record.ignored)
    assert record.blocked == [signal.SIGUSR1]
    assert (record.blocked, record.ignored, record.caught) == (direct.blocked, direct.ignored, direct.caught)


@pytest.mark.parametrize("number", [signal.SIGPIPE, signal.SIGCHLD])
def test_a_daemon_started_with_one_of_its_own_signals_ignored_hands_on_that_one_alone(bare, number):
    bare.start_bus()
    bare.start_daemon(preexec_fn=lambda: signal.signal(number, signal.SIG_IGN))
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert {signal.SIGPIPE, signal.SIGCHLD} & set(record.ignored) == {number}


@pytest.mark.parametrize("how", SIGTERM_KEPT_AWAY)
def test_a_stop_reaches_the_actor_of_a_daemon_that_was_started_with_sigterm_kept_away(bare, how):
    bare.start_bus()
    bare.start_daemon(preexec_fn=SIGTERM_KEPT_AWAY[how])
    caller = bare.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert signal.SIGTERM not in record.ignored and signal.SIGTERM not in record.blocked
    assert caller.stop(":1", "xhotkey") is True
    bare.wait_gone(record.pid)


@not_under_a_sanitizer("the heap is the sanitizer's")
def test_what_the_heap_has_grown_by_stays_out_of_actors(machine):
    caller = machine.caller()
    for number in range(200):
        assert caller.start(f":{number}", "init-station") is True
    assert caller.start(":1", "xhotkey") is True
    machine.wait_records(1)
    with open(f"/proc/{machine.daemon.pid}/smaps") as file:
        heap = re.findall(r"\[heap\]\n(?:.*\n)*?VmFlags: (.*)\n", file.read())
    assert len(heap) >= 2 and "dc" not in heap[0].split(), "the child needs its station"
    assert "dc" in heap[-1].split(), heap  # not copied on fork, proc(5)


# ---- programs ----


def test_a_program_is_looked_up_on_the_search_path_and_one_that_is_not_executable_is_passed_over(bare):
    os.mkdir("/run/stage/first")
    with open("/run/stage/first/corvane-xh", "w") as file:
        file.write("not executable")
    bare.start_bus()
    bare.start_daemon(environment={"PATH": "/run/stage/first:/run/stage/actors/bin"})
    assert bare.caller().start(":1", "xhotkey") is True
    assert bare.wait_records(1)[0].argv == ["corvane-xh", "-display", ":1"]


def test_a_script_without_an_interpreter_line_is_run_by_the_shell(machine):
    machine.remove("corvane-xh")
    with open("/run/stage/actors/bin/corvane-xh", "w") as file:
        file.write('echo "$@" > /run/stage/actors/script\nexec sleep 600\n')
    os.chmod("/run/stage/actors/bin/corvane-xh", 0o755)
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True

    def written():
        with open("/run/stage/actors/script") as file:
            return file.read()

    machine.wait("the script", lambda: os.path.exists("/run/stage/actors/script") and written())
    assert written() == "-display :1\n"
    (child,) = machine.children()
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(child)


def test_a_program_that_is_missing_is_tried_again_until_it_is_there(machine):
    machine.remove("corvane-xh")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    first = int(machine.wait_log(r"child=(\d+)$")[0][1])
    machine.wait_log(f"Child process died: {first}$")
    machine.install("corvane-xh")
    (record,) = machine.wait_records(1)
    assert record.argv == ["corvane-xh", "-display", ":1"]
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(record.pid)


def test_a_program_that_is_not_executable_is_tried_again_until_it_is(machine):
    machine.remove("corvane-xh")
    with open(STAND_IN, "rb") as source, open("/run/stage/actors/bin/corvane-xh", "wb") as copy:
        copy.write(source.read())
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("Child process died")
    os.chmod("/run/stage/actors/bin/corvane-xh", 0o755)
    assert machine.wait_records(1)[0].argv == ["corvane-xh", "-display", ":1"]


def test_a_missing_program_can_be_stopped_between_two_attempts(machine):
    machine.remove("corvane-xh")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("Child process died")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread")
    assert len([text for text in machine.texts() if "child=" in text]) == 2
