# SPDX-License-Identifier: MIT
# machine.py: a machine with a bus, the daemon and stand-in actors, for one story at a time.
#
# What a story waits for it waits for with a deadline, and a deadline that passes prints the log. place.py
# says where the story's files are, processes.py what happens to its processes.
import glob
import json
import os
import re
import subprocess

import pytest

from support import bus as buses
from support.callers import Caller
from support.log import Line
from support.place import LOG, PID_FILE, PROGRAMS, STAGE, clear_stage, is_private, set_stage
from support.processes import adopt_orphans, children_of, is_alive, kill_descendants, reap_orphans, wait_for

DAEMON = os.environ["CORVANE_BIN"]
STAND_IN = os.environ.get("CORVANE_STAND_IN", "/bin/true")  # for what does not care what an actor does
FAULTS = os.environ.get("CORVANE_FAULTS")
SANITIZER = os.environ.get("CORVANE_SANITIZER")  # that the daemon is built with: address, thread; None


def not_under_a_sanitizer(why, *sanitizers):
    """Marks a story of what a sanitizer itself changes: any of them, or those that are named."""
    return pytest.mark.skipif(SANITIZER in (sanitizers or ("address", "thread")), reason=why)


def skip_in_container(what):
    """Skips the story where the machine is no private one: it does something that containers refuse."""
    if not is_private():
        pytest.skip(f"{what}, which a container refuses")


class Record:
    """What a stand-in actor wrote down about its start."""

    def __init__(self, path):
        with open(path) as file:
            self.__dict__.update(json.load(file))
        self.program = os.path.basename(self.argv[0])

    def __repr__(self):
        return f"<{self.pid}: {' '.join(self.argv)}>"


def meddled(*words, library="meddler"):
    """The environment of a daemon with a preloaded library of ours; see meddler.c for its words."""
    return {"LD_PRELOAD": f"{os.path.dirname(STAND_IN)}/lib{library}.so", "MEDDLE": " ".join(words)}


class Machine:
    def __init__(self):
        adopt_orphans()
        set_stage()
        self.address = None
        self.bus = None
        self.daemon = None
        self.callers = []
        self.mounts = []
        self.other_logs = set(os.listdir("/var/log"))  # of the container; none on a private machine
        for program in PROGRAMS:
            self.install(program)

    # ---- its programs ----

    def install(self, program):
        os.symlink(STAND_IN, f"{STAGE}/actors/bin/{program}")

    def remove(self, program):
        os.unlink(f"{STAGE}/actors/bin/{program}")

    def behave(self, program, behaviour):
        """What the program does from its next start on; see stand-in.c."""
        with open(f"{STAGE}/actors/behaviour/{program}", "w") as file:
            file.write(behaviour)

    # ---- bus and daemon ----

    def start_bus(self, *options, path=buses.BUS_SOCKET):
        self.bus, self.address = buses.start_bus(*options, path=path)

    def environment(self, **more):
        environment = {**os.environ, "PATH": f"{STAGE}/actors/bin:{os.environ['PATH']}", **more}
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
        with open(f"{STAGE}/terminal", "w") as terminal:
            process = self.launch(*options, stdout=terminal, stderr=terminal, **popen)
        process.wait(10)
        return process

    def terminal(self):
        with open(f"{STAGE}/terminal") as file:
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
        skip_in_container("needs a mount of its own")
        subprocess.run(["mount", *arguments], check=True)
        self.mounts.append(arguments[-1])

    def caller(self):
        caller = Caller(self.address)
        self.callers.append(caller)
        return caller

    def start_faulty_daemon(self, *options):
        """Starts the daemon with calls that a story can make fail; see faults.c."""
        os.mkdir(f"{STAGE}/faults")
        return self.start_daemon(*options, environment={"LD_PRELOAD": FAULTS})

    def fail(self, call, nth=1):
        """The nth `call` from now on fails."""
        with open(f"{STAGE}/faults/draft", "w") as file:
            file.write(str(nth))
        os.rename(f"{STAGE}/faults/draft", f"{STAGE}/faults/{call}")

    def hold(self, call):
        """The next `call` waits until it is released; wait_held waits until it does."""
        self.fail(call, 0)

    def wait_held(self, call):
        self.wait(f"a held {call}", lambda: os.path.exists(f"{STAGE}/faults/{call}.held"))

    def release(self, call):
        os.unlink(f"{STAGE}/faults/{call}.held")

    # ---- what can be seen ----

    def log_text(self):
        try:
            with open(LOG, errors="surrogateescape") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def logs(self):
        """The names of the files in /var/log that the story has made."""
        return sorted(set(os.listdir("/var/log")) - self.other_logs)

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

        def true_or_too_late():
            result = condition()
            if not result and self.daemon and self.daemon.poll() is not None and "gone" not in what:
                raise AssertionError(f"waited in vain for {what} (the daemon ended with "
                                     f"{self.daemon.returncode}); the log:\n{self.log_text()}")
            return result

        return wait_for(what, true_or_too_late, seconds, explain=lambda: f"; the log:\n{self.log_text()}")

    def wait_log(self, pattern, count=1, seconds=10):
        """Waits until `count` lines match `pattern`; returns the matches."""

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

    def running(self, program=None):
        """The records of the actors that are alive."""
        return [record for record in self.records(program) if is_alive(record.pid)]

    def children(self):
        """The pids of the daemon's children that are alive, with a record or without."""
        return children_of(self.daemon.pid)

    def threads(self):
        """The daemon's threads, without the thread sanitizer's own: that one alone blocks signals."""
        threads = {int(entry) for entry in os.listdir(f"/proc/{self.daemon.pid}/task")}
        if SANITIZER != "thread":
            return threads
        return {thread for thread in threads if not self.blocks_signals(thread)}

    def blocks_signals(self, thread):
        try:
            with open(f"/proc/{self.daemon.pid}/task/{thread}/status") as file:
                return int(re.search(r"SigBlk:\s*(\w+)", file.read())[1], 16) != 0
        except (FileNotFoundError, ProcessLookupError):
            return True  # it has just ended

    def wait_gone(self, pid, seconds=10):
        self.wait(f"process {pid} to be gone", lambda: not is_alive(pid), seconds)

    # ---- the end ----

    def clean(self):
        """Ends every process of the story and removes its files."""
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
