# SPDX-License-Identifier: MIT
# test_unit.py: the systemd unit and its stricter example, as far as they can be judged without being started.
#
# systemd-analyze returns success on keys that it does not know, so its output is what counts. It also reads
# the units that ours refers to: here those of Debian's packages, and nothing that an administrator made. The
# directives are written out, because each was decided for the sake of the stations and their actors.
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
}

# What takes from a login session what it has a right to: setuid programs, mounts that others see, X's sockets
# in /tmp, real-time, other kinds of programs, and name spaces of its own.
NOT_FOR_SESSIONS = re.compile(
    r"^(NoNewPrivileges|Protect\w+|Private\w+|Restrict\w+|CapabilityBoundingSet|User|DynamicUser|"
    r"RootDirectory|\w+Paths|TemporaryFileSystem|MountFlags|Memory\w+|LockPersonality|"
    r"SystemCallArchitectures|Device\w+|Limit\w+|IPAddress\w+)=", re.MULTILINE)


@pytest.fixture
def units(laid_over, installed, tmp_path):
    """A directory with the unit alone; the example can be put beside it."""
    shutil.copy(installed / "lib/systemd/system/corvane-cs.service", tmp_path)
    return tmp_path


def add_example(units, installed):
    directory = units / "corvane-cs.service.d"
    directory.mkdir()
    shutil.copy(installed / "usr/share/doc/corvane-cs/examples/stricter.conf", directory)


def analyze(*arguments):
    done = subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True, timeout=60,
                          env={**os.environ, "SYSTEMD_UNIT_PATH": "/lib/systemd/system"})
    return done.stdout + done.stderr


def exposure(units):
    """The score of systemd-analyze, from 0 to 10: the lower, the less may what runs in the unit do."""
    output = analyze("security", "--offline=yes", str(units / "corvane-cs.service"))
    return float(re.search(r"Overall exposure level for corvane-cs.service: (\S+)", output)[1])


def settings(text):
    return dict(line.split("=", 1) for line in text.splitlines() if re.match(r"\w+=", line))


def test_the_unit_is_valid(units):
    assert analyze("verify", str(units / "corvane-cs.service")) == ""


def test_the_unit_is_valid_with_the_example(units, installed):
    add_example(units, installed)
    assert analyze("verify", str(units / "corvane-cs.service")) == ""


@pytest.mark.parametrize("name", ["corvane-cs.service", "corvane-cs.service.d/stricter.conf"])
def test_an_unknown_key_would_be_told(units, installed, name):
    add_example(units, installed)
    with open(units / name, "a") as file:
        file.write("[Service]\nRestartSecond=1\n")
    assert "Unknown key 'RestartSecond'" in analyze("verify", str(units / "corvane-cs.service"))


def test_a_fault_of_another_unit_is_not_ours(units):
    broken = Path("/run/systemd/system/dbus.service")  # which BusName= needs, whether the machine has it or not
    broken.parent.mkdir(parents=True)
    broken.write_text("[Unit]\nNonsense=1\n[Service]\nExecStart=/bin/true\n")
    unit = str(units / "corvane-cs.service")
    done = subprocess.run(["systemd-analyze", "verify", unit], capture_output=True, text=True, timeout=60)
    assert "Unknown key 'Nonsense'" in done.stderr, "the fault is none"

    assert analyze("verify", unit) == ""


def test_each_decision_stands_in_the_unit(units):
    found = settings((units / "corvane-cs.service").read_text())
    assert {key: found.get(key) for key in EXPECTED} == EXPECTED


def before_the_start(units, machine):
    """Runs what the unit does before the daemon, as systemd reads it; its status and its output."""
    text = (units / "corvane-cs.service").read_text().replace("\\\n", " ")
    command = shlex.split(settings(text)["ExecStartPre"].replace("$$", "$"))
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=30,
                          env={"PATH": os.environ["PATH"], "DBUS_SESSION_BUS_ADDRESS": machine.address})
    return done.returncode, done.stdout


def test_a_start_beside_a_daemon_that_has_the_name_fails_with_a_message(units, laid_over):
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    log = laid_over.log_text()
    assert before_the_start(units, laid_over) == (
        1, f"corvane-cs: a daemon runs already, with pid {daemon.pid}: end it first\n")
    assert laid_over.log_text() == log and laid_over.logs() == ["corvane-cs.log"]


def test_a_start_without_another_daemon_goes_on(units, laid_over):
    laid_over.address = "unix:path=/run/no-bus"
    assert before_the_start(units, laid_over) == (0, "")
    laid_over.start_bus()
    assert before_the_start(units, laid_over) == (0, "")


def test_a_start_goes_on_though_the_bus_still_names_a_daemon_that_has_ended(units, laid_over, monkeypatch):
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    program = Path("/run/stage/actors/bin/dbus-send")
    program.write_text(f"#!/bin/sh\necho '   uint32 {daemon.pid}'\n")
    program.chmod(0o755)
    monkeypatch.setenv("PATH", f"{program.parent}:{os.environ['PATH']}")
    assert before_the_start(units, laid_over)[0] == 1
    daemon.kill()
    laid_over.wait_gone(daemon.pid)
    assert before_the_start(units, laid_over) == (0, "")


def test_nothing_is_forbidden_that_a_session_may_want(units):
    assert NOT_FOR_SESSIONS.findall((units / "corvane-cs.service").read_text()) == []


def test_the_example_is_stricter_by_far(units, installed):
    before = exposure(units)
    add_example(units, installed)
    after = exposure(units)
    print(f"exposure: {before} as shipped, {after} with the example")
    assert before < 9.6 and after < 3


def test_each_directive_has_a_reason(installed):
    """A comment stands above every directive or above the group that it is in."""
    for path in ("lib/systemd/system/corvane-cs.service", "usr/share/doc/corvane-cs/examples/stricter.conf"):
        for section in re.split(r"^\[\w+\]\n", (installed / path).read_text(), flags=re.MULTILINE)[1:]:
            for group in section.strip().split("\n\n"):
                if not re.search(r"^(Description|WantedBy)=", group, re.MULTILINE):
                    assert group.startswith("#"), f"{path}: {group}"


def test_the_daemon_serves_with_the_privileges_of_the_example(laid_over, installed):
    """Its capabilities and nothing else of it: the rest needs systemd to be carried out."""
    example = settings((installed / "usr/share/doc/corvane-cs/examples/stricter.conf").read_text())
    assert example["NoNewPrivileges"] == "yes"
    kept = example["CapabilityBoundingSet"].lower().replace("cap_", ",+").replace(" ", "")
    laid_over.start_bus()
    laid_over.daemon = subprocess.Popen(
        ["setpriv", "--no-new-privs", f"--bounding-set=-all{kept}", "/usr/sbin/corvane-cs"],
        env=laid_over.environment(), stdin=subprocess.DEVNULL)
    laid_over.wait_log(r"Start mainloop \.\.\.")

    status = Path(f"/proc/{laid_over.daemon.pid}/status").read_text()
    assert "NoNewPrivs:\t1\n" in status
    assert "CapEff:\t0000000000000022\n" in status  # CAP_DAC_OVERRIDE is 1, CAP_KILL is 5
    assert laid_over.caller().start(":1", "local-login") is True
    laid_over.wait_log(r"corvane-ls")
