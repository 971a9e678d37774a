# SPDX-License-Identifier: MIT
# test_crash_threads.py: a crash is reported in any thread and any call, and when several threads crash.
#
# Either a call writes through a null pointer, or a waiting thread gets a signal. Other threads may hold locks
# that the report needs.
import itertools
import os
import signal
import time

import pytest

from crash import FRAME, crash_thread
from stress import report, size
from support.callers import CallFailed, plugin_call, start_call, stop_call
from support.machine import SANITIZER, not_under_a_sanitizer
from support.place import LOG
from support.processes import stat_of

late_alarm = not_under_a_sanitizer("it delays the alarm in calls that it does not intercept", "thread")
CRASH = ":segfault_handler: ERROR: Catch segfault signal."
TROUBLES = {"abort": "abort", "crash": -1, "hang": 0}  # rules for the function that writes the frames
BODIES = {"main": "main", "worker": "process_station_events", "group": "method_start_thread"}


@pytest.fixture
def doomed(bare):
    """A machine with a bus and a pid file, but without a daemon."""
    bare.start_bus()
    bare.write_pid_file("77")
    return bare


def forget(machine):
    """Removes the files of a daemon that exited, once the bus has released its name."""
    caller = machine.caller()

    def is_released():
        with pytest.raises(CallFailed) as failure:
            caller.hello()
        return failure.value.args[0] == "org.freedesktop.DBus.Error.ServiceUnknown"

    machine.wait("gone name", is_released)
    machine.daemon.stdout.close()
    machine.daemon.stderr.close()
    os.unlink(LOG)
    for name in os.listdir("/run/stage/actors/records"):
        os.unlink(f"/run/stage/actors/records/{name}")


def find_threads(machine):
    """Starts one station with one actor; returns the thread for each of BODIES."""
    caller = machine.caller()
    known = machine.threads()
    assert known == {machine.daemon.pid}
    assert caller.start(":1", "init-station") is True
    machine.wait_log("No action needed")
    machine.wait("end of the other thread", lambda: len(machine.threads()) == 2)
    (worker,) = machine.threads() - known
    assert caller.start(":1", "xhotkey") is True
    machine.wait_log("child=")
    (group,) = machine.threads() - known - {worker}
    found = {"main": machine.daemon.pid, "worker": worker, "group": group}
    for thread in found.values():
        machine.wait("sleeping thread", lambda: stat_of(f"{machine.daemon.pid}/task/{thread}")[0] == "S")
    return found


def assert_ended(machine):
    assert machine.daemon.wait(3) == 1
    assert machine.pid_file() is None


def assert_in_report(machine, *functions):
    """After the line of the crash come at least three frames with names, and these functions are among them.

    Other threads run until the daemon exits, so their lines may come in between.
    """
    lines = machine.log_text().splitlines()
    errors = [n for n, line in enumerate(lines) if line.endswith(CRASH)]
    assert errors, lines[-20:]
    first = errors[0]
    named = [frame[1] for frame in map(FRAME.fullmatch, lines[first:]) if frame and frame[1]]
    assert len(named) >= 3, lines[first:]
    for function in ("segfault_handler", *functions):
        assert any(function in name for name in named), named


@pytest.mark.parametrize(
    "call, function",
    [
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
    ],
)
def test_a_write_through_a_null_pointer_is_reported_in_any_call(doomed, call, function):
    for _ in range(size(1, 5)):
        doomed.write_pid_file("77")
        doomed.behave("corvane-pfk", "exit 0")
        doomed.start_daemon(preloaded=True)
        doomed.set_rule(call, -1)
        caller = doomed.caller()
        for display in (":1", ":2", ":3"):
            caller.send_all(
                [
                    start_call(display, "xhotkey"),
                    start_call(display, "click-mouse"),
                    stop_call(display, "xhotkey"),
                ]
            )
        assert_ended(doomed)
        assert_in_report(doomed, function)
        forget(doomed)


@not_under_a_sanitizer("it has its own heap, and the rule locks that of the C library")
@pytest.mark.parametrize("who", BODIES)
def test_a_crash_while_the_heap_is_locked_is_reported_from_each_thread(doomed, who):
    doomed.start_daemon(preloaded=True)
    found = find_threads(doomed)
    doomed.set_rule("heap")
    crash_thread(doomed, found[who])
    assert_ended(doomed)
    assert_in_report(doomed, BODIES[who])


def lock_the_log(machine):
    """Makes the group's thread wait while it writes a line."""
    (record,) = machine.wait_records(1)
    machine.hold("fflush")
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_held("fflush")


@pytest.mark.parametrize("who", ["main", "worker"])
def test_a_crash_while_another_thread_holds_the_log_for_a_moment_is_reported(doomed, who):
    doomed.start_daemon(preloaded=True)
    found = find_threads(doomed)
    lock_the_log(doomed)
    crash_thread(doomed, found[who])
    time.sleep(1)  # the handler must not give up too early
    doomed.release("fflush")
    assert_ended(doomed)
    assert_in_report(doomed, BODIES[who])


@late_alarm
@pytest.mark.parametrize("who", ["main", "worker"])
def test_the_daemon_exits_after_a_crash_although_another_thread_holds_the_log(doomed, who):
    doomed.start_daemon(preloaded=True)
    found = find_threads(doomed)
    lock_the_log(doomed)
    crash_thread(doomed, found[who])
    assert_ended(doomed)


@pytest.mark.parametrize("several", [*itertools.permutations(BODIES, 2), tuple(BODIES)], ids="-".join)
def test_threads_that_crash_at_the_same_time_leave_a_report(doomed, several):
    slowest = 0
    for _ in range(size(2, 30)):
        doomed.write_pid_file("77")
        doomed.start_daemon()
        found = find_threads(doomed)
        doomed.wait_records(1)
        doomed.daemon.send_signal(signal.SIGSTOP)  # so that all crash at the same time
        for who in several:
            crash_thread(doomed, found[who])
        begin = time.monotonic()
        doomed.daemon.send_signal(signal.SIGCONT)
        assert_ended(doomed)
        slowest = max(slowest, time.monotonic() - begin)
        assert_in_report(doomed)
        assert len(doomed.running()) == 1, "the actor does not survive"
        forget(doomed)
    report(f"{' and '.join(several)} crash", slowest_end=f"{1000 * slowest:.0f} ms")
    assert slowest < 1.5


@late_alarm
def test_a_second_crash_does_not_extend_the_deadline_of_the_first_report(doomed):
    doomed.start_daemon(preloaded=True)
    found = find_threads(doomed)
    lock_the_log(doomed)
    begin = time.monotonic()
    crash_thread(doomed, found["main"])
    time.sleep(1)
    assert doomed.daemon.poll() is None
    crash_thread(doomed, found["worker"])
    assert_ended(doomed)
    assert 1.8 < time.monotonic() - begin < 2.8, "the second crash must share the first one's deadline"


@pytest.mark.parametrize("trouble", ["abort", "crash", pytest.param("hang", marks=late_alarm)])
@pytest.mark.parametrize("who", BODIES)
def test_the_daemon_exits_when_the_report_aborts_crashes_or_hangs(doomed, who, trouble):
    doomed.set_rule("backtrace_symbols_fd", TROUBLES[trouble])
    doomed.start_daemon(preloaded=True)
    crash_thread(doomed, find_threads(doomed)[who])
    begin = time.monotonic()
    assert_ended(doomed)
    assert trouble == "hang" or time.monotonic() - begin < 1.5
    assert doomed.log_text().endswith(f"{CRASH}\n")


@pytest.mark.parametrize("trouble", ["crash", "hang"])
@pytest.mark.parametrize("blocked", [signal.SIGALRM, signal.SIGSEGV])
def test_a_failing_report_ends_although_a_signal_was_blocked_at_the_start(doomed, blocked, trouble):
    doomed.set_rule("backtrace_symbols_fd", TROUBLES[trouble])
    doomed.start_daemon(
        preloaded=True, preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {blocked})
    )
    doomed.set_rule("dbus_connection_send", -1)  # a signal from outside would stay blocked
    doomed.caller().send_all([plugin_call("Dummy", "HelloWorld")])
    assert_ended(doomed)
    assert doomed.log_text().endswith(f"{CRASH}\n")
