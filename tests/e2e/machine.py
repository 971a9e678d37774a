# SPDX-License-Identifier: MIT
# machine.py: a machine with a bus, the daemon and stand-in actors, for one story at a time.
#
# It works only inside tools/private-machine: /run and /var/log are the story's own, and so is every process
# but the test runner, so cleaning up means to empty the one and to kill the other. What a story waits for it
# waits for with a deadline, and a deadline that passes prints the log.
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import time

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

DAEMON = os.environ["CORVANE_BIN"]
STAND_IN = os.environ["STAND_IN"]
FAULTS = os.environ.get("FAULTS")
SANITIZER = os.environ.get("CORVANE_SANITIZER")  # that the daemon is built with: address, thread; None
LOG = "/var/log/corvane-cs.log"
PID_FILE = "/var/run/corvane/corvane-cs.pid"
NAME = "com.corvane.ControlServer"
PATH = "/com/corvane/ControlServer"
PROGRAMS = ("corvane-ls", "corvane-pfk", "corvane-x11-put-image", "corvane-xh")
LINE = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d):(?:([\w./-]+):(\d+):([^:]*): (DEBUG|ERROR): )?(.*)")


def not_under_a_sanitizer(why, *sanitizers):
    """Marks a story of what a sanitizer itself changes: any of them, or those that are named."""
    return pytest.mark.skipif(SANITIZER in (sanitizers or ("address", "thread")), reason=why)


class CallFailed(Exception):
    """A call that was answered with an error; its first argument is the error's name."""


class Line:
    """One line of the daemon's log: time, file, number, function, level, text."""

    def __init__(self, raw):
        match = LINE.fullmatch(raw)
        assert match, f"not a line of the log: {raw!r}"
        self.raw = raw
        self.time, self.file, self.number, self.function, self.level, self.text = match.groups()


class Record:
    """What a stand-in actor wrote down about its start."""

    def __init__(self, path):
        with open(path) as file:
            self.__dict__.update(json.load(file))
        self.program = os.path.basename(self.argv[0])

    def __repr__(self):
        return f"<{self.pid}: {' '.join(self.argv)}>"


def texts_of(output):
    """The texts of what a logger on a standard stream wrote: whole lines, each behind the time."""
    assert not output or output.endswith("\n"), repr(output)
    return [Line(raw).text for raw in output.splitlines()]


def meddled(*words, library="meddler"):
    """The environment of a daemon with a preloaded library of ours; see meddler.c for its words."""
    return {"LD_PRELOAD": f"{os.path.dirname(STAND_IN)}/lib{library}.so", "MEDDLE": " ".join(words)}


def process_state(pid):
    """The state letter of a process; None when there is none, dead or not yet reaped ones included."""
    try:
        with open(f"/proc/{pid}/stat") as file:
            state = file.read().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if state in "ZX" else state


class Caller:
    """A connection to the bus of one caller."""

    def __init__(self, address):
        self.connection = open_dbus_connection(address)

    def send(self, message):
        self.connection.send(message)

    def ask(self, message, timeout=10):
        """Sends a call; returns the arguments of its reply or raises CallFailed."""
        reply = self.connection.send_and_get_reply(message, timeout=timeout)
        if reply.header.message_type == MessageType.error:
            raise CallFailed(reply.header.fields[HeaderFields.error_name], *reply.body)
        return reply.body

    def send_all(self, calls):
        """Sends the calls one behind the other and reads nothing; returns what replies() takes."""
        serials = [next(self.connection.outgoing_serial) for _ in calls]
        for serial, call in zip(serials, calls):
            self.connection.send(call, serial=serial)
        return serials

    def replies(self, serials, timeout=30):
        """The arguments of the replies to the calls sent, in the order of the calls."""
        bodies = dict.fromkeys(serials)
        while None in bodies.values():
            reply = self.connection.receive(timeout=timeout)
            serial = reply.header.fields.get(HeaderFields.reply_serial)
            if serial in bodies:
                bodies[serial] = reply.body
        return list(bodies.values())

    def burst(self, calls):
        """Sends all calls before it reads the first reply; returns the replies' arguments in the calls' order."""
        return self.replies(self.send_all(calls))

    def call(self, plugin, member, signature="", *arguments):
        return self.ask(plugin_call(plugin, member, signature, *arguments))

    def start(self, display, actor, station_type="COMMON"):
        return self.call("DisplayManager", "Start", "sss", display, actor, station_type)[0]

    def stop(self, display, actor):
        return self.call("DisplayManager", "Stop", "ss", display, actor)[0]

    def hello(self):
        return self.call("Dummy", "HelloWorld")[0]

    def close(self):
        self.connection.close()


def plugin_call(plugin, member, signature="", *arguments):
    address = DBusAddress(f"{PATH}/{plugin}", bus_name=NAME, interface=f"{NAME}.{plugin}")
    return new_method_call(address, member, signature or None, tuple(arguments))


class Machine:
    def __init__(self):
        if os.listdir("/var/log") or os.listdir("/run") not in ([], ["corvane"]):
            raise RuntimeError("stories run inside tools/private-machine only")
        self.address = None
        self.bus = None
        self.daemon = None
        self.callers = []
        self.mounts = []
        os.makedirs("/run/corvane", exist_ok=True)
        for directory in ("bin", "records", "behaviour"):
            os.makedirs(f"/run/actors/{directory}")
        for program in PROGRAMS:
            self.install(program)

    # ---- its programs ----

    def install(self, program):
        os.symlink(STAND_IN, f"/run/actors/bin/{program}")

    def remove(self, program):
        os.unlink(f"/run/actors/bin/{program}")

    def behave(self, program, behaviour):
        """What the program does from its next start on; see stand-in.c."""
        with open(f"/run/actors/behaviour/{program}", "w") as file:
            file.write(behaviour)

    # ---- bus and daemon ----

    def start_bus(self, *options, path="/run/bus"):
        command = ["dbus-daemon", *(options or ("--session",)), "--nofork", "--print-address=1",
                   f"--address=unix:path={path}"]
        self.bus = subprocess.Popen(command, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True)
        self.address = self.bus.stdout.readline().strip().split(",")[0]
        assert self.address, "the bus did not start"

    def environment(self, **more):
        environment = {**os.environ, "PATH": f"/run/actors/bin:{os.environ['PATH']}", **more}
        if self.address:
            environment.setdefault("DBUS_SESSION_BUS_ADDRESS", self.address)
        return environment

    def launch(self, *options, environment=None, **popen):
        """Starts the executable and returns at once; its output is in `output` and `errors`."""
        popen.setdefault("stdout", subprocess.PIPE)
        popen.setdefault("stderr", subprocess.PIPE)
        return subprocess.Popen([DAEMON, *options], env=self.environment(**(environment or {})),
                                stdin=subprocess.DEVNULL, text=True, **popen)

    def run(self, *options, timeout=30, **popen):
        """Runs the executable to its end: a completed process with returncode, stdout and stderr."""
        process = self.launch(*options, **popen)
        stdout, stderr = process.communicate(timeout=timeout)
        return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)

    def start_daemon(self, *options, **launch):
        """Starts the daemon in the foreground and waits until it serves."""
        self.daemon = self.launch(*options, **launch)
        self.wait_log(r"Start mainloop \.\.\.")
        return self.daemon

    def daemonise(self, *options, **popen):
        """Runs options with --start among them and returns the process that the shell waits for, ended.

        All that is said, then and later, is in self.terminal(): the daemon keeps the descriptors.
        """
        with open("/run/terminal", "w") as terminal:
            process = self.launch(*options, stdout=terminal, stderr=terminal, **popen)
        process.wait(10)
        return process

    def terminal(self):
        with open("/run/terminal") as file:
            return file.read()

    def pid_file(self):
        """What stands in the pid file; None without one."""
        try:
            with open(PID_FILE) as file:
                return file.read()
        except FileNotFoundError:
            return None

    def write_pid_file(self, text):
        with open(PID_FILE, "w") as file:
            file.write(str(text))

    def mount(self, *arguments):
        """mount(8) with these arguments, the last being the place; undone at the end."""
        subprocess.run(["mount", *arguments], check=True)
        self.mounts.append(arguments[-1])

    def caller(self):
        caller = Caller(self.address)
        self.callers.append(caller)
        return caller

    def start_faulty_daemon(self, *options):
        """Starts the daemon with calls that a story can make fail; see faults.c."""
        os.mkdir("/run/faults")
        return self.start_daemon(*options, environment={"LD_PRELOAD": FAULTS})

    def fail(self, call, nth=1):
        """The nth `call` from now on fails."""
        with open("/run/faults/draft", "w") as file:
            file.write(str(nth))
        os.rename("/run/faults/draft", f"/run/faults/{call}")

    def hold(self, call):
        """The next `call` waits until it is released; wait_held waits until it does."""
        self.fail(call, 0)

    def wait_held(self, call):
        self.wait(f"a held {call}", lambda: os.path.exists(f"/run/faults/{call}.held"))

    def release(self, call):
        os.unlink(f"/run/faults/{call}.held")

    # ---- what can be seen ----

    def log_text(self):
        try:
            with open(LOG, errors="surrogateescape") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def log(self):
        """All lines of the log; each must be whole."""
        return [Line(raw) for raw in self.log_text().splitlines() if raw]

    def texts(self):
        """The texts of the log's lines, without time, file, line, function and level."""
        return [line.text for line in self.log()]

    def told(self):
        """The log as "file function: text" or, for an error, "file function: ERROR: text"."""
        error = {"DEBUG": "", "ERROR": "ERROR: "}
        return [f"{line.file} {line.function}: {error[line.level]}{line.text}" for line in self.log()]

    def wait(self, what, condition, seconds=10):
        """Waits until condition() is true and returns its result; fails with the log after the deadline."""
        deadline = time.monotonic() + seconds
        while True:
            result = condition()
            if result:
                return result
            if self.daemon and self.daemon.poll() is not None and "gone" not in what:
                what += f" (the daemon ended with {self.daemon.returncode})"
                deadline = 0
            if time.monotonic() > deadline:
                raise AssertionError(f"waited in vain for {what}; the log:\n{self.log_text()}")
            time.sleep(0.005)

    def wait_log(self, pattern, count=1, seconds=10):
        """Waits until `count` lines match `pattern`; returns the matches."""

        def found():
            matches = [m for m in map(re.compile(pattern).search, self.log_text().splitlines()) if m]
            return matches if len(matches) >= count else None

        return self.wait(f"{count} lines that match {pattern!r}", found, seconds)

    def records(self, program=None):
        """The starts of actors so far, oldest first."""
        records = [Record(path) for path in glob.glob("/run/actors/records/*.json")]
        return sorted((r for r in records if program in (None, r.program)), key=lambda r: r.started)

    def wait_records(self, count, program=None, seconds=10):
        def enough():
            records = self.records(program)
            return records if len(records) >= count else None

        return self.wait(f"{count} starts of {program or 'actors'}", enough, seconds)

    def running(self, program=None):
        """The records of the actors that are alive."""
        return [record for record in self.records(program) if process_state(record.pid)]

    def children(self):
        """The pids of the daemon's children that are alive, with a record or without."""
        children = []
        for path in glob.glob("/proc/[0-9]*/stat"):
            try:
                with open(path) as file:
                    pid, state, parent = re.match(r"(\d+) \(.*\) (\S) (\d+)", file.read()).groups()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if int(parent) == self.daemon.pid and state not in "ZX":
                children.append(int(pid))
        return sorted(children)

    def threads(self):
        """The daemon's threads, without the thread sanitizer's own: that one alone blocks signals."""
        threads = {int(entry) for entry in os.listdir(f"/proc/{self.daemon.pid}/task")}
        return {thread for thread in threads if not self.blocks_signals(thread)} if SANITIZER == "thread" else threads

    def blocks_signals(self, thread):
        try:
            with open(f"/proc/{self.daemon.pid}/task/{thread}/status") as file:
                return int(re.search(r"SigBlk:\s*(\w+)", file.read())[1], 16) != 0
        except (FileNotFoundError, ProcessLookupError):
            return True  # it has just ended

    def wait_gone(self, pid, seconds=10):
        self.wait(f"process {pid} to be gone", lambda: process_state(pid) is None, seconds)

    # ---- the end ----

    def clean(self):
        """Ends every process but the runner's own and empties /run and /var/log."""
        for caller in self.callers:
            caller.close()
        spared = {1}
        pid = os.getpid()
        while pid > 1:
            spared.add(pid)
            with open(f"/proc/{pid}/stat") as file:
                pid = int(file.read().rpartition(")")[2].split()[1])

        def others():
            pids = {int(entry) for entry in os.listdir("/proc") if entry.isdigit()} - spared
            return [pid for pid in pids if process_state(pid)]

        while left := others():  # again: a process may have forked meanwhile
            for pid in left:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            time.sleep(0.002)
        for process in (self.bus, self.daemon):
            if process:
                process.wait()
                for stream in (process.stdout, process.stderr):
                    if stream:
                        stream.close()
        for place in reversed(self.mounts):
            subprocess.run(["umount", "-l", place], check=True)
        for directory in ("/run", "/var/log"):
            for entry in os.scandir(directory):
                shutil.rmtree(entry.path) if entry.is_dir(follow_symlinks=False) else os.unlink(entry.path)
