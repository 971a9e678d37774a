# SPDX-License-Identifier: MIT
# package.py: upgrades, removes, purges and installs the package again on the running machine.
import re

import machine
from report import check, expect
from services import service

# The lines of dpkg itself; all others come from a script of a package.
DPKG = re.compile(
    r"\(Reading database |Preparing to unpack |Unpacking |Setting up |Removing |Purging |"
    r"Processing triggers for |Selecting previously "
)
OF_THE_CHECKS = re.compile(r"/usr/local/|/var/tmp/|corvane-checks|/var/log/journal/")


def dpkg(*arguments):
    """Returns the seconds, and the output of the package's scripts."""
    result = machine.succeed("dpkg", *arguments, seconds=180)
    lines = [line for line in re.split(r"[\r\n]+", result.output) if line and not DPKG.match(line)]
    return result.seconds, "\n".join(lines)


@check("an upgrade leaves the daemon and its actors running, and its scripts print nothing")
def upgrade():
    machine.start(":1", "local-login")
    machine.start(":2", "xhotkey")
    before = service.pid(), machine.actors()
    seconds, printed = dpkg("--install", "/var/tmp/higher.deb")
    expect((service.pid(), machine.actors()) == before, f"before: {before}")
    expect(not printed, "printed:", printed)
    machine.start(":3", "local-login")
    return f"{seconds:.1f} s"


@check("a restart after an upgrade runs the new executable")
def restart_after_the_upgrade():
    dpkg("--install", "/var/tmp/higher.deb")
    service.restart()
    service.wait()
    executable = machine.executable(service.pid())
    expect(executable == "/usr/sbin/corvane-cs", executable)
    machine.start(":1", "local-login")


@check("a removal ends the daemon and its actors", "systemd")
@check("a removal ends the daemon and leaves its actors running", "sysvinit")
def remove():
    machine.start(":1", "local-login")
    seconds, _ = dpkg("--remove", "corvane-cs")
    expect(not machine.daemons() and machine.owner() is None, "a daemon runs")
    expect(len(machine.actors()) == (1 if service.name == "sysvinit" else 0), machine.actors)
    return f"{seconds:.1f} s"


@check("after a removal the unit cannot be started", "systemd")
def start_of_the_removed():
    result = machine.run(*service.command("start", "corvane-cs"))
    expect(result.status != 0 and not machine.daemons(), result, machine.daemons)


@check("after a removal the remaining init script succeeds and starts no daemon", "sysvinit")
def script_of_the_removed():
    machine.succeed("sh", "/etc/init.d/corvane-cs", "start")
    expect(not machine.daemons(), machine.daemons)


@check("a purge leaves no file of the package")
def purge():
    dpkg("--purge", "corvane-cs")
    found = machine.run("find", "/etc", "/usr", "/var", "/run", "-name", "*corvane*", seconds=300)
    paths = found.output.splitlines()
    left = [path for path in paths if "corvane" in path and not OF_THE_CHECKS.search(path)]
    expect(found.status is not None and not left, found.status, *left)


@check("after a purge systemd does not know the unit", "systemd")
def units():
    result = machine.run("systemctl", "list-units", "--all", "--plain", "--no-legend", "corvane-cs*")
    expect(not result.output, result)


@check("a new installation starts the daemon")
def install():
    seconds, _ = dpkg("--install", "/var/tmp/corvane-cs.deb")
    service.wait()
    expect(machine.answers(), lambda: machine.call("HelloWorld"))
    return f"{seconds:.1f} s"
