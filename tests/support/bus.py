# SPDX-License-Identifier: MIT
# bus.py: starts a private message bus.
import subprocess

from support.place import STAGE

BUS_SOCKET = f"{STAGE}/bus"


def start_bus(*options, path=BUS_SOCKET, **popen):
    """Starts a bus that listens at `path`, with --session unless other options are given.

    Returns its process and its address. The bus prints the address when it listens, so a caller can connect
    as soon as this function returns.
    """
    where = f"--address=unix:path={path}"
    command = ["dbus-daemon", *(options or ("--session",)), "--nofork", "--print-address=1", where]
    pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE}
    bus = subprocess.Popen(command, text=True, **pipes, **popen)
    address = bus.stdout.readline().strip().split(",")[0]
    assert address, "the bus did not start"
    return bus, address
