# SPDX-License-Identifier: MIT
# ends.py: the daemon is restarted, crashes, is killed or loses its bus, and the init brings it back.
import os
import re
import signal
import time

import machine
from report import check, expect
from services import service


def comes_back(old):
    """Waits for the daemon that follows the pid old; under sysvinit, starts it. Returns the seconds."""
    begun = time.monotonic()
    if service.name == "sysvinit":
        machine.wait_for("the daemon's end", lambda: old not in machine.daemons())
        result = machine.run(*service.command("status", "corvane-cs"))
        expect(result.status in (1, 3), result)
        service.start()
    machine.wait_for("another daemon", lambda: machine.daemons() not in ([], [old]))
    service.wait()
    seconds = time.monotonic() - begun
    expect(machine.answers(), "it does not answer")
    return seconds


@check("start, stop, restart and status succeed twice in a row")
def twice():
    pid = service.pid()
    service.start()
    service.start()
    expect(service.pid() == pid, "a second start replaced the daemon")
    for _ in range(2):
        service.succeed("status")
    service.restart()
    service.restart()
    service.wait()
    service.stop()
    service.stop()
    expect(not machine.daemons(), machine.daemons)
    for _ in range(2):
        result = machine.run(*service.command("status", "corvane-cs"))
        expect(result.status == 3, result)


@check("a restart replaces the daemon and ends its actors", "systemd")
@check("a restart replaces the daemon and leaves its actors running", "sysvinit")
def restart():
    machine.start(":1", "local-login")
    old, actor = service.pid(), machine.pid_of(":1")
    result = service.restart()
    service.wait()
    expect(service.pid() != old, f"the daemon is still {old}")
    expect(list(machine.actors()) == ([actor] if service.name == "sysvinit" else []), machine.actors)
    return f"{result.seconds:.1f} s"


@check("the log has the stack of a crash, and the unit starts the next daemon", "systemd")
@check("the log has the stack of a crash, and the daemon can be started again", "sysvinit")
def crash():
    old = service.pid()
    os.kill(old, signal.SIGSEGV)
    seconds = comes_back(old)
    log = machine.read(machine.OLD_LOG)
    report = log.partition("Catch segfault signal.")[2]
    expect(len(re.findall(r"^/?\S*corvane-cs\S*\(", report, re.M)) >= 1, "the log of the daemon before:", log)
    return f"{seconds:.1f} s"


@check("the unit restarts a daemon that is killed ten times in a row, without its actors", "systemd")
@check("a daemon that is killed ten times in a row can be started again each time", "sysvinit")
def killed():
    slowest = 0
    for _ in range(10):
        old = service.pid()
        if service.name == "systemd":
            machine.start(":1", "local-login")
        os.kill(old, signal.SIGKILL)
        slowest = max(slowest, comes_back(old))
        expect(not machine.actors(), machine.actors)
    return f"the slowest in {slowest:.1f} s"


@check("the unit restarts a daemon that SIGTERM has ended", "systemd")
def terminated():
    old = service.pid()
    os.kill(old, signal.SIGTERM)
    return f"{comes_back(old):.1f} s"


@check("a reload of the bus leaves the daemon and its actors unchanged")
def bus_reloaded():
    machine.start(":1", "local-login")
    before = service.pid(), machine.actors()
    service.succeed("reload", "dbus")
    expect(machine.answers(), lambda: machine.call("HelloWorld"))
    expect((service.pid(), machine.actors()) == before, f"before: {before}")


@check("after a restart of the bus the unit starts the next daemon", "systemd")
@check("a restart of the bus ends the daemon, which can be started again", "sysvinit")
def bus_restarted():
    old = service.pid()
    service.succeed("restart", "dbus")
    seconds = comes_back(old)
    machine.start(":1", "local-login")
    return f"{seconds:.1f} s"


@check("a stop with an actor that ignores SIGTERM ends both", "systemd")
@check("a stop with an actor that ignores SIGTERM ends the daemon", "sysvinit")
def stop_with_a_deaf_actor():
    machine.DEAF.touch()
    machine.start(":1", "local-login")
    result = service.stop()
    expect(not machine.daemons(), machine.daemons)
    expect(len(machine.actors()) == (1 if service.name == "sysvinit" else 0), machine.actors)
    expect(result.seconds < 20, result)
    return f"{result.seconds:.1f} s"
