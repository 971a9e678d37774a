# SPDX-License-Identifier: MIT
# second_boot.py: the machine was restarted while actors ran, after a new installation of the package.
import machine
from report import check, expect
from services import service, uptime


@check("after a restart of the machine the daemon serves again, without actors")
def serves():
    service.has_booted()
    expect(service.serves() and machine.answers(), f"the service's pid: {service.pid()}")
    expect(not machine.actors(), machine.actors)
    return f"{uptime():.1f} s"


@check("the log of the previous boot is kept")
def old_log():
    expect("dbus_dm_start(): display=:3" in machine.read(machine.OLD_LOG), machine.read(machine.OLD_LOG))
