# SPDX-License-Identifier: MIT
# test_crash_threads.py: a crash is reported from wherever it comes: any thread, in any call, several at once.
#
# What crashes is either a call that faults.c lets write through a null pointer, or a thread that waits, by a signal to
# it alone. Meanwhile other threads may hold what the report needs.
import itertools
import os
import signal
import time

import pytest

from support.callers import CallFailed, plugin_call
from support.machine import FAULTS, SANITIZER, meddled, not_under_a_sanitizer
from support.place import LOG
from stress import report, size, start_call, stop_call
from test_crash import FRAME, crash_thread, threads

late_alarm = not_under_a_sanitizer("it keeps the alarm back from a thread that waits in no call of its own", "thread")
BODIES = {"main": "main", "worker": "process_station_events", "group": "method_start_thread"}


@pytest.fixture
def doomed(bare):
    """A machine with a bus, a pid file, and a place for faults; its daemon is still to be started."""
    bare.start_bus()
    bare.write_pid_file("77")
    os.mkdir("/run/stage/faults")
    return bare


def wait_asleep(machine, thread):
    """Waits until the thread waits for something."""

    def state():
        with open(f"/proc/{machine.daemon.pid}/task/{thread}/stat") as file:
            return file.read().rpartition(")")[2].split()[0]

    machine.wait("a thread that sleeps", lambda: state() == "S")


def forget(machine):
    """Removes the traces of a daemon that is gone, for the next one; the bus may take a moment to see it."""
    caller = machine.caller()

    def nobody_is_there():
        with pytest.raises(CallFailed) as failure:
            caller.hello()
        return failure.value.args[0] == "org.freedesktop.DBus.Error.ServiceUnknown"

    machine.wait("the name to be gone", nobody_is_there)
    machine.daemon.stdout.close()
    machine.daemon.stderr.close()
    os.unlink(LOG)
    for name in os.listdir("/run/stage/actors/records"):
        os.unlink(f"/run/stage/actors/records/{name}")


def find_threads(machine):
    """The thread for each of BODIES, of a daemon that has one station with one running actor."""
    caller = machine.caller()
    known = threads(machine)
    assert known == {machine.daemon.pid}
    assert caller.start(":1", "init-station") is True
    machine.wait_log("No action needed")
    machine.wait("the worker alone", lambda: len(threads(machine)) == 2)
    (worker,) = threads(machine) - known
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("child=")
    (group,) = threads(machine) - known - {worker}
    found = {"main": machine.daemon.pid, "worker": worker, "group": group}
    for thread in found.values():
        wait_asleep(machine, thread)
    return found


def assert_ended(machine):
    assert machine.daemon.wait(3) == 1
    assert machine.pid_file() is None


def assert_in_report(machine, *functions):
    """Behind the line of the crash stand three or more frames with names, these functions among them.

    Lines of other threads may stand in between: they go on until the end.
    """
    lines = machine.log_text().splitlines()
    errors = [n for n, line in enumerate(lines) if line.endswith(":segfault_handler: ERROR: Catch segfault signal.")]
    assert errors, lines[-20:]
    named = [frame[1] for frame in map(FRAME.fullmatch, lines[errors[0]:]) if frame and frame[1]]
    assert len(named) >= 3, lines[errors[0]:]
    for function in ("segfault_handler", *functions):
        assert any(function in name for name in named), named


@pytest.mark.parametrize("call, function", [
    ("select", "main"),
    ("dbus_message_new_method_return", "bus_reply"),
    ("dbus_connection_send", "bus_reply"),
    ("library_memory", "main"),
    ("memory", "dm_start_station_thread"),
    ("pthread_cond_wait", "process_station_events"),
    ("kill", "proc_method_stop"),
    ("mmap", "proc_method_start"),
    ("pthread_create", "dm_start_station_thread"),
    ("madvise", "stack_take" if SANITIZER == "thread" else "stack_prepare_own"),
    ("fork", "method_start_thread"),
    ("wait", "method_start_thread"),
    ("sleep", "method_start_thread"),
    ("fflush", "log_write"),
])
def test_a_write_through_a_null_pointer_is_reported_whatever_call_it_happens_in(doomed, call, function):
    for _ in range(size(1, 5)):
        doomed.write_pid_file("77")
        doomed.behave("corvane-pfk", "exit 0")
        doomed.start_daemon(environment={"LD_PRELOAD": FAULTS})
        doomed.fail(call, -1)
        caller = doomed.caller()
        for display in range(1, 4):
            caller.send_all([start_call(display, "xhotkey"), start_call(display, "click-mouse"),
                             stop_call(display, "xhotkey")])
        assert_ended(doomed)
        assert_in_report(doomed, function)
        forget(doomed)


@not_under_a_sanitizer("the heap is its own, and the library that locks it locks the C library's")
@pytest.mark.parametrize("who", BODIES)
def test_a_crash_while_the_heap_is_locked_is_reported_from_each_thread(doomed, who):
    doomed.start_daemon(environment=meddled(library="malloc-lock"))
    found = find_threads(doomed)
    doomed.daemon.send_signal(signal.SIGUSR2)
    crash_thread(doomed, found[who])
    assert_ended(doomed)
    assert_in_report(doomed, BODIES[who])


def lock_the_log(machine):
    """Leaves the group's thread in the middle of writing a line."""
    (record,) = machine.wait_records(1)
    machine.hold("fflush")
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_held("fflush")


@pytest.mark.parametrize("who", ["main", "worker"])
def test_a_crash_while_the_log_is_locked_for_a_moment_is_reported(doomed, who):
    doomed.start_daemon(environment={"LD_PRELOAD": FAULTS})
    found = find_threads(doomed)
    lock_the_log(doomed)
    crash_thread(doomed, found[who])
    time.sleep(1.5)  # the report may not be given up too early
    doomed.release("fflush")
    assert_ended(doomed)
    assert_in_report(doomed, BODIES[who])


@late_alarm
@pytest.mark.parametrize("who", ["main", "worker"])
def test_a_crash_while_the_log_is_locked_for_good_ends_the_daemon(doomed, who):
    doomed.start_daemon(environment={"LD_PRELOAD": FAULTS})
    found = find_threads(doomed)
    lock_the_log(doomed)
    crash_thread(doomed, found[who])
    assert_ended(doomed)


@pytest.mark.parametrize("several", [*itertools.permutations(BODIES, 2), tuple(BODIES)], ids="-".join)
def test_threads_that_crash_at_once_end_the_daemon_with_a_report(doomed, several):
    slowest = 0
    for _ in range(size(2, 30)):
        doomed.write_pid_file("77")
        doomed.start_daemon()
        found = find_threads(doomed)
        doomed.daemon.send_signal(signal.SIGSTOP)  # so that none is behind another
        for who in several:
            crash_thread(doomed, found[who])
        begin = time.monotonic()
        doomed.daemon.send_signal(signal.SIGCONT)
        assert_ended(doomed)
        slowest = max(slowest, time.monotonic() - begin)
        assert_in_report(doomed)
        forget(doomed)
    report(f"{' and '.join(several)} crash at once", slowest_end=f"{1000 * slowest:.0f} ms")
    assert slowest < 1.5


@late_alarm
def test_a_second_crash_gives_a_report_that_hangs_no_more_time(doomed):
    doomed.start_daemon(environment={"LD_PRELOAD": FAULTS})
    found = find_threads(doomed)
    lock_the_log(doomed)
    begin = time.monotonic()
    crash_thread(doomed, found["main"])
    time.sleep(1)
    assert doomed.daemon.poll() is None
    crash_thread(doomed, found["worker"])
    assert_ended(doomed)
    assert 1.8 < time.monotonic() - begin < 2.8, "the time of the first report, no less and no more"


@pytest.mark.parametrize("trouble", ["abort", "crash", pytest.param("hang", marks=late_alarm)])
@pytest.mark.parametrize("who", BODIES)
def test_a_report_that_aborts_crashes_or_hangs_ends_the_daemon(doomed, who, trouble):
    doomed.start_daemon(environment=meddled(f"symbols={trouble}"))
    crash_thread(doomed, find_threads(doomed)[who])
    begin = time.monotonic()
    assert_ended(doomed)
    assert trouble == "hang" or time.monotonic() - begin < 1.5
    assert doomed.log_text().endswith(":segfault_handler: ERROR: Catch segfault signal.\n")


@pytest.mark.parametrize("trouble", ["crash", "hang"])
@pytest.mark.parametrize("blocked", [signal.SIGALRM, signal.SIGSEGV])
def test_a_signal_that_was_blocked_at_the_start_does_not_keep_a_report_from_its_end(doomed, blocked, trouble):
    meddling = meddled(f"symbols={trouble}")
    doomed.start_daemon(environment={**meddling, "LD_PRELOAD": f"{FAULTS}:{meddling['LD_PRELOAD']}"},
                        preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {blocked}))
    doomed.fail("dbus_connection_send", -1)  # a fault of its own: a signal sent would wait behind the block
    doomed.caller().send_all([plugin_call("Dummy", "HelloWorld")])
    assert_ended(doomed)
    assert doomed.log_text().endswith(":segfault_handler: ERROR: Catch segfault signal.\n")
