# SPDX-License-Identifier: MIT
# processes.py: finds the processes of a story, waits for them and terminates them.
#
# The runner (pytest, the demonstration or a benchmark) adopts the orphans of its descendants, so every
# process of a story stays below the runner in the process table. Cleaning up terminates only the descendants
# of the runner, also in a container with other processes.
import ctypes
import os
import signal
import time

PR_SET_CHILD_SUBREAPER = 36  # prctl(2)
RELEASED = "ZX"  # the states of processes that have exited

# Two ways to start a process without SIGTERM, for preexec_fn.
WITHOUT_SIGTERM = {
    "ignored": lambda: signal.signal(signal.SIGTERM, signal.SIG_IGN),
    "blocked": lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM]),
}


def adopt_orphans():
    """Makes this process the parent of its descendants' orphans, and lets it receive every signal."""
    signal.pthread_sigmask(signal.SIG_SETMASK, ())
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "cannot adopt the orphans of descendants")


def stat_of(pid):
    """The fields of /proc/PID/stat from the state on (proc(5)); None if the process does not exist."""
    try:
        with open(f"/proc/{pid}/stat") as file:
            return file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None


def process_state(pid):
    """The state letter of a process; None if it does not exist or has exited."""
    stat = stat_of(pid)
    return None if stat is None or stat[0] in RELEASED else stat[0]


def is_alive(pid):
    return process_state(pid) is not None


def children_of(parent):
    """The pids of the live children of a process."""
    return sorted(pid for pid, (state, of) in table().items() if of == parent and state not in RELEASED)


def descendants():
    """The pids of the live descendants of this process."""
    processes, found = table(), {os.getpid()}
    while more := {pid for pid, (_, parent) in processes.items() if parent in found} - found:
        found |= more
    return [pid for pid in found - {os.getpid()} if processes[pid][0] not in RELEASED]


def table():
    """The state and the parent of every process."""
    stats = {int(entry): stat_of(entry) for entry in os.listdir("/proc") if entry.isdigit()}
    return {pid: (stat[0], int(stat[1])) for pid, stat in stats.items() if stat}


def kill_descendants():
    """Kills all descendants of this process; returns when all have exited."""
    while left := descendants():  # a process may have forked in the meantime
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        time.sleep(0.002)


def reap_orphans():
    """Reaps the children that have exited. No subprocess.Popen may still wait for one of them."""
    try:
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    except ChildProcessError:
        pass


def wait_for(what, condition, seconds=20, pause=0.005, explain=lambda: ""):
    """Waits until condition() is true and returns its result; a failure shows the text of explain()."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"no {what} after {seconds:g} s{explain()}")
        time.sleep(pause)
