# SPDX-License-Identifier: MIT
# test_crash.py: a segmentation fault leaves a report in the log, no pid file, and the exit status 1.
import os
import signal
import time
from pathlib import Path

import pytest

from crash import FRAME, SIGNAL_DELAYED, crash_thread
from support.log import Line
from support.machine import not_under_a_sanitizer
from support.place import LOG

pytestmark = not_under_a_sanitizer(SIGNAL_DELAYED, "thread")


def report(machine):
    """The line of the crash, and the names in the frames that follow it to the end of the log."""
    lines = machine.log_text().splitlines()
    (begin,) = [n for n, line in enumerate(lines) if "Catch" in line]
    crash, *rest = lines[begin:]
    frames = [FRAME.fullmatch(line) for line in rest]
    assert all(frames), rest
    return Line(crash), [frame[1] for frame in frames if frame[1]]


def assert_reported(machine, *functions):
    """The daemon exits with 1 at once, the pid file is gone, and the report names these functions."""
    begin = time.monotonic()
    assert machine.daemon.wait(3) == 1
    assert time.monotonic() - begin < 1.5
    assert machine.pid_file() is None
    line, names = report(machine)
    assert (line.file, line.function, line.level) == ("cs/corvane-cs.cpp", "segfault_handler", "ERROR")
    assert line.text == "Catch segfault signal."
    assert len(names) >= 3
    for function in functions:
        assert any(function in name for name in names), names


@pytest.fixture
def doomed(bare):
    """A machine with a daemon in the foreground and a pid file that this daemon did not write."""
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon()
    return bare


def test_a_crash_of_the_main_thread_is_reported_and_removes_the_pid_file(doomed):
    doomed.daemon.send_signal(signal.SIGSEGV)
    assert_reported(doomed, "segfault_handler", "main")
    assert doomed.daemon.communicate() == ("", "")
    assert "Finalize" not in doomed.log_text()


def test_a_daemon_that_crashed_can_be_started_again_at_once(bare):
    bare.start_bus()
    bare.daemonise("--start")
    bare.wait_log(r"Start mainloop")
    crashed = int(bare.pid_file())
    os.kill(crashed, signal.SIGSEGV)
    bare.wait_gone(crashed)
    assert bare.pid_file() is None
    assert bare.terminal() == ""
    begin = time.monotonic()
    bare.daemonise("--start")
    bare.wait("new pid file", bare.pid_file)
    assert time.monotonic() - begin < 2
    bare.wait("moved log", lambda: os.path.exists(LOG + ".old"))
    bare.wait_log(r"Start mainloop")
    assert "Catch segfault signal." in Path(LOG + ".old").read_text()


@pytest.mark.parametrize(
    "step, function",
    [("dbus_bus_get", "ccs_get_system_conn"), ("dbus_bus_request_name", "ccs_request_service_name")],
)
def test_a_crash_before_the_first_message_is_reported(bare, step, function):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.hold(step)
    bare.daemon = bare.launch(preloaded=True)
    bare.wait_held(step)
    bare.daemon.send_signal(signal.SIGSEGV)
    assert_reported(bare, "segfault_handler", function, "main")


def test_the_report_is_complete_before_the_pid_file_is_removed(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.hold("unlink")
    bare.start_daemon(preloaded=True)
    bare.daemon.send_signal(signal.SIGSEGV)
    bare.wait_held("unlink")
    reported = bare.log_text()
    line, names = report(bare)
    assert line.text == "Catch segfault signal."
    assert len(names) >= 3
    assert bare.pid_file() == "77"
    bare.release("unlink")
    assert_reported(bare)
    assert bare.log_text() == reported


def test_a_crash_without_a_log_is_reported_on_standard_error(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.fail("memory")  # the memory of the logger
    bare.daemon = bare.launch(preloaded=True)
    bare.wait_service()
    bare.daemon.send_signal(signal.SIGSEGV)
    begin = time.monotonic()
    output, errors = bare.daemon.communicate(timeout=3)
    assert time.monotonic() - begin < 1.5
    assert (bare.daemon.returncode, output) == (1, "")
    first, *rest = errors.splitlines()
    assert first == "insufficient memory"
    frames = [FRAME.fullmatch(line) for line in rest]
    assert all(frames), errors
    assert sum("segfault_handler" in frame[1] for frame in frames) == 1
    assert len(frames) >= 3
    assert bare.logs() == []
    assert bare.pid_file() is None


def test_a_crash_with_a_silent_log_removes_the_pid_file_and_exits_with_1(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    os.mkdir(LOG)
    bare.hold("dbus_bus_request_name")
    daemon = bare.daemon = bare.launch(preloaded=True)
    bare.wait_held("dbus_bus_request_name")
    daemon.send_signal(signal.SIGSEGV)
    assert daemon.wait(3) == 1
    assert daemon.communicate() == ("", "")
    assert bare.pid_file() is None
    assert os.listdir(LOG) == []


def test_a_crash_on_a_full_disk_removes_the_pid_file_and_exits_with_1(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.mount("-t", "tmpfs", "-o", "size=64k", "none", "/var/log")
    bare.start_daemon()
    with open("/var/log/filler", "wb", buffering=0) as filler:
        with pytest.raises(OSError):
            while True:
                filler.write(bytes(4096))
    bare.daemon.send_signal(signal.SIGSEGV)
    assert bare.daemon.wait(3) == 1
    assert bare.daemon.communicate() == ("", "")
    assert bare.pid_file() is None


def test_a_crash_of_a_child_is_not_reported_and_leaves_the_pid_file(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.set_rule("fork", "crash")
    bare.start_daemon(preloaded=True)
    caller = bare.caller()
    assert caller.start(":1", "xhotkey") is True
    bare.wait_log("Child process died", count=2)
    assert "Catch segfault signal." not in bare.log_text()
    assert bare.pid_file() == "77"
    assert caller.hello() == "How are you?"


def test_a_pid_file_written_after_the_report_is_left_alone(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.hold("exit")
    bare.start_daemon(preloaded=True)
    bare.daemon.send_signal(signal.SIGSEGV)
    bare.wait_held("exit")
    assert bare.pid_file() is None
    bare.write_pid_file("88")  # like the next daemon
    assert bare.daemon.wait(4) == 1
    assert bare.pid_file() == "88"


PAINT = b"\xa5"  # preload/system.c
PAGE = os.sysconf("SC_PAGE_SIZE")


def depths(machine):
    """Of each thread so far, in order of creation: its id, the size of its stack and the used depth."""
    found = []
    with open("/run/stage/stacks") as stacks, open(f"/proc/{machine.daemon.pid}/mem", "rb", 0) as memory:
        for thread, lowest, size in (map(int, line.split()) for line in stacks):
            memory.seek(lowest + PAGE)  # the lowest page may be a guard
            used = memory.read(size - PAGE).lstrip(PAINT)
            found.append((thread, size, len(used)))
    return found


@not_under_a_sanitizer("it uses the stacks, too")
@pytest.mark.parametrize("place", ["worker", "group"])
def test_no_thread_uses_more_than_half_of_its_stack_even_for_a_crash_report(bare, place):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.set_rule("paint")
    bare.start_daemon("--verbose", preloaded=True, environment={"TZ": "America/New_York"})
    caller = bare.caller()
    for count, actor in enumerate(("disable-station", "local-login", "click-mouse"), 1):
        assert caller.start(":2147483647", actor) is True
        bare.wait_records(count)
        bare.wait_log("child=", count)
        if count < 3:
            assert caller.stop(":2147483647", actor) is True
            bare.wait_log("keep_alive field is FALSE", count)
    served = depths(bare)
    threads = {"worker": served[0][0], "group": served[-1][0]}
    bare.hold("unlink")
    crash_thread(bare, threads[place])
    bare.wait_held("unlink")  # the report is complete
    crashed = {thread: (size, depth) for thread, size, depth in depths(bare)}
    size, depth = crashed[threads[place]]
    serving = next(deep for thread, _, deep in served if thread == threads[place])
    print(f"\n  {place}: {serving} bytes while it serves, {depth} with a crash report, of {size}", flush=True)
    assert len(served) == 4 and size == 65536
    assert 1000 < serving < depth <= size // 2
    bare.release("unlink")
    assert bare.daemon.wait(3) == 1


@not_under_a_sanitizer("it uses the stacks, too")
def test_no_child_uses_more_than_half_of_its_stack(bare):
    # About the longest PATH that execvp accepts. It has no programs.
    path = ":".join(f"/run/{number:0>200}" for number in range(19))
    bare.start_bus()
    bare.set_rule("paint")
    bare.start_daemon(preloaded=True, environment={"PATH": path})
    assert bare.caller().start(":2147483647", "xhotkey") is True
    bare.wait_log("Child process died")
    with open("/run/stage/stacks-of-children") as stacks:
        _, _, size, depth = map(int, stacks.readline().split())
    print(f"\n  child: {depth} bytes of {size}", flush=True)
    assert size == 65536
    assert len(path) < depth <= size // 2


@pytest.mark.parametrize("crashes_again", [False, True])
def test_only_a_complete_report_is_followed_by_an_orderly_exit(bare, crashes_again):
    bare.start_bus()
    bare.fail("exit")  # the rule is gone once the handlers of an orderly exit run
    if crashes_again:
        bare.set_rule("backtrace_symbols_fd", -1)
    bare.start_daemon(preloaded=True)
    bare.daemon.send_signal(signal.SIGSEGV)
    assert bare.daemon.wait(3) == 1
    assert bare.is_pending("exit") == crashes_again
