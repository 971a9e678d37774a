# SPDX-License-Identifier: MIT
# main.py: runs the checks of this boot one after the other, and then restarts the machine or powers it off.
#
# Both happen while actors run. A line that begins with @ announces the end to the host, which measures it and
# starts the machine again after the first one. A file on the disk shows which boot this is.
import pathlib
import signal
import traceback

import actors
import boot
import by_hand
import ends
import log
import machine
import package
import report
import second_boot
import stricter
import users
from services import service

BOOTED = pathlib.Path("/var/lib/corvane-checks.booted")


def perform(modules, prepare):
    for module in modules:
        for one in module.checks:
            if one.is_for(service.name):
                report.perform(one, prepare, machine.state)


def leave(word, command):
    """Ends the machine while actors run; without them the host never gets the word, and fails."""
    try:
        service.clean()
        for display in (":1", ":2", ":3"):
            machine.start(display, "local-login")
        report.say(word)
    except Exception:
        report.say("FAILED  actors run when the machine ends\n" + traceback.format_exc())
    machine.run(*command)
    signal.pause()  # until the init ends this process


if BOOTED.exists():
    perform([second_boot], lambda: None)
    leave("@power-off", service.power_off)
else:
    BOOTED.touch()
    perform([boot], lambda: None)
    perform([actors, users, ends, log, by_hand, stricter, package], service.clean)
    leave("@restart", service.restart_machine)
