# SPDX-License-Identifier: MIT
# test_every_fault.py: each call that can fail does, at each of its places, and every caller still hears an answer.
#
# Two sweeps over the calls that faults.c can spoil. While the daemon serves, nothing may end it: the same daemon goes
# through all the faults of a call. While it sets itself up it may give up, but then with status 1 and a message.
# Pauses of two seconds are cut short, so that a dying actor brings the calls of a relaunch round quickly.
import contextlib
import glob
import itertools
import os
import re
import signal
import time

import pytest
from jeepney import HeaderFields

from support.callers import CallFailed, plugin_call
from support.machine import FAULTS, SANITIZER, meddled, not_under_a_sanitizer
from support.place import LOG
from stress import is_32_bit, report, size, start_call, stop_call

PLACES = size((1, 2, 3, 4, 5, 7, 10, 15, 25, 50, 100), range(1, 101))

PLACES_OF = {"mmap": size((1,), range(1, 6))}  # one mapping holds the stacks of 256 threads
if SANITIZER == "thread":
    PLACES_OF["madvise"] = PLACES_OF["mmap"]  # it keeps every stack in children

# Each call with what the log says of its failure while the daemon serves; None where nothing is to be said.
WHILE_SERVING = {
    "memory": r"Unable to allocate memory",
    "library_memory": None,
    "fork": r"Unable to create child process\. Login thread for display \d+$",
    "pthread_create": r"Unable to start thread for (display=\d+, rc=11|event:\d)$",
    "waitpid": None,
    "waitid": None,
    "kill": None,
    "madvise": None,  # a stack that cannot be hidden again is no failure
    "mmap": r"\{DM\} Unable to start thread for event:\d$",
    "select": r"\{II\} Timeout or error occurrs during select\(\) \.\.\.$",
    "dbus_message_new_method_return": None,
    "dbus_message_append_args": None,
    "dbus_connection_send": None,
}
DURING_SET_UP = ("memory", "library_memory", "pthread_mutex_init", "fopen", "rename", "select",
                 "dbus_message_new_method_return", "dbus_message_append_args", "dbus_connection_send")
IN_COMMANDS = {
    "memory": r"insufficient memory|already running$",  # what cannot be compared counts as running
    "library_memory": None,
    "fork": None,  # its process goes on in the child's place
    "fopen": None,  # the log itself, a logger that is silent anyway, or a file that need not be there
    "readlink": r"cannot readlink$|already running$",
    "rename": rf"Cannot move old log file from {LOG} to {LOG}\.old$",
    "kill": None,
}


def put_faults(machine):
    os.mkdir("/run/stage/faults")
    with open("/run/stage/faults/short_pauses", "w"):
        pass


def is_pending(call):
    return os.path.exists(f"/run/stage/faults/{call}")


def round_of_calls(machine, caller, display):
    """One of each kind of call, on a station that may be new and on two others; each gets one answer."""
    serials = caller.send_all([
        plugin_call("Dummy", "HelloWorld"),
        start_call(display, "init-station"),
        start_call(1, "local-login"),
        start_call(2, "click-mouse"),  # exits at once
        start_call(1, "local-login"),
        stop_call(1, "local-login"),
        stop_call(2, "press-fkey"),
        stop_call(9999, "xhotkey"),
        plugin_call("DisplayManager", "Start", "s", ":1"),
        plugin_call("DisplayManager", "Launch"),
    ])
    answered = dict.fromkeys(serials, 0)
    while 0 in answered.values():
        try:
            message = caller.connection.receive(timeout=10)
        except TimeoutError:
            silent = [position for position, serial in enumerate(serials) if not answered[serial]]
            raise AssertionError(f"no answer to calls {silent}; the log:\n{machine.log_text()[-5000:]}") from None
        serial = message.header.fields.get(HeaderFields.reply_serial)
        if serial in answered:
            answered[serial] += 1
    assert set(answered.values()) == {1}, "more than one answer to a call"


def check_service(machine, caller, display):
    """An actor can be started and stopped as if nothing had ever failed."""
    known = len(machine.records("corvane-xh"))
    assert caller.hello() == "How are you?"
    assert caller.start(f":{display}", "xhotkey") is True
    record = machine.wait_records(known + 1, "corvane-xh")[-1]
    assert caller.stop(f":{display}", "xhotkey") is True  # finds the child of the start before it
    machine.wait_gone(record.pid)
    os.unlink(f"/run/stage/actors/records/{record.pid}.json")


# ---- while it serves ----


@pytest.mark.parametrize("call", [
    pytest.param(call, marks=not_under_a_sanitizer("it ends the process when it has no memory for a thread"))
    if call == "library_memory" else call for call in WHILE_SERVING])
def test_whatever_fails_while_it_serves_no_caller_goes_without_an_answer(bare, call):
    put_faults(bare)
    bare.behave("corvane-pfk", "exit 0")
    bare.start_bus()
    bare.start_daemon(environment={"LD_PRELOAD": FAULTS})
    caller = bare.caller()
    # A new station each so many rounds: under a sanitizer its worker takes 8 MiB of address space.
    displays = (number for number in itertools.count(10) for _ in range(25 if is_32_bit() else 5))
    rounds = 0
    for nth in PLACES_OF.get(call, PLACES):
        with open(LOG, "r+") as log:
            log.truncate()
        bare.fail(call, nth)
        deadline = time.monotonic() + 60
        while is_pending(call):
            assert bare.daemon.poll() is None, f"it ended with {bare.daemon.returncode}: {bare.daemon.stderr.read()}"
            assert time.monotonic() < deadline, f"the {nth}th {call} did not come"
            round_of_calls(bare, caller, next(displays))
            rounds += 1
        if WHILE_SERVING[call]:
            bare.wait_log(WHILE_SERVING[call])
        check_service(bare, caller, 5)
    assert bare.daemon.poll() is None
    assert os.path.exists(f"/proc/{bare.daemon.pid}")
    report(f"{call} while serving", faults=len(PLACES_OF.get(call, PLACES)), rounds_of_10_calls=rounds)


# ---- while it sets itself up ----


def wait_outcome(machine, caller):
    """Waits until the daemon serves or has ended; returns its status then. Every call on the way is answered.

    It serves when it has answered twice: the first of the calls may have come before it first waits for one.
    """

    def outcome():
        if machine.daemon.poll() is not None:
            return True
        try:
            return caller.hello() == caller.hello() == "How are you?"
        except CallFailed:  # nobody has the name yet, or the object is not there yet, or the daemon has just ended
            return False

    machine.wait("the daemon to serve or to be gone", outcome, 40)
    return machine.daemon.poll()


SET_UP_MESSAGES = (
    "{EE}Failed to connect system DBus: ",
    "dbus_connection_set_watch_functions(): ",
    "{EE} dbus_bus_request_name(): ",
    "{EE}dbus_connection_register_object_path(): ",
    "insufficient memory",
)


@pytest.mark.parametrize("call", DURING_SET_UP)
def test_whatever_fails_during_set_up_it_serves_or_ends_with_a_message(bare, call):
    put_faults(bare)
    bare.start_bus()
    caller = bare.caller()
    served = ended = 0
    for nth in PLACES:
        with open(LOG, "w") as log:
            log.write("of the run before\n")
        bare.fail(call, nth)
        bare.daemon = bare.launch(environment={"LD_PRELOAD": FAULTS})
        status = wait_outcome(bare, caller)
        came = not is_pending(call)
        if not came:
            os.unlink(f"/run/stage/faults/{call}")
        if status is None:
            served += 1
            check_service(bare, caller, 5)
            bare.daemon.kill()
        else:
            ended += 1
        _, errors = bare.daemon.communicate(timeout=10)
        said = bare.log_text() + errors
        if status is not None:
            assert status == 1 and any(message in said for message in SET_UP_MESSAGES), (
                f"status {status} after the {nth}th {call} failed; it said:\n{said}")
        if call == "rename" and came:
            assert "of the run before\n" in said
            assert f"Cannot move old log file from {LOG} to {LOG}.old\n" in said
        for stale in glob.glob("/run/stage/actors/records/*"):
            os.unlink(stale)
        if not came:
            break
    assert served + ended > 1, f"no {call} came at all"
    report(f"{call} during set-up", tried=nth, served=served, ended_with_a_message=ended)


# ---- in the commands ----


class Terminal:
    """A pipe for all that a command and the daemon behind it say; at its end all of them are gone."""

    def __init__(self):
        self.ours, self.theirs = os.pipe()
        os.set_blocking(self.ours, False)
        self.said = ""
        self.is_over = False

    def launch(self, machine, *options, **launch):
        process = machine.launch(*options, stdout=self.theirs, stderr=self.theirs, **launch)
        os.close(self.theirs)
        return process

    def read(self):
        try:
            while data := os.read(self.ours, 65536):
                self.said += data.decode()
            self.is_over = True
        except BlockingIOError:
            pass
        return self.is_over


@pytest.mark.parametrize("call", IN_COMMANDS)
def test_whatever_fails_in_a_command_it_ends_and_leaves_nothing_that_hangs(bare, call):
    if (call, SANITIZER) == ("readlink", "address"):
        pytest.skip("it reads links itself, for the names of what was not freed")
    put_faults(bare)
    bare.start_bus()
    caller = bare.caller()
    faulty = {"LD_PRELOAD": FAULTS}
    served = ended = 0
    for nth in PLACES:
        bare.write_pid_file(os.getpid())  # somebody else's: it is read, compared and replaced
        with open(LOG, "w") as log:
            log.write("of the run before\n")
        bare.fail(call, nth)
        terminal = Terminal()
        start = terminal.launch(bare, "--start", environment=faulty)

        def outcome():
            start.poll()
            if terminal.read():
                return "ended"
            try:
                return caller.hello() == "How are you?" and "served"
            except CallFailed:
                return None

        said = ""
        if bare.wait("the daemon to serve or to be gone", outcome, 40) == "served":
            served += 1
            pid = bare.pid_file()
            asked = bare.run("--pid", environment=faulty)
            assert asked.returncode == 0 and asked.stdout.strip() in (pid, "0"), asked
            must_end = not is_pending(call)  # what failed, failed before the stop
            stop = bare.run("--stop", environment=faulty)
            assert stop.returncode == 0, stop
            said += asked.stderr + stop.stderr
            if not must_end and not is_pending(call):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(int(pid), signal.SIGTERM)  # the stop may have failed
            bare.wait("the daemon to be gone", terminal.read, 5)
        else:
            ended += 1
            assert terminal.said or bare.log_text() != "of the run before\n", f"ended without a word: {call} {nth}"
        start.wait(10)
        said += terminal.said + bare.log_text()
        os.close(terminal.ours)
        if is_pending(call):
            os.unlink(f"/run/stage/faults/{call}")
            break
        if IN_COMMANDS[call]:
            assert re.search(IN_COMMANDS[call], said, re.MULTILINE), f"the {nth}th {call} failed; said:\n{said}"
        assert "Catch segfault signal" not in said
    assert served + ended > 1, f"no {call} came at all"
    report(f"{call} in --start, --pid and --stop", tried=nth, served=served, ended=ended)


# ---- more than one at a time ----


@pytest.mark.parametrize("length", [20_000, 300_000])
def test_a_call_that_memory_is_too_short_to_read_is_read_as_soon_as_there_is_memory(bare, length):
    bare.start_bus()
    bare.start_faulty_daemon()
    caller = bare.caller()
    for nth in range(1, 13):
        bare.fail("library_memory", f"{nth} 8")
        assert caller.stop(length * "x", "xhotkey") is False
        if is_pending("library_memory"):
            os.unlink("/run/stage/faults/library_memory")


def test_while_memory_stays_too_short_the_daemon_waits_for_it_and_then_serves(bare):
    """How it waits is the bus library's choice; where that asks for a pause, the daemon makes it and says so once."""
    put_faults(bare)
    bare.start_bus()
    meddling = meddled("usleep=short")  # or it would take hours
    outcomes = []
    for nth in range(1, 7):
        bare.start_daemon(environment={**meddling, "LD_PRELOAD": f"{FAULTS}:{meddling['LD_PRELOAD']}"})
        caller = bare.caller()
        assert wait_outcome(bare, caller) is None
        bare.fail("library_memory", f"{nth} {10**9}")
        serials = caller.send_all([plugin_call("DisplayManager", "Stop", "ss", 20_000 * "x", "xhotkey")])

        def outcome():
            with open("/run/stage/faults/library_memory") as file:
                place, left = map(int, file.read().split() or (0, 10**9))
            if place == 1 and left < 10**9 - 12_000:  # some hours of pauses
                return "waits"
            return "unanswered" if "{EE} Unable to reply to Stop" in bare.log_text() else None

        outcomes.append(bare.wait("the daemon to wait", outcome, 60))
        os.unlink("/run/stage/faults/library_memory")
        if outcomes[-1] == "waits":
            assert caller.replies(serials) == [(False,)]
            assert bare.texts().count("{EE} No memory for the next message") == 1
        assert caller.hello() == "How are you?"
        bare.daemon.kill()
        bare.daemon.communicate()
        os.unlink(LOG)
    assert set(outcomes) <= {"waits", "unanswered"} and "waits" in outcomes, outcomes


def test_an_answer_that_cannot_be_made_in_a_thousand_attempts_is_given_up_with_a_line_in_the_log(bare):
    bare.start_bus()
    bare.start_faulty_daemon()
    caller = bare.caller()
    for failing in ("dbus_message_new_method_return", "dbus_message_append_args", "dbus_connection_send"):
        bare.fail(failing, "1 999")
        assert caller.hello() == "How are you?"
        bare.fail(failing, "1 1000")
        caller.send_all([plugin_call("Dummy", "HelloWorld")])
        bare.wait("the last attempt", lambda: not is_pending(failing))
        assert caller.hello() == "How are you?"
    assert bare.texts().count("{EE} Unable to reply to HelloWorld") == 3


@pytest.mark.parametrize("pages", size((1, 2, 4), range(1, 101)))
def test_a_log_that_is_full_stops_nobody(bare, pages):
    bare.mount("-t", "tmpfs", "-o", f"size={pages * os.sysconf('SC_PAGE_SIZE')}", "tmpfs", "/var/log")
    bare.start_bus()
    bare.daemon = bare.launch()
    caller = bare.caller()
    assert wait_outcome(bare, caller) is None
    displays = itertools.count(10)

    def is_full():
        round_of_calls(bare, caller, next(displays))
        return os.statvfs("/var/log").f_bavail == 0

    bare.wait("a full log", is_full, 30)
    round_of_calls(bare, caller, next(displays))
    check_service(bare, caller, 5)
