# SPDX-License-Identifier: MIT
# test_actor_launch.py: what an actor gets at its start: arguments, environment, signals and descriptors.
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from support.machine import STAND_IN, not_under_a_sanitizer
from support.place import PID_FILE, STAGE
from support.processes import WITHOUT_SIGTERM
from transcript import launch, now, transcript

ARGUMENTS = {  # the code of each actor, and its arguments on display 3
    "local-login": (2, ["corvane-ls", ":3"]),
    "remote-login": (3, ["corvane-ls", ":3", "-query", "localhost"]),
    "press-fkey": (
        4,
        ["corvane-pfk", "-display", ":3", "--verbose", "--logfile", "/var/log/corvane-pfk3.log"],
    ),
    "click-mouse": (
        5,
        ["corvane-pfk", "-display", ":3", "--mouse", "--verbose", "--logfile", "/var/log/corvane-pfk3.log"],
    ),
    "disable-station": (
        6,
        ["corvane-x11-put-image", ":3", "/usr/share/corvane/images/kva-images.bundle", "disabled"],
    ),
    "xhotkey": (7, ["corvane-xh", "-display", ":3"]),
}


def started_directly(machine, **popen):
    """The record of a program that the story starts in the same way as the daemon."""
    with subprocess.Popen(
        [STAND_IN], env=machine.environment(), stdin=subprocess.DEVNULL, **popen
    ) as process:
        (record,) = machine.wait_records(1, "stand-in")
        process.kill()
    return record


# ---- arguments ----


@pytest.mark.parametrize("display", [0, 3, 10, 2147483647])
def test_each_actor_gets_its_own_arguments_with_the_display_in_them(machine, display):
    caller = machine.caller()
    for count, (actor, (code, on_display_3)) in enumerate(ARGUMENTS.items(), 1):
        argv = [word.replace(":3", f":{display}").replace("pfk3", f"pfk{display}") for word in on_display_3]
        since = now(machine)
        assert caller.start(f"host:{display}.1", actor) is True
        record = machine.wait_records(count)[-1]
        machine.wait_log("child=", count)
        assert record.argv == argv
        lines = launch(code, display, record.pid, *argv)
        first = -len(lines)
        assert transcript(machine, since)[first:] == lines
        assert caller.stop(f":{display}", actor) is True
        machine.wait_log("keep_alive field is FALSE", count)


def test_the_environment_does_not_change_the_arguments(bare):
    bare.start_bus()
    bare.start_daemon(environment={"CORVANE_DIR": "/tmp", "DISPLAY": ":99", "HOSTNAME": "elsewhere"})
    caller = bare.caller()
    assert caller.start(":3", "disable-station") is True
    assert caller.start(":3", "remote-login") is True
    bare.wait_records(2)
    assert bare.records("corvane-x11-put-image")[0].argv == ARGUMENTS["disable-station"][1]
    assert bare.records("corvane-ls")[0].argv == ARGUMENTS["remote-login"][1]


# ---- environment ----


def test_an_actor_has_the_environment_the_session_and_the_directory_of_the_daemon(bare):
    bare.start_bus()
    bare.start_daemon(
        environment={"LANG": "de_DE.UTF-8", "EMPTY": "", "ODD": 'a=b "c" \\ \u2603'},
        cwd="/usr/share",
        start_new_session=True,
    )
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    with open(f"/proc/{bare.daemon.pid}/environ") as file:
        environment = file.read().split("\0")[:-1]
    assert record.environment == environment and "EMPTY=" in environment
    assert record.parent == bare.daemon.pid
    assert record.session == bare.daemon.pid
    assert record.directory == "/usr/share"


def test_an_actor_of_a_background_daemon_has_its_session_the_root_directory_and_three_descriptors(bare):
    bare.start_bus()
    assert bare.daemonise("--start", cwd="/usr/share").returncode == 0
    bare.wait_log(r"Start mainloop \.\.\.")
    with open(PID_FILE) as file:
        daemon = int(file.read())
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert (record.parent, record.session, record.directory) == (daemon, os.getsid(daemon), "/")
    terminal = "/run/stage/terminal"
    assert record.descriptors == {"0": "/dev/null", "1": terminal, "2": terminal}


def test_an_actor_inherits_only_the_three_standard_descriptors(machine):
    caller = machine.caller()
    for display in range(1, 6):
        assert caller.start(f":{display}", "xhotkey") is True
    for record in machine.wait_records(5):
        assert record.descriptors == {
            number: os.readlink(f"/proc/{machine.daemon.pid}/fd/{number}") for number in "012"
        }


# ---- signals ----


def test_an_actor_has_the_signals_of_a_program_started_in_place_of_the_daemon(machine):
    direct = started_directly(machine)
    assert machine.caller().start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1, "corvane-xh")
    assert (record.blocked, record.ignored, record.caught) == (direct.blocked, direct.ignored, direct.caught)
    assert signal.SIGPIPE not in record.ignored and signal.SIGCHLD not in record.ignored
    assert record.blocked == [] and record.caught == []


def test_signals_ignored_or_blocked_at_the_start_of_the_daemon_are_so_in_actors(bare):
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
def test_actors_ignore_sigpipe_or_sigchld_only_if_it_was_ignored_at_the_start(bare, number):
    bare.start_bus()
    bare.start_daemon(preexec_fn=lambda: signal.signal(number, signal.SIG_IGN))
    assert bare.caller().start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert {signal.SIGPIPE, signal.SIGCHLD} & set(record.ignored) == {number}


@pytest.mark.parametrize("how", WITHOUT_SIGTERM)
def test_a_stop_terminates_the_actor_of_a_daemon_that_started_with_sigterm_ignored_or_blocked(bare, how):
    bare.start_bus()
    bare.start_daemon(preexec_fn=WITHOUT_SIGTERM[how])
    caller = bare.caller()
    assert caller.start(":1", "xhotkey") is True
    (record,) = bare.wait_records(1)
    assert signal.SIGTERM not in record.ignored and signal.SIGTERM not in record.blocked
    assert caller.stop(":1", "xhotkey") is True
    bare.wait_gone(record.pid)


@not_under_a_sanitizer("the sanitizer has its own heap")
def test_later_growth_of_the_heap_is_not_copied_into_children(machine):
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


def test_the_search_for_a_program_on_path_skips_files_that_are_not_executable(bare):
    os.mkdir("/run/stage/first")
    with open("/run/stage/first/corvane-xh", "w") as file:
        file.write("not executable")
    bare.start_bus()
    bare.start_daemon(environment={"PATH": "/run/stage/first:/run/stage/actors/bin"})
    assert bare.caller().start(":1", "xhotkey") is True
    assert bare.wait_records(1)[0].argv == ["corvane-xh", "-display", ":1"]


def test_the_shell_runs_a_script_without_an_interpreter_line(machine):
    machine.remove("corvane-xh")
    with open("/run/stage/actors/bin/corvane-xh", "w") as file:
        file.write('echo "$@" > /run/stage/actors/script\nexec sleep 600\n')
    os.chmod("/run/stage/actors/bin/corvane-xh", 0o755)
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True

    def written():
        with open("/run/stage/actors/script") as file:
            return file.read()

    machine.wait("output of the script", lambda: os.path.exists("/run/stage/actors/script") and written())
    assert written() == "-display :1\n"
    (child,) = machine.children()
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(child)


@pytest.mark.parametrize("is_there", [False, True])
def test_the_launch_of_a_missing_program_is_retried_until_it_can_be_executed(machine, is_there):
    program = Path(f"{STAGE}/actors/bin/corvane-xh")
    program.unlink()
    if is_there:
        program.write_text("not executable")
    caller = machine.caller()
    assert caller.start(":1", "xhotkey") is True
    first = int(machine.wait_log(r"child=(\d+)$")[0][1])
    machine.wait_log(f"Child process died: {first}$")
    program.unlink(missing_ok=True)
    machine.install("corvane-xh")
    (record,) = machine.wait_records(1)
    assert record.argv == ["corvane-xh", "-display", ":1"]
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_gone(record.pid)
