# SPDX-License-Identifier: MIT
# machine.py: how the checks use the machine: commands, processes, calls, the log.
import os
import pathlib
import re
import subprocess
import tempfile
import time

from report import Seen, expect

LOG = pathlib.Path("/var/log/corvane-cs.log")
OLD_LOG = pathlib.Path("/var/log/corvane-cs.log.old")
PID_FILE = pathlib.Path("/run/corvane/corvane-cs.pid")
DEAF = pathlib.Path("/run/deaf")  # makes actors that ignore SIGTERM
NAME = "com.corvane.ControlServer"
BUS = "unix:path=/run/dbus/system_bus_socket"
USER = "someone"  # an ordinary user
PATIENCE = 60  # seconds for what takes a few on hardware; this machine is emulated

ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "LC_ALL": "C",
    "DEBIAN_FRONTEND": "noninteractive",
    "HOME": "/root",
    "TERM": "dumb",
}


class Result:
    def __init__(self, command, status, output, seconds):
        self.command = " ".join(command)
        self.status = status  # None: the command did not exit in time
        self.output = output
        self.seconds = seconds

    def __str__(self):
        return f"{self.command}: status {self.status} after {self.seconds:.1f} s\n{self.output}".rstrip()


def run(*command, seconds=PATIENCE, **more):
    """Runs a command. Its output goes to a file, because a daemon that it starts would keep a pipe open."""
    with tempfile.TemporaryFile() as output:
        begun = time.monotonic()
        streams = {"stdin": subprocess.DEVNULL, "stdout": output, "stderr": output}
        process = subprocess.Popen(command, env={**ENVIRONMENT, **more}, **streams)
        try:
            status = process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            status = None
        taken = time.monotonic() - begun
        output.seek(0)
        return Result(command, status, output.read().decode(errors="replace").strip(), taken)


def succeed(*command, **more):
    result = run(*command, **more)
    expect(result.status == 0, result)
    return result


def wait_for(what, question, seconds=PATIENCE):
    """Waits until question() is true, and returns the seconds."""
    begun = time.monotonic()
    while not question():
        if time.monotonic() - begun > seconds:
            raise Seen(f"waited {seconds} s for {what}")
        time.sleep(0.02)
    return time.monotonic() - begun


def read(path):
    """The text of a file; empty if the file does not exist or its process has exited."""
    try:
        return pathlib.Path(path).read_text(errors="replace")
    except OSError:
        return ""


def is_installed():
    return os.path.exists("/usr/sbin/corvane-cs")


def processes():
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]


def executable(pid):
    try:
        return os.readlink(f"/proc/{pid}/exe")
    except OSError:
        return ""


def daemons():
    """The pids of all daemons, including those whose executable was replaced."""
    return [pid for pid in processes() if executable(pid).startswith("/usr/sbin/corvane-cs")]


def actors():
    """{pid: command line} of all running stand-ins, as inside/actor shows them."""
    names = {pid: read(f"/proc/{pid}/cmdline").split("\0")[0] for pid in processes()}
    return {pid: name.removeprefix("actor ") for pid, name in names.items() if name.startswith("actor ")}


def status_of(pid, field):
    """A line of /proc/PID/status."""
    found = re.search(rf"^{field}:\s*(.*)$", read(f"/proc/{pid}/status"), re.M)
    return found[1] if found else ""


def bus_call(destination, path, method, *arguments, user="root"):
    as_user = ["setpriv", "--reuid", user, "--regid", user, "--init-groups"]
    send = ["dbus-send", "--system", "--print-reply=literal", "--reply-timeout=20000"]
    return run(*as_user, *send, f"--dest={destination}", path, method, *arguments)


def call(member, *arguments, user="root"):
    """Calls Start or Stop of the display manager, or HelloWorld of the other object."""
    plugin = "Dummy" if member == "HelloWorld" else "DisplayManager"
    path, method = f"/com/corvane/ControlServer/{plugin}", f"{NAME}.{plugin}.{member}"
    return bus_call(NAME, path, method, *(f"string:{argument}" for argument in arguments), user=user)


def ask_bus(member, *arguments, user="root"):
    name = "org.freedesktop.DBus"
    return bus_call(name, "/org/freedesktop/DBus", f"{name}.{member}", *arguments, user=user)


def owner():
    """The pid of the process that owns the daemon's name; None without one, or without a bus."""
    result = ask_bus("GetConnectionUnixProcessID", f"string:{NAME}")
    return int(result.output.split()[-1]) if result.status == 0 else None


def answers():
    return call("HelloWorld").output == "How are you?"


def start(display, actor):
    """Starts an actor, and waits until its program runs."""
    result = call("Start", display, actor, "COMMON")
    expect(result.output == "boolean true", result)
    wait_for(f"{actor} on {display}", lambda: pid_of(display))


def pid_of(display):
    """The pid of an actor on the display, or None."""
    return next((pid for pid, line in actors().items() if display in line.split()), None)


def stop(display, actor):
    result = call("Stop", display, actor)
    expect(result.output == "boolean true", result)


def start_by_hand():
    """Starts a daemon with --start, as an administrator may."""
    return succeed("/usr/sbin/corvane-cs", "--start", DBUS_SESSION_BUS_ADDRESS=BUS)


def state():
    """A summary for the maintainer, after a failed check."""
    processes = f"daemons: {daemons()}, owner of the name: {owner()}, pid file: {read(PID_FILE)!r}"
    last_lines = read(LOG).splitlines()[-5:]
    return "\n".join([processes, f"actors: {actors()}", "the log's last lines:", *last_lines])
