# SPDX-License-Identifier: MIT
# test_unit.py: the systemd unit and its stricter example, as far as a test can judge them without systemd.
#
# systemd-analyze returns success on keys that it does not know, so its output decides. It also reads the
# units that ours refers to: here those of Debian's packages, and no unit of an administrator. EXPECTED has
# each directive on which the stations and their actors depend.
import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest

EXPECTED = {
    "StartLimitIntervalSec": "0",
    "Type": "dbus",
    "BusName": "com.corvane.ControlServer",
    "Environment": "DBUS_SESSION_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket",
    "ExecStart": "/usr/sbin/corvane-cs",
    "Restart": "always",
    "RestartSec": "1s",
    "KillMode": "control-group",
    "TimeoutStopSec": "10s",
    "IgnoreSIGPIPE": "no",
    "OOMPolicy": "continue",
    "TasksMax": "infinity",
    "RuntimeDirectory": "corvane",
    "RuntimeDirectoryPreserve": "yes",
    "SystemCallFilter": "~@obsolete",
    "SystemCallErrorNumber": "ENOSYS",
}

# These would take from a login session what it may need: setuid programs, mounts that others see, X's sockets
# in /tmp, real-time scheduling, other kinds of programs, and namespaces.
NOT_FOR_SESSIONS = re.compile(
    r"^(NoNewPrivileges|Protect\w+|Private\w+|Restrict\w+|CapabilityBoundingSet|User|DynamicUser|"
    r"RootDirectory|\w+Paths|TemporaryFileSystem|MountFlags|Memory\w+|LockPersonality|"
    r"SystemCallArchitectures|Device\w+|Limit\w+|IPAddress\w+)=",
    re.MULTILINE,
)
EXAMPLE = "usr/share/doc/corvane-cs/examples/stricter.conf"


@pytest.fixture
def unit(laid_over, installed, tmp_path):
    """A copy of the unit, alone in its directory."""
    return Path(shutil.copy(installed / "lib/systemd/system/corvane-cs.service", tmp_path))


@pytest.fixture
def stricter_unit(unit, installed):
    """The same with the example as a drop-in."""
    directory = Path(f"{unit}.d")
    directory.mkdir()
    shutil.copy(installed / EXAMPLE, directory)
    return unit


def analyze(*arguments):
    environment = {**os.environ, "SYSTEMD_UNIT_PATH": "/lib/systemd/system"}
    command = ["systemd-analyze", *arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, env=environment)
    return done.stdout + done.stderr


def exposure(unit):
    """The score of systemd-analyze, from 0 to 10: the lower, the less may a program in the unit do."""
    output = analyze("security", "--offline=yes", unit)
    return float(re.search(r"Overall exposure level for corvane-cs.service: (\S+)", output)[1])


def settings(text):
    return dict(line.split("=", 1) for line in text.splitlines() if re.match(r"\w+=", line))


def test_the_unit_is_valid(unit):
    assert analyze("verify", unit) == ""


def test_the_unit_is_valid_with_the_example_and_an_unknown_key_is_reported(stricter_unit):
    assert analyze("verify", stricter_unit) == ""
    with open(f"{stricter_unit}.d/stricter.conf", "a") as file:
        file.write("RestartSecond=1\n")
    assert "Unknown key 'RestartSecond'" in analyze("verify", stricter_unit)


def test_the_unit_has_each_decided_directive_and_forbids_nothing_that_a_session_may_need(unit):
    text = unit.read_text()
    found = settings(text)
    assert {key: found.get(key) for key in EXPECTED} == EXPECTED
    assert NOT_FOR_SESSIONS.findall(text) == []


def test_the_example_is_stricter_by_far(stricter_unit):
    stricter = exposure(stricter_unit)
    shutil.rmtree(f"{stricter_unit}.d")
    assert stricter < 3 < exposure(stricter_unit)


def before_the_start(unit, machine):
    """Runs what the unit does before the daemon, as systemd reads it; its status and its output."""
    text = unit.read_text().replace("\\\n", " ")
    command = shlex.split(settings(text)["ExecStartPre"].replace("$$", "$"))
    environment = {"PATH": os.environ["PATH"], "DBUS_SESSION_BUS_ADDRESS": machine.address}
    streams = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
    done = subprocess.run(command, text=True, timeout=30, env=environment, **streams)
    return done.returncode, done.stdout


def test_a_start_beside_a_daemon_that_has_the_name_fails_with_a_message(unit, laid_over):
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    log = laid_over.log_text()
    message = f"corvane-cs: a daemon runs already, with pid {daemon.pid}: end it first\n"
    assert before_the_start(unit, laid_over) == (1, message)
    assert laid_over.log_text() == log and laid_over.logs() == ["corvane-cs.log"]


def test_a_start_without_another_daemon_goes_on(unit, laid_over):
    laid_over.address = "unix:path=/run/no-bus"
    assert before_the_start(unit, laid_over) == (0, "")
    laid_over.start_bus()
    assert before_the_start(unit, laid_over) == (0, "")


def test_a_start_goes_on_if_the_bus_still_names_a_daemon_that_has_exited(unit, laid_over, monkeypatch):
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    program = Path("/run/stage/actors/bin/dbus-send")
    program.write_text(f"#!/bin/sh\necho '   uint32 {daemon.pid}'\n")
    program.chmod(0o755)
    monkeypatch.setenv("PATH", f"{program.parent}:{os.environ['PATH']}")
    assert before_the_start(unit, laid_over)[0] == 1
    daemon.kill()
    laid_over.wait_gone(daemon.pid)
    assert before_the_start(unit, laid_over) == (0, "")


def test_the_daemon_serves_with_the_privileges_of_the_example(laid_over, installed):
    """Only its capabilities are tried: systemd applies the rest."""
    example = settings((installed / EXAMPLE).read_text())
    assert example["NoNewPrivileges"] == "yes"
    kept = example["CapabilityBoundingSet"].lower().replace("cap_", ",+").replace(" ", "")
    laid_over.start_bus()
    command = ["setpriv", "--no-new-privs", f"--bounding-set=-all{kept}", "/usr/sbin/corvane-cs"]
    environment = laid_over.environment()
    laid_over.daemon = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL)
    laid_over.wait_log(r"Start mainloop \.\.\.")

    status = Path(f"/proc/{laid_over.daemon.pid}/status").read_text()
    assert "NoNewPrivs:\t1\n" in status
    assert "CapEff:\t0000000000000022\n" in status  # CAP_DAC_OVERRIDE is 1, CAP_KILL is 5
    assert laid_over.caller().start(":1", "local-login") is True
    laid_over.wait_log(r"corvane-ls")
