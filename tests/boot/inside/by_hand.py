# SPDX-License-Identifier: MIT
# by_hand.py: an administrator starts a daemon by hand, beside the service's.
import re

import machine
from report import check, expect
from services import service


def only_by_hand():
    """Stops the service, and starts a daemon by hand. Returns its pid."""
    service.stop()
    machine.start_by_hand()
    machine.wait_for("the new daemon to own the name", lambda: machine.daemons() == [machine.owner()])
    return machine.owner()


@check("a daemon started by hand beside the unit's exits, and the unit's still serves", "systemd")
def second():
    pid, log = service.pid(), machine.LOG.stat().st_ino
    machine.start_by_hand()

    def has_started():
        is_moved = len(machine.daemons()) == 2 and machine.OLD_LOG.stat().st_ino == log
        return is_moved and "Start mainloop" in machine.read(machine.LOG)

    machine.wait_for("the second daemon and its log", has_started)
    expect(machine.owner() == pid and machine.answers(), f"the unit's is {pid}")
    machine.succeed("/usr/sbin/corvane-cs", "--stop")
    machine.wait_for("its end", lambda: machine.daemons() == [pid])
    expect(service.serves() and machine.answers(), "the service does not serve")


@check("a daemon started by hand beside the service's reports that one runs, and exits", "sysvinit")
def refused():
    pid = service.pid()
    # The pipe ends when the process in the background exits.
    result = machine.run("sh", "-c", "corvane-cs --start 2>&1 | cat", DBUS_SESSION_BUS_ADDRESS=machine.BUS)
    expect(result.status == 0 and "already running" in result.output, result)
    expect(machine.daemons() == [pid], f"the service's is {pid}")
    expect(service.serves() and machine.answers(), "the service does not serve")


@check("a start of the unit beside a daemon started by hand fails at once and logs that one's pid", "systemd")
def start_beside_it():
    pid = only_by_hand()
    result = machine.run(*service.command("start", "corvane-cs"), seconds=30)
    expect(result.status not in (0, None) and result.seconds < 15, result)
    command = ["journalctl", "--boot", "--unit=corvane-cs", "--output=cat", "_TRANSPORT=stdout"]
    journal = machine.succeed(*command)
    expect(re.search(rf"\b{pid}\b", journal.output), f"no pid {pid} in the unit's own lines:", journal)
    expect(machine.owner() == pid and machine.answers(), f"the daemon was {pid}")
    return f"{result.seconds:.1f} s"


@check("the unit takes over when a daemon started by hand exits", "systemd")
def take_over():
    only_by_hand()
    machine.run(*service.command("start", "corvane-cs"), seconds=30)
    machine.succeed("/usr/sbin/corvane-cs", "--stop")
    return f"{service.wait():.1f} s"


@check("a start of the service beside a daemon started by hand starts no second one", "sysvinit")
def start_beside_it_is_none():
    pid = only_by_hand()
    service.start()
    expect(machine.daemons() == [pid] and machine.answers(), f"the daemon was {pid}")


@check("a stop of the service ends a daemon started by hand", "sysvinit")
def stop_ends_it():
    only_by_hand()
    result = service.stop()
    expect(not machine.daemons(), result)
    return f"{result.seconds:.1f} s"
