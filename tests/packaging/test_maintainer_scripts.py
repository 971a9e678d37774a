# SPDX-License-Identifier: MIT
# test_maintainer_scripts.py: the package's scripts through their failures; silent when nothing is wrong.
#
# They run as in the sources, without what debhelper adds. The whole package lives in package-life.
import os
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from support.place import LOG, PID_FILE
from support.processes import process_state

DEBIAN = Path(__file__).resolve().parent.parent.parent / "debian"
SILENT = (0, "", "")


def run(script, *arguments, **environment):
    """Runs a maintainer script as dpkg does: its status, its output and its errors."""
    done = subprocess.run(["sh", DEBIAN / f"corvane-cs.{script}", *arguments], capture_output=True, text=True,
                          env={**os.environ, **environment}, stdin=subprocess.DEVNULL, timeout=60)
    return done.returncode, done.stdout, done.stderr


def start_by_hand(machine):
    """Starts a daemon with --start; its pid."""
    machine.daemonise("--start")
    machine.wait_log(r"Start mainloop \.\.\.")
    return int(machine.pid_file())


@pytest.fixture
def init_script(laid_over):
    """Sets the status with which the init script ends, and returns what it was asked for."""
    laid_over.mount("-t", "tmpfs", "tmpfs", "/etc/init.d")
    script = Path("/etc/init.d/corvane-cs")
    programs = Path("/run/stage/programs")
    programs.mkdir()
    (programs / "invoke-rc.d").write_text('#!/bin/sh\necho "$*" >>/run/stage/asked\n'
                                          'echo a line of the script\nexec /etc/init.d/corvane-cs\n')
    (programs / "invoke-rc.d").chmod(0o755)
    path = f"{programs}:{os.environ['PATH']}"

    def end_with(status):
        script.write_text(f"#!/bin/sh\nexit {status}\n")
        script.chmod(0o755)
        return {"PATH": path}

    return end_with


# ---- prerm ----


@pytest.mark.parametrize("content", ["", "0", "-1", "1", "999999", "99999999999999999999", "../run/x", "1 2",
                                     "$(touch /run/x)"])
def test_a_removal_believes_no_text_of_the_pid_file(laid_over, content):
    laid_over.write_pid_file(content)
    assert run("prerm", "remove") == SILENT
    assert laid_over.pid_file() is None and not os.path.exists("/run/x")


def test_a_removal_leaves_a_users_process_alone(laid_over, held):
    laid_over.write_pid_file(held)
    assert run("prerm", "remove") == SILENT
    assert process_state(held) == "t" and laid_over.pid_file() is None


def test_a_removal_leaves_another_process_of_root_alone(laid_over):
    other = subprocess.Popen(["sleep", "600"])
    laid_over.write_pid_file(other.pid)
    assert run("prerm", "remove") == SILENT
    assert other.poll() is None


@pytest.mark.parametrize("is_halted", [False, True])
def test_a_removal_stops_a_daemon_that_was_started_by_hand(laid_over, is_halted):
    laid_over.start_bus()
    pid = start_by_hand(laid_over)
    if is_halted:
        os.kill(pid, signal.SIGSTOP)
        laid_over.wait("a halted daemon", lambda: process_state(pid) == "T")
    assert run("prerm", "remove") == SILENT
    assert process_state(pid) is None and laid_over.pid_file() is None


@pytest.mark.parametrize("arguments", [("upgrade", "2.0"), ("failed-upgrade", "1.0"),
                                       ("deconfigure", "in-favour", "other")])
def test_an_upgrade_stops_nothing(laid_over, init_script, arguments):
    laid_over.start_bus()
    pid = start_by_hand(laid_over)
    assert run("prerm", *arguments, **init_script(1)) == SILENT
    assert process_state(pid) == "S" and laid_over.pid_file() == str(pid)
    assert not os.path.exists("/run/stage/asked")


def test_a_removal_calls_the_init_script_silently(init_script):
    assert run("prerm", "remove", **init_script(0)) == SILENT
    assert Path("/run/stage/asked").read_text() == "--skip-systemd-native corvane-cs stop\n"


def test_a_removal_fails_when_the_init_script_cannot_stop_the_daemon(init_script):
    assert run("prerm", "remove", **init_script(1)) == (1, "", "corvane-cs: the daemon does not end\n")


# ---- postinst ----


@pytest.mark.parametrize("arguments", [("configure", ""), ("configure", "1.0"), ("abort-remove",)])
def test_an_installation_and_an_upgrade_start_what_does_not_run_silently(init_script, arguments):
    assert run("postinst", *arguments, **init_script(0)) == SILENT
    assert Path("/run/stage/asked").read_text() == "--skip-systemd-native corvane-cs start\n"


def test_a_daemon_that_does_not_start_leaves_the_package_installed(init_script):
    assert run("postinst", "configure", "", **init_script(1)) == (
        0, "", "corvane-cs is installed, but its daemon did not start: see /var/log/corvane-cs.log\n")


def test_the_bus_is_told_of_the_policy_before_the_daemon_starts(system_bus, init_script):
    environment = init_script(0)
    sender = Path("/run/stage/programs/dbus-send")
    sender.write_text(f"#!/bin/sh\necho \"$*\" >>/run/stage/asked\nexec {shutil.which('dbus-send')} \"$@\"\n")
    sender.chmod(0o755)
    assert run("postinst", "configure", "", **environment) == SILENT
    reload, start = Path("/run/stage/asked").read_text().splitlines()
    assert reload.endswith("org.freedesktop.DBus.ReloadConfig") and start.endswith("start")


# ---- preinst and postrm ----


def test_nothing_is_done_before_an_unpacking():
    """What debhelper makes of its own is looked at in package-life."""
    assert not (DEBIAN / "corvane-cs.preinst").exists()


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


@pytest.mark.parametrize("script, argument", [("prerm", "remove"), ("postinst", "configure"),
                                              ("postrm", "purge")])
def test_for_another_root_directory_nothing_here_is_touched(laid_over, init_script, script, argument):
    laid_over.write_pid_file("1")
    Path(LOG).touch()
    Path("/run/stage/root").mkdir()
    assert run(script, argument, DPKG_ROOT="/run/stage/root", **init_script(1)) == SILENT
    assert laid_over.pid_file() == "1" and os.path.exists(LOG) and not os.path.exists("/run/stage/asked")
