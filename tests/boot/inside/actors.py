# SPDX-License-Identifier: MIT
# actors.py: root starts and stops actors, and the daemon restarts them.
import os
import re
import signal
import time

import machine
from report import check, expect
from services import service

IMAGES = "/usr/share/corvane/images/kva-images.bundle"
PROGRAMS = {
    (":1", "local-login"): "corvane-ls :1",
    (":1", "press-fkey"): "corvane-pfk -display :1 --verbose --logfile /var/log/corvane-pfk1.log",
    (":1", "xhotkey"): "corvane-xh -display :1",
    (":2", "remote-login"): "corvane-ls :2 -query localhost",
    (":2", "click-mouse"): "corvane-pfk -display :2 --mouse --verbose --logfile /var/log/corvane-pfk2.log",
    (":3", "disable-station"): f"corvane-x11-put-image :3 {IMAGES} disabled",
}


@check("root starts each of the six programs, with its arguments")
def start_all():
    begun = time.monotonic()
    for display, actor in PROGRAMS:
        result = machine.call("Start", display, actor, "COMMON")
        expect(result.output == "boolean true", result)
    machine.wait_for("the programs", lambda: sorted(machine.actors().values()) == sorted(PROGRAMS.values()))
    return f"{time.monotonic() - begun:.1f} s"


@check("an actor is a child of the daemon and has only the descriptors 0, 1 and 2")
def descriptors():
    machine.start(":1", "local-login")
    pid = machine.pid_of(":1")
    expect(machine.status_of(pid, "PPid") == str(service.pid()), machine.status_of(pid, "PPid"))
    found = {int(name): os.readlink(f"/proc/{pid}/fd/{name}") for name in os.listdir(f"/proc/{pid}/fd")}
    expect(sorted(found) == [0, 1, 2], found)


@check("the daemon restarts a killed actor after two seconds")
def supervision():
    machine.start(":1", "local-login")
    killed = machine.pid_of(":1")
    os.kill(killed, signal.SIGKILL)
    seconds = machine.wait_for("its successor", lambda: machine.pid_of(":1") not in (None, killed))
    expect(1.9 < seconds < 10, f"after {seconds:.1f} s")
    return f"{seconds:.1f} s"


@check("a stopped actor exits, and the daemon does not restart it")
def stop_one():
    machine.start(":1", "xhotkey")
    begun = time.monotonic()
    machine.stop(":1", "xhotkey")
    message = "keep_alive field is FALSE. Exit from the"
    machine.wait_for("the end of the actor's thread", lambda: message in machine.read(machine.LOG))
    expect(not machine.actors(), machine.actors)
    return f"{time.monotonic() - begun:.1f} s"


@check("corvane-ctl starts an actor and reports that it runs")
def ctl_start():
    result = machine.succeed("corvane-ctl", "start", ":9", "local-login")
    expect(" runs, process " in result.output, result)


@check("corvane-ctl shows an actor that runs")
def ctl_status():
    machine.start(":9", "local-login")
    result = machine.succeed("corvane-ctl", "status")
    expect(re.search(r"^:9 .* runs ", result.output, re.M), result)


@check("corvane-ctl stops an actor and reports its end")
def ctl_stop():
    machine.start(":9", "local-login")
    result = machine.succeed("corvane-ctl", "stop", ":9", "local-login")
    expect(" ends, process " in result.output and not machine.actors(), result)


@check("ten Starts in a row for ten stations start ten actors")
def ten_stations():
    begun = time.monotonic()
    for number in range(11, 21):
        machine.call("Start", f":{number}", "local-login", "PCI")
    machine.wait_for("ten actors", lambda: len(machine.actors()) == 10)
    return f"{time.monotonic() - begun:.1f} s"
