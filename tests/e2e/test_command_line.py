# SPDX-License-Identifier: MIT
# test_command_line.py: the effect and the output of the options.
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
    """No daemon was started and no file was written."""
    assert machine.logs() == []
    assert machine.pid_file() is None


@pytest.mark.parametrize(
    "arguments",
    [
        ["start"],
        ["stop"],
        [""],
        ["start", "--bogus"],
        ["pid", "--pid"],
        ["--verbose", "start"],
        ["-v", ""],
        ["--enable", "--disable", "--purge", "--verbose", "-v", "x", "--stop"],
    ],
)
def test_an_argument_without_a_dash_prints_only_the_usage_text(bare, arguments):
    refused = bare.run(*arguments)
    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", USAGE)
    assert_untouched(bare)


@pytest.mark.parametrize(
    "arguments, unknown",
    [
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
    ],
)
def test_an_unknown_option_is_named_before_the_usage_text(bare, arguments, unknown):
    refused = bare.run(*arguments)
    assert (refused.returncode, refused.stdout) == (1, "")
    assert refused.stderr == f"corvane-cs: unknown command line option: {unknown}\n{USAGE}"
    assert_untouched(bare)


def test_the_usage_text_is_one_write_to_standard_error(bare):
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    with ours:
        with theirs:
            process = bare.launch("--bogus", stderr=theirs)
        process.communicate(timeout=10)
        pieces = list(iter(lambda: ours.recv(1024).decode(), ""))
    assert pieces == ["corvane-cs: unknown command line option: --bogus\n", USAGE]


@pytest.mark.parametrize(
    "arguments",
    [
        ["--pid"],
        ["--pid", "--bogus"],
        ["--pid", "start"],
        ["--pid", ""],
        ["--pid", "--start"],
        ["--pid", "--stop"],
        ["-v", "--enable", "--pid"],
    ],
)
def test_pid_without_a_daemon_prints_0_at_once_and_ignores_later_arguments(bare, arguments):
    begin = time.monotonic()
    answer = bare.run(*arguments)
    assert time.monotonic() - begin < 2
    assert (answer.returncode, answer.stdout) == (0, "0\n")
    assert texts_of(answer.stderr) == [NO_PID_FILE]
    assert_untouched(bare)


@pytest.mark.parametrize(
    "arguments",
    [
        ["--stop"],
        ["--stop", "--bogus"],
        ["--stop", "stop"],
        ["--stop", "--pid"],
        ["--stop", "--start"],
        ["--purge", "--stop"],
    ],
)
def test_stop_without_a_daemon_reports_it_at_once_and_ignores_later_arguments(bare, arguments):
    begin = time.monotonic()
    answer = bare.run(*arguments)
    assert time.monotonic() - begin < 2
    assert (answer.returncode, answer.stdout) == (0, "")
    assert texts_of(answer.stderr) == [NO_PID_FILE]
    assert_untouched(bare)


@pytest.mark.parametrize(
    "options",
    [
        [],
        ["--enable"],
        ["--disable"],
        ["--purge"],
        ["--verbose"],
        ["-v"],
        ["--enable", "--disable", "--purge", "--verbose", "-v", "--enable"],
    ],
)
def test_the_daemon_serves_in_the_foreground_without_options_and_with_options_that_do_nothing(bare, options):
    bare.start_bus()
    daemon = bare.start_daemon(*options)
    assert bare.caller().hello() == "How are you?"
    assert bare.pid_file() is None
    assert len(bare.log()) == 17  # 15 for the start and 2 for the call, with and without options
    daemon.terminate()
    stdout, stderr = daemon.communicate(timeout=10)
    assert (daemon.returncode, stdout, stderr) == (-15, "", "")
