# SPDX-License-Identifier: MIT
# stricter.py: the unit with the stricter drop-in, an example of the package.
import os
import pathlib
import shutil
import signal

import machine
from report import check, expect
from services import service

EXAMPLE = "/usr/share/doc/corvane-cs/examples/stricter.conf"
DIRECTORY = pathlib.Path("/etc/systemd/system/corvane-cs.service.d")


@check("with the stricter drop-in the unit starts, and its daemon answers", "systemd")
def starts():
    DIRECTORY.mkdir()
    shutil.copy(EXAMPLE, DIRECTORY)
    machine.succeed("systemctl", "daemon-reload")
    service.restart()
    service.wait()
    expect(machine.status_of(service.pid(), "NoNewPrivs") == "1", "the drop-in has no effect")
    expect(machine.answers(), lambda: machine.call("HelloWorld"))


@check("with the stricter drop-in the daemon starts, restarts and stops an actor", "systemd")
def watches():
    expect(machine.status_of(service.pid(), "NoNewPrivs") == "1", "the drop-in has no effect")
    machine.start(":1", "local-login")
    first = machine.pid_of(":1")
    os.kill(first, signal.SIGKILL)
    machine.wait_for("its successor", lambda: machine.pid_of(":1") not in (None, first))
    machine.stop(":1", "local-login")
    machine.wait_for("its end", lambda: not machine.actors())


@check("without the drop-in the unit works as before", "systemd")
def gone():
    shutil.rmtree(DIRECTORY)
    machine.succeed("systemctl", "daemon-reload")
    service.restart()
    service.wait()
    expect(machine.status_of(service.pid(), "NoNewPrivs") == "0", "the drop-in still has an effect")
