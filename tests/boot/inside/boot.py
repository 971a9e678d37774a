# SPDX-License-Identifier: MIT
# boot.py: the machine has just booted, and the daemon with it.
import machine
from report import check, expect
from services import service, uptime


@check("the machine boots, and all its services start", "systemd")
@check("the machine boots into its runlevel", "sysvinit")
def machine_boots():
    service.has_booted()
    return f"{uptime():.1f} s"


@check("the boot starts one daemon, and that daemon owns its name on the bus")
def daemon_serves():
    expect(service.serves(), f"the service's pid: {service.pid()}")
    expect(machine.answers(), lambda: machine.call("HelloWorld"))


@check("the daemon starts after the bus")
def order_with_the_bus():
    seconds = service.bus_before_daemon()
    expect(seconds >= 0, f"{-seconds:.2f} s before it")
    return f"{seconds:.2f} s later"


@check("the daemon starts at the first attempt", "systemd")
def one_attempt():
    expect(service.show("NRestarts") == "0", lambda: service.show("NRestarts"))


@check("the log has all steps of the start and no error")
def log_of_the_boot():
    log = machine.read(machine.LOG)
    expect("Start mainloop ..." in log and "{EE}" not in log and "ERROR" not in log, log)


@check("another user may write neither the log nor the pid file nor the daemon's new files")
def modes():
    umask = machine.status_of(machine.daemons()[0], "Umask")
    expect(umask == "0022", "umask", umask)
    for path in (machine.LOG, machine.PID_FILE.parent, *machine.PID_FILE.parent.glob("*.pid")):
        found = path.stat()
        is_safe = found.st_uid == 0 and found.st_mode & 0o022 == 0
        expect(is_safe, f"{path}: owner {found.st_uid}, mode {found.st_mode:o}")
