# SPDX-License-Identifier: MIT
# services.py: how an administrator starts and stops the daemon under each init.
import os
import signal
import time

import machine
from report import expect


class Service:
    """The verbs that both inits share; each subclass has the commands of its init."""

    def start(self):
        return self.succeed("start")

    def stop(self):
        return self.succeed("stop")

    def restart(self):
        return self.succeed("restart")

    def succeed(self, verb, name="corvane-cs"):
        return machine.succeed(*self.command(verb, name))

    def serves(self):
        """Whether the service's own daemon is the only one, and owns the name."""
        running = machine.daemons()
        return len(running) == 1 and running == [self.pid()] and machine.owner() == running[0]

    def wait(self):
        return machine.wait_for("the service's daemon to serve alone", self.serves)

    def clean(self):
        """Brings the machine back to one daemon without actors after any check."""
        machine.DEAF.unlink(missing_ok=True)
        if not machine.is_installed() or not machine.actors() and self.serves():
            return
        machine.run(*self.command("stop", "corvane-cs"))
        for pid in [*machine.daemons(), *machine.actors()]:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        machine.wait_for("all processes to end", lambda: not machine.daemons() and not machine.actors())
        machine.PID_FILE.unlink(missing_ok=True)
        self.start()
        self.wait()


class Systemd(Service):
    name = "systemd"
    restart_machine = ("systemctl", "reboot")
    power_off = ("systemctl", "poweroff")

    def command(self, verb, name):
        return "systemctl", verb, name

    def pid(self):
        return int(self.show("MainPID"))

    def show(self, field, unit="corvane-cs.service"):
        return machine.succeed("systemctl", "show", "--property", field, "--value", unit).output

    def has_booted(self):
        """Waits until the machine has booted, and fails if one of its services has failed."""
        result = machine.run("systemctl", "is-system-running", "--wait", seconds=300)
        expect(result.output == "running", result, lambda: machine.run("systemctl", "--failed"))

    def bus_before_daemon(self):
        """Seconds from the moment when the bus takes connections to the start of the daemon."""
        bus = int(self.show("ActiveEnterTimestampMonotonic", "dbus.socket"))
        return (int(self.show("ExecMainStartTimestampMonotonic")) - bus) / 1e6


class Sysvinit(Service):
    name = "sysvinit"
    restart_machine = ("reboot",)
    power_off = ("poweroff",)

    def command(self, verb, name):
        return "service", name, verb

    def pid(self):
        text = machine.read(machine.PID_FILE).strip()
        return int(text) if text.isdigit() else None

    def has_booted(self):
        """Init starts the checks after the scripts of the runlevel."""
        result = machine.run("runlevel")
        expect(result.output == "N 2", result)

    def bus_before_daemon(self):
        bus, daemon = (started(pid) for pid in (machine.read("/run/dbus/pid").strip(), machine.daemons()[0]))
        return (daemon - bus) / os.sysconf("SC_CLK_TCK")


def started(pid):
    """The start of a process in clock ticks since the boot."""
    return int(machine.read(f"/proc/{pid}/stat").rpartition(")")[2].split()[19])


def uptime():
    return time.clock_gettime(time.CLOCK_BOOTTIME)


service = Systemd() if os.path.isdir("/run/systemd/system") else Sysvinit()
