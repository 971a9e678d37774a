# SPDX-License-Identifier: MIT
# test_actor_pause.py: Stop and Start in the two seconds between an actor's death and its relaunch.
#
# The group keeps the pid of the dead child during the pause, and the kernel may reuse that pid. The stories
# create a process with this pid and check that it survives.
import contextlib
import ctypes
import errno
import os
import signal

from support.machine import skip_in_container
from support.processes import stat_of
from transcript import STOP, now, transcript

CLONE3 = 435  # the same on every machine


class CloneArguments(ctypes.Structure):
    NAMES = "flags pidfd child_tid parent_tid exit_signal stack stack_size tls set_tid set_tid_size"
    _fields_ = [(name, ctypes.c_uint64) for name in NAMES.split()]


@contextlib.contextmanager
def stranger(pid):
    """A process of the story with this free pid, as if the kernel had reused it; see clone3(2)."""
    number = ctypes.c_int(pid)
    arguments = CloneArguments(exit_signal=signal.SIGCHLD, set_tid=ctypes.addressof(number), set_tid_size=1)
    libc = ctypes.PyDLL(None, use_errno=True)
    child = libc.syscall(CLONE3, ctypes.byref(arguments), ctypes.c_size_t(ctypes.sizeof(arguments)))
    if child == 0:
        try:
            os.execv("/bin/sleep", ["sleep", "600"])
        finally:
            os._exit(127)
    if child < 0 and ctypes.get_errno() in (errno.EPERM, errno.ENOSYS):
        skip_in_container("needs to choose the pid of a process")
    assert child == pid, os.strerror(ctypes.get_errno())
    yield
    assert os.waitpid(pid, os.WNOHANG) == (0, 0), "the daemon signalled a process that is not its child"
    os.kill(pid, signal.SIGKILL)
    os.waitpid(pid, 0)


def kill(machine, record):
    """Kills an actor and waits until its thread pauses or has ended."""
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_log(f"Child process died: {record.pid}$")
    tasks = f"{machine.daemon.pid}/task"

    def all_sleep():
        stats = [stat_of(f"{tasks}/{task}") for task in machine.threads()]
        return all(stat is None or stat[0] == "S" for stat in stats)

    machine.wait("pause", all_sleep)


def start_one(machine, caller):
    assert caller.start(":1", "xhotkey") is True
    (record,) = machine.wait_records(1)
    machine.wait_log(f"child={record.pid}$")
    return record


def test_a_stop_in_the_pause_sends_no_signal_and_lets_one_more_launch_through(machine):
    caller = machine.caller()
    first = start_one(machine, caller)
    kill(machine, first)
    with stranger(first.pid):
        since = now(machine)
        assert caller.stop(":1", "xhotkey") is True
        machine.wait_log(f"child_pid {first.pid}$")
        assert transcript(machine, since) == [
            STOP,
            ("dbus_dm_stop", "display_num=1, actor_code=7"),
            ("proc_method_stop", "proc_method_stop"),
            ("proc_method_stop", f"proc_method_stop: child_pid {first.pid}"),
        ]
        second = machine.wait_records(2)[1]
        machine.wait_log(f"child={second.pid}$")

    # The group runs again, so a start is refused, also after the last child has exited.
    since = now(machine)
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("is already running")
    kill(machine, second)
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread$")
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("is already running", 2)
    assert [text for _, text in transcript(machine, since)].count("group:3, is_running:1") == 2

    # A stop makes the group idle, and again it sends no signal.
    with stranger(second.pid):
        assert caller.stop(":1", "xhotkey") is True
        machine.wait_log(f"child_pid {second.pid}$")
        assert caller.start(":1", "xhotkey") is True
        third = machine.wait_records(3)[2]
    assert machine.children() == [third.pid]


def test_a_second_stop_terminates_the_launch_that_the_stop_in_the_pause_let_through(machine):
    caller = machine.caller()
    first = start_one(machine, caller)
    kill(machine, first)
    assert caller.stop(":1", "xhotkey") is True
    second = machine.wait_records(2)[1]
    machine.wait_log(f"child={second.pid}$")
    assert caller.stop(":1", "xhotkey") is True
    machine.wait_log(f"child_pid {second.pid}$")
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread$")
    assert machine.children() == []


def test_after_a_stop_and_a_start_in_the_pause_only_the_new_thread_has_a_child(machine):
    caller = machine.caller()
    first = start_one(machine, caller)
    kill(machine, first)
    with stranger(first.pid):
        since = now(machine)
        assert caller.stop(":1", "xhotkey") is True
        assert caller.start(":1", "xhotkey") is True
        second = machine.wait_records(2)[1]
        assert second.started - first.started < 2.0
        machine.wait_log(f"child={second.pid}$")
        assert ("proc_method_start", "group:3, is_running:0") in transcript(machine, since)
        since = now(machine)
        machine.wait_log("Another process")
        words = ("corvane-xh", "-display", ":1")
        assert transcript(machine, since) == [
            *(("method_start_thread", f"{{DM}} method_start_thread(): {word}") for word in words),
            (
                "method_start_thread",
                "Another process on the same actor group has been started: "
                f"{second.pid}. Exit from the current thread",
            ),
        ]
        assert machine.children() == [second.pid]
        assert caller.stop(":1", "xhotkey") is True
        machine.wait_log("keep_alive field is FALSE. Exit from the current thread$")
    assert machine.children() == [] and len(machine.records()) == 2
