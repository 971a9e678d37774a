# SPDX-License-Identifier: MIT
# by_hand.py: a daemon that an administrator started by hand, beside the service's.
import re

import machine
from report import check, expect
from services import service


def only_by_hand():
    """Stops the service, and starts a daemon by hand. Returns its pid."""
    service.stop()
    machine.start_by_hand()
    machine.wait_for("the daemon that was started by hand to have the name",
                     lambda: machine.daemons() == [machine.owner()])
    return machine.owner()


@check("a daemon that is started by hand beside the unit's and ends leaves that one serving", "systemd")
def second():
    pid, log = service.pid(), machine.LOG.stat().st_ino
    machine.start_by_hand()
    machine.wait_for("the second daemon and its log",
                     lambda: len(machine.daemons()) == 2 and machine.OLD_LOG.stat().st_ino == log and
                     "Start mainloop" in machine.read(machine.LOG))
    expect(machine.owner() == pid and machine.answers(), f"the unit's is {pid}")
    machine.succeed("/usr/sbin/corvane-cs", "--stop")
    machine.wait_for("its end", lambda: machine.daemons() == [pid])
    expect(service.serves() and machine.answers(), "the service does not serve")


@check("a daemon that is started by hand beside the service's says so, and ends", "sysvinit")
def refused():
    pid = service.pid()
    # The pipe ends with the last process that has it, the one in the background.
    result = machine.run("sh", "-c", "corvane-cs --start 2>&1 | cat", DBUS_SESSION_BUS_ADDRESS=machine.BUS)
    expect(result.status == 0 and "already running" in result.output, result)
    expect(machine.daemons() == [pid], f"the service's is {pid}")
    expect(service.serves() and machine.answers(), "the service does not serve")


@check("a start of the unit beside a daemon started by hand fails at once and logs its pid", "systemd")
def start_beside_it():
    pid = only_by_hand()
    result = machine.run(*service.command("start", "corvane-cs"), seconds=30)
    expect(result.status not in (0, None) and result.seconds < 15, result)
    journal = machine.succeed("journalctl", "--boot", "--unit=corvane-cs", "--output=cat",
                              "_TRANSPORT=stdout")
    expect(re.search(rf"\b{pid}\b", journal.output), f"no pid {pid} in the unit's own lines:", journal)
    expect(machine.owner() == pid and machine.answers(), f"the daemon was {pid}")
    return f"{result.seconds:.1f} s"


@check("the unit takes over when a daemon that was started by hand ends", "systemd")
def take_over():
    only_by_hand()
    machine.run(*service.command("start", "corvane-cs"), seconds=30)
    machine.succeed("/usr/sbin/corvane-cs", "--stop")
    return f"{service.wait():.1f} s"


@check("a start of the service beside a daemon that was started by hand starts no second one", "sysvinit")
def start_beside_it_is_none():
    pid = only_by_hand()
    service.start()
    expect(machine.daemons() == [pid] and machine.answers(), f"the daemon was {pid}")


@check("a stop of the service ends a daemon that was started by hand", "sysvinit")
def stop_ends_it():
    only_by_hand()
    result = service.stop()
    expect(not machine.daemons(), result)
    return f"{result.seconds:.1f} s"
