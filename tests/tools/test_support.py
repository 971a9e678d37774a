# SPDX-License-Identifier: MIT
# test_support.py: what the harness of the stories promises, tried with processes of its own.
import subprocess

from conftest import TOOLS

HARNESS = [TOOLS / "private-machine", "/usr/bin/python3", "-c"]


def tell(script):
    """Runs a script on a machine for stories; what it prints."""
    done = subprocess.run([*HARNESS, script], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done.stdout.split()


def test_the_runner_ends_what_its_descendants_left_behind():
    assert tell("""
import subprocess, time
from support.processes import adopt_orphans, descendants, kill_descendants, reap_orphans, wait_for
adopt_orphans()
subprocess.run(["sh", "-c", "setsid sh -c 'sleep 600 & sleep 600 & wait' & "])
print(len(wait_for("three orphans", lambda: len(descendants()) == 3 and descendants())))
kill_descendants()
reap_orphans()
print(len(descendants()))
""") == ["3", "0"]


def test_a_bus_listens_when_its_start_returns():
    """The socket is there before the bus listens: a caller that waits for the path alone is refused."""
    assert tell("""
import os, socket
from support.bus import BUS_SOCKET, start_bus
from support.place import STAGE
os.makedirs(f"{STAGE}/bin")
with open(f"{STAGE}/bin/dbus-daemon", "w") as script:
    script.write('''#!/usr/bin/python3
import os, socket, sys, time
path = sys.argv[-1].partition("path=")[2]
socket.socket(socket.AF_UNIX).bind(path)
time.sleep(0.3)
os.unlink(path)
os.execv("/usr/bin/dbus-daemon", ["dbus-daemon", *sys.argv[1:]])
''')
os.chmod(f"{STAGE}/bin/dbus-daemon", 0o755)
os.environ["PATH"] = f"{STAGE}/bin:" + os.environ["PATH"]
bus, address = start_bus()
with socket.socket(socket.AF_UNIX) as client:
    client.connect(BUS_SOCKET)
print("connected")
bus.kill()
import shutil
shutil.rmtree(STAGE)
""") == ["connected"]
