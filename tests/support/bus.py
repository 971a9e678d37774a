# SPDX-License-Identifier: MIT
# bus.py: a message bus of one's own.
import subprocess

from support.place import STAGE

BUS_SOCKET = f"{STAGE}/bus"


def start_bus(*options, path=BUS_SOCKET, **popen):
    """Starts a bus (with --session, unless options say otherwise) that listens at `path`.

    Returns its process and its address. It prints the address when it listens, so that a caller can connect
    as soon as this returns.
    """
    bus = subprocess.Popen(["dbus-daemon", *(options or ("--session",)), "--nofork", "--print-address=1",
                            f"--address=unix:path={path}"],
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, **popen)
    address = bus.stdout.readline().strip().split(",")[0]
    assert address, "the bus did not start"
    return bus, address
