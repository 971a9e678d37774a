# SPDX-License-Identifier: MIT
# conftest.py: the machine on which the tests of this folder look at the installed files.
#
# CORVANE_INSTALLED is a directory with all that `cmake --install` puts below /, with the prefix /usr. It
# is laid over the private machine's own /usr, so that the tests run what a user gets, where the user gets it.
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from support import machine as machines
from support.fixtures import bare, machine  # noqa: F401: pytest finds them here
from support.place import PROGRAMS
from support.processes import process_state

BUS_SOCKET = "/run/dbus/system_bus_socket"
BUS_CONFIGURATION = Path("/usr/share/dbus-1/system.conf")
BUS_ERRORS = Path("/run/dbus/errors")
STRANGER = 65534  # a user without rights
OPTIONS = ["--disable", "--enable", "--pid", "--purge", "--start", "--stop", "--verbose"]


@pytest.fixture
def installed():
    """The directory that stands for / of a machine on which the daemon is installed."""
    return Path(os.environ["CORVANE_INSTALLED"])


@pytest.fixture
def laid_over(bare, installed, monkeypatch):  # noqa: F811
    """A clean machine with the installed files below /usr in their places, the daemon among them."""
    bare.mount("-t", "overlay", "overlay", "-o", f"lowerdir={installed}/usr:/usr", "/usr")
    monkeypatch.setattr(machines, "DAEMON", "/usr/sbin/corvane-cs")
    return bare


@pytest.fixture
def policies(bare, installed):  # noqa: F811
    """A copy of the installed policies that the bus can read; its user may not reach the sources."""
    return Path(shutil.copytree(installed / "usr/share/dbus-1/system.d", "/run/stage/policies"))


def start_system_bus(machine, policies, **limits):  # noqa: F811
    """Starts a system bus with its stock configuration, but with these policies and dbus-daemon(1) limits."""
    text = BUS_CONFIGURATION.read_text()
    assert BUS_SOCKET in text
    text, count = re.subn("<includedir>system.d</includedir>", f"<includedir>{policies}</includedir>", text)
    assert count == 1, text
    text = re.sub("<include.*?>/etc/.*?</include.*?>", "", text)
    elements = "".join(f'<limit name="{name}">{value}</limit>' for name, value in limits.items())
    configuration = Path("/run/dbus/system.conf")
    configuration.parent.mkdir()
    configuration.write_text(text.replace("</busconfig>", f"{elements}</busconfig>"))
    command = ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nosyslog", "--print-address=1"]
    pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "text": True}
    with BUS_ERRORS.open("w") as errors:
        machine.bus = subprocess.Popen(command, stderr=errors, **pipes)
    machine.address = machine.bus.stdout.readline().strip().split(",")[0]
    assert machine.address == f"unix:path={BUS_SOCKET}", BUS_ERRORS.read_text()


@pytest.fixture
def system_bus(laid_over, policies):
    """A machine with the installed files and a system bus that has only their policies."""
    start_system_bus(laid_over, policies)
    return laid_over


# Runs the daemon's executable and never lets it do anything: ptrace(2) holds it at its first instruction.
HOLD = """
import ctypes, os, time
if os.fork() == 0:
    ctypes.CDLL(None).ptrace(0, 0, 0, 0)
    os.execv("/usr/sbin/corvane-cs", ["/usr/sbin/corvane-cs"])
time.sleep(600)
"""


@pytest.fixture
def held(laid_over):
    """The pid of a stranger's process that runs the daemon's executable and is held by its parent."""
    stranger = subprocess.Popen([sys.executable, "-c", HOLD], user=STRANGER, group=STRANGER, extra_groups=[])
    children = Path(f"/proc/{stranger.pid}/task/{stranger.pid}/children")

    def traced():
        pid = children.read_text().strip()
        return int(pid) if pid and process_state(int(pid)) == "t" else None

    return laid_over.wait("a held process", traced)


@pytest.fixture
def lasting_actors(system_bus):
    """A machine with a system bus and with actors that run until they are stopped."""
    for program in PROGRAMS:
        system_bus.remove(program)
        path = Path(f"/run/stage/actors/bin/{program}")
        path.write_text("#!/bin/sh\nwhile :; do sleep 600; done\n")
        path.chmod(0o755)
    return system_bus
