# SPDX-License-Identifier: MIT
# log.py: the machine's own job rotates the log while the daemon writes.
import gzip
import pathlib

import machine
from report import check, expect
from services import service

JOB = {"systemd": ("systemctl", "start", "logrotate.service"), "sysvinit": ("/etc/cron.daily/logrotate",)}
STATE = pathlib.Path("/var/lib/logrotate/status")


def rotate():
    """Runs the job as its timer does, on a machine where the last rotation was long ago."""
    STATE.write_text("logrotate state -- version 2\n" + "".join(
        f'"{path}" 2020-1-1-0:0:0\n' for path in (machine.LOG, machine.OLD_LOG)))
    return machine.succeed(*JOB[service.name])


def unpacked(path):
    """The newest rotated file of path, however it is packed."""
    found = sorted(path.parent.glob(path.name + ".[1-9]*"))
    if not found:
        return ""
    return gzip.open(found[0], "rt").read() if found[0].suffix == ".gz" else machine.read(found[0])


@check("the machine's logrotate job rotates the log, and the daemon goes on in the empty one")
def rotation():
    expect(machine.answers(), "it does not answer")
    pid, before = service.pid(), machine.read(machine.LOG)
    result = rotate()
    expect(unpacked(machine.LOG) == before, "rotated:", unpacked(machine.LOG), "before:", before)
    expect(machine.read(machine.LOG) == "", "the log is not empty:", machine.read(machine.LOG))
    expect(machine.answers() and service.pid() == pid, f"the daemon was {pid}")
    machine.wait_for("the call in the log", lambda: "{DUMMY}" in machine.read(machine.LOG))
    expect("\0" not in machine.read(machine.LOG), "the log has a hole")
    return f"{result.seconds:.1f} s"


@check("the machine's logrotate job rotates the log of the daemon before, too")
def rotation_of_the_old_one():
    service.restart()
    service.wait()
    before = machine.read(machine.OLD_LOG)
    rotate()
    expect(unpacked(machine.OLD_LOG) == before, "files:", sorted(machine.LOG.parent.glob("corvane*")))
