# SPDX-License-Identifier: MIT
# test_command_line.py: what the options do, in which order, and what stands on the two output streams.
import socket
import time

import pytest

from support.log import texts_of

USAGE = (
    "\n"
    "corvane-cs: Corvane Control Server\n"
    "\n"
    "Available options:\n"
    "\t--start\tstart corvane-cs in daemon mode\n"
    "\t--stop\tstop corvane-cs daemon\n"
    "\t--pid\treturn pid of corvane-cs daemon\n"
    "\t--enable\tenable the corvane-cs daemon\n"
    "\t--disable\tdisable the corvane-cs daemon\n"
    "\t--purge\tpurge the files assicated with the corvane-cs daemon\n"
    "\t--verbose\tprint a lot of debugging info\n"
    "\n"
)
NO_PID_FILE = "could not open pid file: /var/run/corvane/corvane-cs.pid for reading."


def assert_untouched(machine):
    """Nothing was started and nothing was written."""
    assert machine.logs() == []
    assert machine.pid_file() is None


def test_the_usage_text_has_351_bytes():
    assert len(USAGE.encode()) == 351


@pytest.mark.parametrize("arguments", [
    ["start"],
    ["stop"],
    [""],
    ["start", "--bogus"],
    ["pid", "--pid"],
    ["--verbose", "start"],
    ["-v", ""],
    ["--enable", "--disable", "--purge", "--verbose", "-v", "x", "--stop"],
])
def test_an_argument_without_a_dash_gets_the_usage_text_alone(bare, arguments):
    refused = bare.run(*arguments)
    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", USAGE)
    assert_untouched(bare)


@pytest.mark.parametrize("arguments, unknown", [
    (["--bogus"], "--bogus"),
    (["--bogus", "--pid"], "--bogus"),
    (["-v", "--bogus", "start"], "--bogus"),
    (["-vv"], "-vv"),
    (["--verbose=1"], "--verbose=1"),
    (["-"], "-"),
    (["--"], "--"),
    (["-V"], "-V"),
    (["--star"], "--star"),
    (["--starts"], "--starts"),
    (["--stop "], "--stop "),
    (["--PID"], "--PID"),
    (["--%s%n"], "--%s%n"),
])
def test_an_unknown_option_is_named_before_the_usage_text(bare, arguments, unknown):
    refused = bare.run(*arguments)
    assert (refused.returncode, refused.stdout) == (1, "")
    assert refused.stderr == f"corvane-cs: unknown command line option: {unknown}\n{USAGE}"
    assert_untouched(bare)


def test_the_usage_text_reaches_standard_error_in_one_piece(bare):
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    with ours:
        with theirs:
            process = bare.launch("--bogus", stderr=theirs)
        process.communicate(timeout=10)
        pieces = list(iter(lambda: ours.recv(1024).decode(), ""))
    assert pieces == ["corvane-cs: unknown command line option: --bogus\n", USAGE]


@pytest.mark.parametrize("arguments", [
    ["--pid"],
    ["--pid", "--bogus"],
    ["--pid", "start"],
    ["--pid", ""],
    ["--pid", "--start"],
    ["--pid", "--stop"],
    ["-v", "--enable", "--pid"],
])
def test_pid_without_a_daemon_prints_0_at_once_and_nothing_behind_it_is_looked_at(bare, arguments):
    begin = time.monotonic()
    answer = bare.run(*arguments)
    assert time.monotonic() - begin < 2
    assert (answer.returncode, answer.stdout) == (0, "0\n")
    assert texts_of(answer.stderr) == [NO_PID_FILE]
    assert_untouched(bare)


@pytest.mark.parametrize("arguments", [
    ["--stop"],
    ["--stop", "--bogus"],
    ["--stop", "stop"],
    ["--stop", "--pid"],
    ["--stop", "--start"],
    ["--purge", "--stop"],
])
def test_stop_without_a_daemon_says_so_at_once_and_nothing_behind_it_is_looked_at(bare, arguments):
    begin = time.monotonic()
    answer = bare.run(*arguments)
    assert time.monotonic() - begin < 2
    assert (answer.returncode, answer.stdout) == (0, "")
    assert texts_of(answer.stderr) == [NO_PID_FILE]
    assert_untouched(bare)


@pytest.mark.parametrize("options", [
    [],
    ["--enable"],
    ["--disable"],
    ["--purge"],
    ["--verbose"],
    ["-v"],
    ["--enable", "--disable", "--purge", "--verbose", "-v", "--enable"],
])
def test_the_daemon_serves_in_the_foreground_with_no_option_and_with_those_that_do_nothing(bare, options):
    bare.start_bus()
    daemon = bare.start_daemon(*options)
    assert bare.caller().hello() == "How are you?"
    assert bare.pid_file() is None
    assert len(bare.log()) == 17  # as many lines with an option as without: 15 of the start, 2 of the call
    daemon.terminate()
    stdout, stderr = daemon.communicate(timeout=10)
    assert (daemon.returncode, stdout, stderr) == (-15, "", "")


@pytest.mark.parametrize("options, listed", [
    ([], []),
    (["--enable"], []),
    (["-v"], ["#1 station: display_num=1, type=1", "#1 station: display_num=1, type=1",
              "#2 station: display_num=2, type=3"]),
    (["--purge", "--verbose"], ["#1 station: display_num=1, type=1", "#1 station: display_num=1, type=1",
                                "#2 station: display_num=2, type=3"]),
])
def test_a_verbose_daemon_lists_its_stations(bare, options, listed):
    bare.start_bus()
    bare.start_daemon(*options)
    caller = bare.caller()
    assert caller.start(":1", "init-station", "COMMON") is True
    assert caller.start(":2", "init-station", "USB") is True
    assert [text for text in bare.texts() if text.startswith("#")] == listed
