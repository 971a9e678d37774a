# SPDX-License-Identifier: MIT
# test_every_fault.py: each call that can fail does so in each of its places, and every caller still gets a
# reply.
#
# While the daemon serves, no fault may end it: one daemon survives all faults of a call. During set-up it may
# exit, but only with status 1 and a message. The pauses of two seconds are short here, so that relaunches
# come quickly.
import contextlib
import glob
import itertools
import os
import re
import signal
import time

import pytest
from jeepney import HeaderFields

from stress import is_32_bit, report, size
from support.callers import CallFailed, plugin_call, start_call, stop_call
from support.machine import SANITIZER
from support.place import LOG

PLACES = size((1, 2, 3, 4, 5, 7, 10, 15, 25, 50, 100), range(1, 101))

PLACES_OF = {"mmap": size((1,), range(1, 6))}  # one mapping has the stacks of 256 threads
if SANITIZER == "thread":
    PLACES_OF["madvise"] = PLACES_OF["mmap"]  # it leaves every stack in children

REPLYING = ("dbus_message_new_method_return", "dbus_message_append_args", "dbus_connection_send")

# Each call, and the line for its failure while the daemon serves; None if there is no line.
WHILE_SERVING = {
    "memory": r"Unable to allocate memory",
    "library_memory": None,
    "fork": r"Unable to create child process\. Login thread for display \d+$",
    "pthread_create": r"Unable to start thread for (display=\d+, rc=11|event:\d)$",
    "waitpid": None,
    "waitid": None,
    "kill": None,
    "madvise": None,  # a stack that stays in children is no failure, and a refused station has its reply
    "mmap": r"\{DM\} Unable to start thread for event:\d$",
    "select": r"\{II\} Timeout or error occurrs during select\(\) \.\.\.$",
    **dict.fromkeys(REPLYING),
}
DURING_SET_UP = ("memory", "library_memory", "pthread_mutex_init", "fopen", "rename", "select", *REPLYING)
IN_COMMANDS = {
    "memory": r"insufficient memory|already running$",  # a process that cannot be compared counts as running
    "library_memory": None,
    "fork": None,  # the process continues as if it were the child
    "fopen": None,  # the log, the null logger, or the pid file, which may be missing
    "readlink": r"cannot readlink$|already running$",
    "rename": rf"Cannot move old log file from {LOG} to {LOG}\.old$",
    "kill": None,
}


def round_of_calls(machine, caller, display):
    """Sends one call of each kind, to a station that may be new and to two others; each gets one reply."""
    calls = [
        plugin_call("Dummy", "HelloWorld"),
        start_call(f":{display}", "init-station"),
        start_call(":1", "local-login"),
        start_call(":2", "click-mouse"),  # exits at once
        start_call(":1", "local-login"),
        stop_call(":1", "local-login"),
        stop_call(":2", "press-fkey"),
        stop_call(":9999", "xhotkey"),
        plugin_call("DisplayManager", "Start", "s", ":1"),
        plugin_call("DisplayManager", "Launch"),
    ]
    serials = caller.send_all(calls)
    answered = dict.fromkeys(serials, 0)
    while 0 in answered.values():
        try:
            message = caller.connection.receive(timeout=10)
        except TimeoutError:
            silent = [position for position, serial in enumerate(serials) if not answered[serial]]
            raise AssertionError(f"no reply to calls {silent}; log:\n{machine.log_text()[-5000:]}") from None
        serial = message.header.fields.get(HeaderFields.reply_serial)
        if serial in answered:
            answered[serial] += 1
    assert set(answered.values()) == {1}, "more than one reply to a call"


def check_service(machine, caller, display):
    """Starts and stops an actor, as if no call had failed before."""
    known = len(machine.records("corvane-xh"))
    assert caller.hello() == "How are you?"
    assert caller.start(f":{display}", "xhotkey") is True
    record = machine.wait_records(known + 1, "corvane-xh")[-1]
    assert caller.stop(f":{display}", "xhotkey") is True  # signals the child of this start
    machine.wait_gone(record.pid)
    os.unlink(f"/run/stage/actors/records/{record.pid}.json")


# ---- while the daemon serves ----


@pytest.mark.parametrize("call", WHILE_SERVING)
def test_every_caller_gets_a_reply_whatever_call_fails(bare, call):
    if call == "library_memory" and SANITIZER:
        pytest.skip("the sanitizer exits without memory for a thread")
    bare.set_rule("short_pauses")
    bare.behave("corvane-pfk", "exit 0")
    bare.start_bus()
    bare.start_daemon(preloaded=True)
    caller = bare.caller()
    # Not every round has a new station: under a sanitizer each worker takes 8 MiB of address space.
    displays = (number for number in itertools.count(10) for _ in range(25 if is_32_bit() else 5))
    rounds = 0
    for nth in PLACES_OF.get(call, PLACES):
        with open(LOG, "r+") as log:
            log.truncate()
        bare.fail(call, nth)
        deadline = time.monotonic() + 60
        while bare.is_pending(call):
            assert bare.daemon.poll() is None, bare.daemon.stderr.read()
            assert time.monotonic() < deadline, f"there was no {call} number {nth}"
            round_of_calls(bare, caller, next(displays))
            rounds += 1
        if WHILE_SERVING[call]:
            bare.wait_log(WHILE_SERVING[call])
        check_service(bare, caller, 5)
    assert bare.daemon.poll() is None
    report(f"{call} while serving", faults=len(PLACES_OF.get(call, PLACES)), rounds_of_10_calls=rounds)


# ---- during set-up ----


def wait_outcome(machine, caller):
    """Waits until the daemon serves or has exited; returns its exit status. Every call gets a reply.

    The daemon serves after two replies: the first call may have come before the main loop.
    """

    def outcome():
        if machine.daemon.poll() is not None:
            return True
        try:
            return caller.hello() == caller.hello() == "How are you?"
        except CallFailed:  # the name or the object does not exist yet, or the daemon has just exited
            return False

    machine.wait("daemon that serves or is gone", outcome, 40)
    return machine.daemon.poll()


SET_UP_MESSAGES = (
    "{EE}Failed to connect system DBus: ",
    "dbus_connection_set_watch_functions(): ",
    "{EE} dbus_bus_request_name(): ",
    "{EE}dbus_connection_register_object_path(): ",
    "insufficient memory",
)


@pytest.mark.parametrize("call", DURING_SET_UP)
def test_the_daemon_serves_or_exits_with_a_message_whatever_call_fails_during_set_up(bare, call):
    bare.set_rule("short_pauses")
    bare.start_bus()
    caller = bare.caller()
    served = ended = 0
    for nth in PLACES:
        with open(LOG, "w") as log:
            log.write("of the run before\n")
        bare.fail(call, nth)
        bare.daemon = bare.launch(preloaded=True)
        status = wait_outcome(bare, caller)
        has_failed = not bare.remove_rule(call)
        if status is None:
            served += 1
            check_service(bare, caller, 5)
            bare.daemon.kill()
        else:
            ended += 1
        _, errors = bare.daemon.communicate(timeout=10)
        output = bare.log_text() + errors
        if status is not None:
            assert status == 1, f"call {nth} failed; output:\n{output}"
            assert any(message in output for message in SET_UP_MESSAGES), output
        if call == "rename" and has_failed:
            assert "of the run before\n" in output
            assert f"Cannot move old log file from {LOG} to {LOG}.old\n" in output
        for stale in glob.glob("/run/stage/actors/records/*"):
            os.unlink(stale)
        if not has_failed:
            break
    assert served + ended > 1, f"there was no {call}"
    report(f"{call} during set-up", tried=nth, served=served, exited_with_a_message=ended)


# ---- in the commands ----


class Terminal:
    """A pipe for the output of a command and its daemon. It ends when both have exited."""

    def __init__(self):
        self.ours, self.theirs = os.pipe()
        os.set_blocking(self.ours, False)
        self.output = ""
        self.is_over = False

    def launch(self, machine, *options, **launch):
        process = machine.launch(*options, stdout=self.theirs, stderr=self.theirs, **launch)
        os.close(self.theirs)
        return process

    def read(self):
        try:
            while data := os.read(self.ours, 65536):
                self.output += data.decode()
            self.is_over = True
        except BlockingIOError:
            pass
        return self.is_over


@pytest.mark.parametrize("call", IN_COMMANDS)
def test_a_command_ends_and_leaves_no_process_that_hangs_whatever_call_fails(bare, call):
    if (call, SANITIZER) == ("readlink", "address"):
        pytest.skip("it reads links itself, to name memory that was not freed")
    bare.set_rule("short_pauses")
    bare.start_bus()
    caller = bare.caller()
    served = ended = 0
    for nth in PLACES:
        bare.write_pid_file(os.getpid())  # of another process: the daemon reads, compares and replaces it
        with open(LOG, "w") as log:
            log.write("of the run before\n")
        bare.fail(call, nth)
        terminal = Terminal()
        start = terminal.launch(bare, "--start", preloaded=True)

        def outcome():
            start.poll()
            if terminal.read():
                return "ended"
            try:
                return caller.hello() == "How are you?" and "served"
            except CallFailed:
                return None

        output = ""
        if bare.wait("daemon that serves or is gone", outcome, 40) == "served":
            served += 1
            pid = bare.pid_file()
            asked = bare.run("--pid", preloaded=True)
            assert asked.returncode == 0 and asked.stdout.strip() in (pid, "0"), asked
            must_end = not bare.is_pending(call)  # the call failed before the stop
            stop = bare.run("--stop", preloaded=True)
            assert stop.returncode == 0, stop
            output += asked.stderr + stop.stderr
            if not must_end and not bare.is_pending(call):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(int(pid), signal.SIGTERM)  # the stop may have failed
            bare.wait("gone daemon", terminal.read, 5)
        else:
            ended += 1
            assert terminal.output or bare.log_text() != "of the run before\n", f"no output: {call} {nth}"
        start.wait(10)
        output += terminal.output + bare.log_text()
        os.close(terminal.ours)
        if bare.remove_rule(call):
            break
        if IN_COMMANDS[call]:
            assert re.search(IN_COMMANDS[call], output, re.MULTILINE), f"call {nth}; output:\n{output}"
        assert "Catch segfault signal" not in output
    assert served + ended > 1, f"there was no {call}"
    report(f"{call} in --start, --pid and --stop", tried=nth, served=served, ended=ended)


# ---- several faults in a row ----


@pytest.mark.parametrize("length", [20_000, 300_000])
def test_a_call_is_read_as_soon_as_memory_suffices(bare, length):
    bare.start_bus()
    bare.start_daemon(preloaded=True)
    caller = bare.caller()
    for nth in range(1, 13):
        bare.fail("library_memory", nth, count=8)
        assert caller.stop(length * "x", "xhotkey") is False
        bare.remove_rule("library_memory")


def test_the_daemon_waits_while_memory_is_short_and_then_serves(bare):
    # libdbus decides how to wait. Where it wants a pause, the daemon makes one and logs it once.
    bare.set_rule("short_pauses")  # the pauses would take hours
    bare.start_bus()
    outcomes = []
    for nth in range(1, 7):
        bare.start_daemon(preloaded=True)
        caller = bare.caller()
        assert wait_outcome(bare, caller) is None
        bare.fail("library_memory", nth, count=10**9)
        serials = caller.send_all([stop_call(20_000 * "x", "xhotkey")])

        def outcome():
            with open("/run/stage/preload/library_memory") as file:
                place, left = map(int, file.read().split() or (0, 10**9))
            if place == 1 and left < 10**9 - 12_000:  # some hours of pauses
                return "waits"
            return "unanswered" if "{EE} Unable to reply to Stop" in bare.log_text() else None

        outcomes.append(bare.wait("daemon that waits", outcome, 60))
        os.unlink("/run/stage/preload/library_memory")
        if outcomes[-1] == "waits":
            assert caller.replies(serials) == [(False,)]
            assert bare.texts().count("{EE} No memory for the next message") == 1
        assert caller.hello() == "How are you?"
        bare.daemon.kill()
        bare.daemon.communicate()
        os.unlink(LOG)
    assert set(outcomes) <= {"waits", "unanswered"} and "waits" in outcomes, outcomes


def test_a_reply_that_fails_a_thousand_times_is_given_up_and_logged(bare):
    bare.start_bus()
    bare.start_daemon(preloaded=True)
    caller = bare.caller()
    for failing in REPLYING:
        bare.fail(failing, count=999)
        assert caller.hello() == "How are you?"
        bare.fail(failing, count=1000)
        caller.send_all([plugin_call("Dummy", "HelloWorld")])
        bare.wait("last attempt", lambda: not bare.is_pending(failing))
        assert caller.hello() == "How are you?"
    assert bare.logged().count("common/reply.cpp bus_reply: {EE} Unable to reply to HelloWorld") == 3
