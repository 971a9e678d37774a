# SPDX-License-Identifier: MIT
# log.py: the machine's own job rotates the log of the running daemon.
import gzip
import pathlib

import machine
from report import check, expect
from services import service

JOB = {"systemd": ("systemctl", "start", "logrotate.service"), "sysvinit": ("/etc/cron.daily/logrotate",)}
STATE = pathlib.Path("/var/lib/logrotate/status")


def rotate():
    """Runs the job as its timer does. The last rotation seems to be years ago."""
    rotations = [f'"{path}" 2020-1-1-0:0:0\n' for path in (machine.LOG, machine.OLD_LOG)]
    STATE.write_text("logrotate state -- version 2\n" + "".join(rotations))
    return machine.succeed(*JOB[service.name])


def unpacked(path):
    """The text of the newest rotated file of path, packed or not."""
    found = sorted(path.parent.glob(path.name + ".[1-9]*"))
    if not found:
        return ""
    return gzip.open(found[0], "rt").read() if found[0].suffix == ".gz" else machine.read(found[0])


@check("the machine's logrotate job rotates the log, and the daemon writes to the empty one")
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


@check("the machine's logrotate job rotates the log of the previous daemon")
def rotation_of_the_old_one():
    service.restart()
    service.wait()
    before = machine.read(machine.OLD_LOG)
    rotate()
    expect(unpacked(machine.OLD_LOG) == before, "files:", sorted(machine.LOG.parent.glob("corvane*")))
