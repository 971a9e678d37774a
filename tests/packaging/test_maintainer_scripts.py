# SPDX-License-Identifier: MIT
# test_maintainer_scripts.py: the package's scripts through their failures; silent when nothing is wrong.
#
# They run as in the sources, without what debhelper adds. package-life runs the scripts of the whole package.
import os
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from support.place import LOG, PID_FILE
from support.processes import process_state

DEBIAN = Path(__file__).resolve().parent.parent.parent / "debian"
CALLS = Path("/run/stage/calls")
SILENT = (0, "", "")


def run(script, *arguments, **environment):
    """Runs a maintainer script as dpkg does: its status, its output and its errors."""
    command = ["sh", DEBIAN / f"corvane-cs.{script}", *arguments]
    streams = {"stdin": subprocess.DEVNULL, "capture_output": True}
    done = subprocess.run(command, env={**os.environ, **environment}, text=True, timeout=60, **streams)
    return done.returncode, done.stdout, done.stderr


def start_by_hand(machine):
    """Starts a daemon with --start; its pid."""
    machine.start_bus()
    machine.daemonise("--start")
    machine.wait_log(r"Start mainloop \.\.\.")
    return int(machine.pid_file())


def write_program(path, text):
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)


@pytest.fixture
def init_script(laid_over):
    """Sets the exit status of the init script. invoke-rc.d records its calls in CALLS and prints a line."""
    laid_over.mount("-t", "tmpfs", "tmpfs", "/etc/init.d")
    programs = Path("/run/stage/programs")
    programs.mkdir()
    invoke = f'echo "$*" >>{CALLS}\necho a line of the script\nexec /etc/init.d/corvane-cs'
    write_program(programs / "invoke-rc.d", invoke)

    def end_with(status):
        write_program(Path("/etc/init.d/corvane-cs"), f"exit {status}")
        return {"PATH": f"{programs}:{os.environ['PATH']}"}

    return end_with


# ---- prerm ----


TEXTS = ["", "0", "-1", "1", "999999", "99999999999999999999", "../run/x", "1 2", "$(touch /run/y)", "{held}"]


@pytest.mark.parametrize("content", TEXTS)
def test_a_removal_trusts_no_text_of_the_pid_file(laid_over, held, content):
    Path("/run/x").mkdir()
    os.symlink("/usr/sbin/corvane-cs", "/run/x/exe")  # what a careless reader takes for a process
    laid_over.write_pid_file(content.format(held=held))
    assert run("prerm", "remove") == SILENT
    assert laid_over.pid_file() is None and not os.path.exists("/run/y")
    assert process_state(held) == "t"


def test_a_removal_leaves_another_process_of_root_alone(laid_over):
    other = subprocess.Popen(["sleep", "600"])
    laid_over.write_pid_file(other.pid)
    assert run("prerm", "remove") == SILENT
    assert other.poll() is None


@pytest.mark.parametrize("is_halted", [False, True])
def test_a_removal_stops_a_daemon_that_was_started_by_hand(laid_over, is_halted):
    pid = start_by_hand(laid_over)
    if is_halted:
        os.kill(pid, signal.SIGSTOP)
        laid_over.wait("a halted daemon", lambda: process_state(pid) == "T")
    assert run("prerm", "remove") == SILENT
    assert process_state(pid) is None and laid_over.pid_file() is None


@pytest.mark.parametrize("arguments", ["upgrade 2.0", "failed-upgrade 1.0", "deconfigure in-favour other"])
def test_an_upgrade_stops_nothing(laid_over, init_script, arguments):
    pid = start_by_hand(laid_over)
    assert run("prerm", *arguments.split(), **init_script(1)) == SILENT
    assert process_state(pid) == "S" and laid_over.pid_file() == str(pid)
    assert not CALLS.exists()


def test_a_removal_calls_the_init_script_silently_and_fails_when_the_daemon_does_not_stop(init_script):
    assert run("prerm", "remove", **init_script(0)) == SILENT
    assert CALLS.read_text() == "--skip-systemd-native corvane-cs stop\n"
    assert run("prerm", "remove", **init_script(1)) == (1, "", "corvane-cs: the daemon does not end\n")


# ---- postinst and postrm ----


@pytest.mark.parametrize("arguments", ["configure", "configure 1.0", "abort-remove"])
def test_an_installation_and_an_upgrade_start_the_daemon_silently(init_script, arguments):
    assert run("postinst", *arguments.split(), **init_script(0)) == SILENT
    assert CALLS.read_text() == "--skip-systemd-native corvane-cs start\n"


def test_a_daemon_that_does_not_start_leaves_the_package_installed(init_script):
    message = "corvane-cs is installed, but its daemon did not start: see /var/log/corvane-cs.log\n"
    assert run("postinst", "configure", "", **init_script(1)) == (0, "", message)


def test_the_bus_reads_the_policy_before_the_daemon_starts(system_bus, init_script):
    environment = init_script(0)
    sender = f'echo "$*" >>{CALLS}\nexec {shutil.which("dbus-send")} "$@"'
    write_program(Path("/run/stage/programs/dbus-send"), sender)
    assert run("postinst", "configure", "", **environment) == SILENT
    reload, start = CALLS.read_text().splitlines()
    assert reload.endswith("org.freedesktop.DBus.ReloadConfig") and start.endswith("start")


def test_a_removal_keeps_the_logs_and_a_purge_removes_them(bare):
    logs = [Path(f"{LOG}{suffix}") for suffix in ("", ".old", ".1.gz", ".old.1.gz")]
    for file in (*logs, Path(PID_FILE), Path("/var/log/other.log")):
        file.touch()
    assert run("postrm", "remove") == SILENT
    assert all(log.exists() for log in logs)
    for _ in range(2):
        assert run("postrm", "purge") == SILENT
    assert os.listdir("/var/log") == ["other.log"] and not os.path.exists("/run/corvane")
    os.unlink("/var/log/other.log")


@pytest.mark.parametrize("command", ["prerm remove", "postinst configure", "postrm purge"])
def test_for_another_root_directory_nothing_here_is_touched(laid_over, init_script, command):
    laid_over.write_pid_file("1")
    Path(LOG).touch()
    Path("/run/stage/root").mkdir()
    assert run(*command.split(), DPKG_ROOT="/run/stage/root", **init_script(1)) == SILENT
    assert laid_over.pid_file() == "1" and os.path.exists(LOG) and not CALLS.exists()
