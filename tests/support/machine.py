# SPDX-License-Identifier: MIT
# machine.py: a machine with a bus, the daemon and stand-in actors, for one story at a time.
#
# Each wait has a deadline, and a wait that fails prints the log. place.py says where the files of a story
# are, and processes.py what happens to its processes.
import glob
import json
import os
import re
import subprocess

import pytest

from support import bus as buses
from support.callers import Caller, CallFailed
from support.log import Line
from support.place import LOG, PID_FILE, PROGRAMS, STAGE, clear_stage, is_private, set_stage
from support.processes import adopt_orphans, children_of, is_alive, kill_descendants, reap_orphans, wait_for

DAEMON = os.environ["CORVANE_BIN"]
STAND_IN = os.environ.get("CORVANE_STAND_IN", "/bin/true")  # some tests do not need actors that do anything
PRELOAD = os.environ.get("CORVANE_PRELOAD")  # the library of tests/e2e/preload
SANITIZER = os.environ.get("CORVANE_SANITIZER")  # the daemon's sanitizer: address, thread or None


def not_under_a_sanitizer(why, *sanitizers):
    """Skips a story about something that sanitizers change: all of them, or the ones that are named."""
    return pytest.mark.skipif(SANITIZER in (sanitizers or ("address", "thread")), reason=why)


def skip_in_container(what):
    """Skips a story that does something that a container refuses, unless the machine is private."""
    if not is_private():
        pytest.skip(f"{what}, which a container refuses")


class Record:
    """What a stand-in actor recorded about its start."""

    def __init__(self, path):
        with open(path) as file:
            self.__dict__.update(json.load(file))
        self.program = os.path.basename(self.argv[0])

    def __repr__(self):
        return f"<{self.pid}: {' '.join(self.argv)}>"


class Machine:
    def __init__(self):
        adopt_orphans()
        set_stage()
        self.address = None
        self.bus = None
        self.daemon = None
        self.callers = []
        self.mounts = []
        self.other_logs = set(os.listdir("/var/log"))  # the container's; a private machine has none
        for program in PROGRAMS:
            self.install(program)

    # ---- its programs ----

    def install(self, program):
        os.symlink(STAND_IN, f"{STAGE}/actors/bin/{program}")

    def remove(self, program):
        os.unlink(f"{STAGE}/actors/bin/{program}")

    def behave(self, program, behaviour):
        """Sets what the program does from its next start on; see stand-in.c."""
        with open(f"{STAGE}/actors/behaviour/{program}", "w") as file:
            file.write(behaviour)

    # ---- bus and daemon ----

    def start_bus(self, *options, path=buses.BUS_SOCKET):
        self.bus, self.address = buses.start_bus(*options, path=path)

    def kill_bus(self):
        self.bus.kill()
        self.bus.wait()
        self.bus.stdout.close()

    def environment(self, **more):
        environment = {**os.environ, "PATH": f"{STAGE}/actors/bin:{os.environ['PATH']}", **more}
        if self.address:
            environment.setdefault("DBUS_SESSION_BUS_ADDRESS", self.address)
        return environment

    def launch(self, *options, environment=None, preloaded=False, **popen):
        """Starts the executable and returns at once. With `preloaded`, the rules of a story apply to it."""
        environment = {**(environment or {}), **({"LD_PRELOAD": PRELOAD} if preloaded else {})}
        popen = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **popen}
        return subprocess.Popen(
            [DAEMON, *options],
            env=self.environment(**environment),
            stdin=subprocess.DEVNULL,
            text=True,
            **popen,
        )

    def run(self, *options, timeout=30, **popen):
        """Runs the executable until it exits; returns a CompletedProcess."""
        process = self.launch(*options, **popen)
        stdout, stderr = process.communicate(timeout=timeout)
        return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)

    def start_daemon(self, *options, **launch):
        """Starts the daemon in the foreground and waits until it serves."""
        self.daemon = self.launch(*options, **launch)
        self.wait_log(r"Start mainloop \.\.\.")
        return self.daemon

    def wait_service(self):
        """Waits until a call is served; returns its caller. Calls get errors until the daemon is set up."""
        caller = self.caller()

        def is_served():
            try:
                return caller.hello() == "How are you?"
            except CallFailed:
                return False

        self.wait("daemon that serves", is_served)
        return caller

    def daemonise(self, *options, **popen):
        """Runs options that include --start; returns the process that the shell waits for, after its exit.

        The daemon keeps the descriptors, so self.terminal() has all output, also the later output.
        """
        with open(f"{STAGE}/terminal", "w") as terminal:
            process = self.launch(*options, stdout=terminal, stderr=terminal, **popen)
        process.wait(10)
        return process

    def terminal(self):
        with open(f"{STAGE}/terminal") as file:
            return file.read()

    def pid_file(self):
        """The text of the pid file; None if the file does not exist."""
        try:
            with open(PID_FILE) as file:
                return file.read()
        except FileNotFoundError:
            return None

    def write_pid_file(self, text):
        with open(PID_FILE, "w") as file:
            file.write(str(text))

    def mount(self, *arguments):
        """Runs mount(8) with these arguments; clean() unmounts the last one."""
        skip_in_container("needs a mount of its own")
        subprocess.run(["mount", *arguments], check=True)
        self.mounts.append(arguments[-1])

    def caller(self):
        caller = Caller(self.address)
        self.callers.append(caller)
        return caller

    # ---- faults, for a preloaded daemon; see preload/rules.h ----

    def set_rule(self, call, rule=""):
        """Sets the rule of a call."""
        with open(f"{STAGE}/preload/draft", "w") as file:
            file.write(str(rule))
        os.rename(f"{STAGE}/preload/draft", f"{STAGE}/preload/{call}")

    def remove_rule(self, call):
        """Removes the rule of a call; returns whether it still applied."""
        is_pending = self.is_pending(call)
        if is_pending:
            os.unlink(f"{STAGE}/preload/{call}")
        return is_pending

    def is_pending(self, call):
        return os.path.exists(f"{STAGE}/preload/{call}")

    def fail(self, call, nth=1, count=1):
        """Makes the nth `call` from now on fail, and the ones after it until `count` have failed."""
        self.set_rule(call, f"{nth} {count}")

    def hold(self, call):
        """Makes the next `call` wait until release(); wait_held() waits until it does."""
        self.set_rule(call, 0)

    def wait_held(self, call):
        self.wait(f"held {call}", lambda: self.is_pending(f"{call}.held"))

    def release(self, call):
        assert self.remove_rule(f"{call}.held"), f"no {call} is held"

    # ---- observations ----

    def log_text(self):
        try:
            with open(LOG, errors="surrogateescape") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def logs(self):
        """The names of the files that the story made in /var/log."""
        return sorted(set(os.listdir("/var/log")) - self.other_logs)

    def log(self):
        """All lines of the log; each must be whole."""
        return [Line(raw) for raw in self.log_text().splitlines() if raw]

    def texts(self):
        """The texts of the log's lines, without time, file, line, function and level."""
        return [line.text for line in self.log()]

    def logged(self):
        """The log as "file function: text" or, for an error, "file function: ERROR: text"."""
        error = {"DEBUG": "", "ERROR": "ERROR: "}
        return [f"{line.file} {line.function}: {error[line.level]}{line.text}" for line in self.log()]

    def wait(self, what, condition, seconds=10):
        """Waits until condition() is true and returns its result; a failure shows the log.

        The daemon must run meanwhile, unless the name of the event contains "gone".
        """

        def result_unless_ended():
            result = condition()
            if not result and self.daemon and self.daemon.poll() is not None and "gone" not in what:
                status = self.daemon.returncode
                raise AssertionError(f"no {what}: the daemon exited with {status}; log:\n{self.log_text()}")
            return result

        return wait_for(what, result_unless_ended, seconds, explain=lambda: f"; log:\n{self.log_text()}")

    def wait_log(self, pattern, count=1, seconds=10):
        """Waits until at least `count` lines match `pattern`; returns the matches."""

        def found():
            matches = [m for m in map(re.compile(pattern).search, self.log_text().splitlines()) if m]
            return matches if len(matches) >= count else None

        return self.wait(f"{count} lines that match {pattern!r}", found, seconds)

    def records(self, program=None):
        """The starts of actors so far, oldest first."""
        records = [Record(path) for path in glob.glob(f"{STAGE}/actors/records/*.json")]
        return sorted((r for r in records if program in (None, r.program)), key=lambda r: r.started)

    def wait_records(self, count, program=None, seconds=10):
        def enough():
            records = self.records(program)
            return records if len(records) >= count else None

        return self.wait(f"{count} starts of {program or 'actors'}", enough, seconds)

    def wait_deaf(self, record):
        """Waits until an actor that behaves like "ignore-term" ignores SIGTERM."""
        note = f"{STAGE}/actors/records/{record.pid}.deaf"
        self.wait("deaf actor", lambda: os.path.exists(note))

    def running(self, program=None):
        """The records of the actors that are alive."""
        return [record for record in self.records(program) if is_alive(record.pid)]

    def children(self):
        """The pids of the daemon's live children, with or without a record."""
        return children_of(self.daemon.pid)

    def threads(self):
        """The daemon's threads. The thread sanitizer's own one is left out: only that one blocks signals."""
        threads = {int(entry) for entry in os.listdir(f"/proc/{self.daemon.pid}/task")}
        if SANITIZER != "thread":
            return threads
        return {thread for thread in threads if not self.blocks_signals(thread)}

    def blocks_signals(self, thread):
        try:
            with open(f"/proc/{self.daemon.pid}/task/{thread}/status") as file:
                return int(re.search(r"SigBlk:\s*(\w+)", file.read())[1], 16) != 0
        except (FileNotFoundError, ProcessLookupError):
            return True  # it has just exited

    def wait_gone(self, pid, seconds=10):
        self.wait(f"gone process {pid}", lambda: not is_alive(pid), seconds)

    # ---- the end ----

    def clean(self):
        """Terminates every process of the story and removes its files."""
        for caller in self.callers:
            caller.close()
        kill_descendants()
        for process in (self.bus, self.daemon):
            if process:
                process.wait()
                for stream in (process.stdout, process.stderr):
                    if stream:
                        stream.close()
        reap_orphans()
        for place in reversed(self.mounts):
            subprocess.run(["umount", "-l", place], check=True)
        clear_stage()
