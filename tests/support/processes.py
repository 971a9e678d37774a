# SPDX-License-Identifier: MIT
# processes.py: the processes of a story: who they are, how long to wait for one, and how all of them end.
#
# The runner (pytest, the demonstration, the benchmark) adopts every process that its descendants leave
# behind, so all that a story started stays below the runner in the process table. Cleaning up terminates the
# runner's descendants and nothing else, on a private machine as in a container that others use, too.
import ctypes
import os
import signal
import time

PR_SET_CHILD_SUBREAPER = 36  # prctl(2)
RELEASED = "ZX"  # states of processes that have ended

# What keeps SIGTERM away from a process, to be called before it executes its program.
SIGTERM_KEPT_AWAY = {
    "ignored": lambda: signal.signal(signal.SIGTERM, signal.SIG_IGN),
    "blocked": lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM]),
}


def adopt_orphans():
    """Makes this process the parent of its descendants' orphans, and lets it receive every signal."""
    signal.pthread_sigmask(signal.SIG_SETMASK, ())
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "cannot adopt the orphans of descendants")


def stat_of(pid):
    """State, parent and the fields that follow them in /proc/PID/stat (proc(5)); None without one."""
    try:
        with open(f"/proc/{pid}/stat") as file:
            return file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None


def process_state(pid):
    """The state letter of a process; None when there is none, dead or not yet reaped ones included."""
    stat = stat_of(pid)
    return None if stat is None or stat[0] in RELEASED else stat[0]


def is_alive(pid):
    return process_state(pid) is not None


def children_of(parent):
    """The pids of a process's children that are alive."""
    return sorted(pid for pid, (state, of) in table().items() if of == parent and state not in RELEASED)


def descendants():
    """The pids of everything alive that this process has started, directly or not."""
    processes, found = table(), {os.getpid()}
    while more := {pid for pid, (_, parent) in processes.items() if parent in found} - found:
        found |= more
    return [pid for pid in found - {os.getpid()} if processes[pid][0] not in RELEASED]


def table():
    """State and parent of every process."""
    stats = {int(entry): stat_of(entry) for entry in os.listdir("/proc") if entry.isdigit()}
    return {pid: (stat[0], int(stat[1])) for pid, stat in stats.items() if stat}


def kill_descendants():
    """Kills everything that this process has started, and returns when all of it has ended."""
    while left := descendants():  # again: a process may have forked in the meantime
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        time.sleep(0.002)


def reap_orphans():
    """Reaps the children that have ended. Call it when no subprocess.Popen waits for one of them any more."""
    try:
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    except ChildProcessError:
        pass


def wait_for(what, condition, seconds=20, pause=0.005, explain=lambda: ""):
    """Waits until condition() is true and returns its result; fails after the deadline, as explain() says."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds:g} s in vain for {what}{explain()}")
        time.sleep(pause)
