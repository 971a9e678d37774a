# SPDX-License-Identifier: MIT
# test_crash.py: a segmentation fault is reported in the log, the pid file goes, and the process ends with 1.
import ctypes
import os
import re
import signal
import time
from pathlib import Path

import pytest

from support.callers import plugin_call
from support.log import Line
from support.machine import FAULTS, SANITIZER, STAND_IN, meddled, not_under_a_sanitizer
from support.place import LOG
from test_bus_loss import wait_service

# The thread sanitizer may do so until the wait ends.
KEPT_BACK = "it keeps back a signal from outside that comes just before a wait"
pytestmark = not_under_a_sanitizer(KEPT_BACK, "thread")

# A frame is written by the C library: the object, the function where it has a name, the address. The kernel's own
# object has no path.
FRAME = re.compile(r"(?:/\S+|linux-(?:gate|vdso)\.so\.1)\((\w*)\+0x[0-9a-f]+\) ?\[0x[0-9a-f]+\]")


def report(machine):
    """What the log says from the crash on: the line of the crash and the names of the frames behind it."""
    lines = machine.log_text().splitlines()
    (begin,) = [n for n, line in enumerate(lines) if "Catch" in line]
    frames = [FRAME.fullmatch(line) for line in lines[begin + 1:]]
    assert all(frames), lines[begin:]
    return Line(lines[begin]), [frame[1] for frame in frames if frame[1]]


def crash_thread(machine, thread):
    if SANITIZER == "thread":
        pytest.skip(KEPT_BACK)
    assert ctypes.CDLL(None).tgkill(machine.daemon.pid, thread, signal.SIGSEGV) == 0


def threads(machine):
    return machine.threads()


def assert_reported(machine, *functions):
    """The daemon ended with 1 and nothing to wait for, the pid file is gone, and the report names these functions."""
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
    """A machine with a daemon in the foreground and a pid file that the daemon did not write."""
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon()
    return bare


def test_a_crash_of_the_main_thread_is_reported_and_takes_the_pid_file_along(doomed):
    doomed.daemon.send_signal(signal.SIGSEGV)
    assert_reported(doomed, "segfault_handler", "main")
    assert doomed.daemon.communicate() == ("", "")
    assert "Finalize" not in doomed.log_text()


def test_a_crash_of_a_station_is_reported(doomed):
    before = threads(doomed)
    assert doomed.caller().start(":1", "init-station") is True
    doomed.wait_log("Thread for Display 1 started")
    doomed.wait("the thread of init-station to end", lambda: len(threads(doomed)) == 2)
    (station,) = threads(doomed) - before
    crash_thread(doomed, station)
    assert_reported(doomed, "segfault_handler", "process_station_events")


def test_a_crash_beside_an_actor_is_reported_and_the_actor_lives_on(doomed):
    assert doomed.caller().start(":1", "xhotkey") is True
    (actor,) = doomed.wait_records(1)
    doomed.wait_log("child=")
    crash_thread(doomed, max(threads(doomed)))
    assert_reported(doomed, "segfault_handler", "method_start_thread")
    assert [record.pid for record in doomed.running()] == [actor.pid]


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
    bare.wait("another pid file", bare.pid_file)
    assert time.monotonic() - begin < 2
    bare.wait("the old log to be moved aside", lambda: os.path.exists(LOG + ".old"))
    bare.wait_log(r"Start mainloop")
    assert "Catch segfault signal." in Path(LOG + ".old").read_text()


@pytest.mark.parametrize("step, function", [("get", "ccs_get_system_conn"),
                                            ("request_name", "ccs_request_service_name")])
def test_a_crash_before_the_first_message_is_reported(bare, step, function):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.daemon = bare.launch(environment=meddled(f"{step}=gate"))
    bare.wait("the daemon to come to the step", lambda: os.path.exists("/run/stage/gate"))
    bare.daemon.send_signal(signal.SIGSEGV)
    assert_reported(bare, "segfault_handler", function, "main")


def test_the_report_is_complete_when_the_pid_file_goes(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon(environment=meddled("unlink=gate"))
    bare.daemon.send_signal(signal.SIGSEGV)
    bare.wait("the daemon to remove the pid file", lambda: os.path.exists("/run/stage/gate"))
    reported = bare.log_text()
    line, names = report(bare)
    assert line.text == "Catch segfault signal."
    assert len(names) >= 3
    assert bare.pid_file() == "77"
    os.unlink("/run/stage/gate")
    assert_reported(bare)
    assert bare.log_text() == reported


def test_a_crash_without_a_log_is_reported_on_standard_error(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    os.mkdir("/run/stage/faults")
    bare.fail("memory")  # for the record of the log
    bare.daemon = bare.launch(environment={"LD_PRELOAD": FAULTS})
    wait_service(bare)
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


def test_a_crash_with_a_silent_log_still_takes_the_pid_file_and_ends_with_1(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    os.mkdir(LOG)
    daemon = bare.daemon = bare.launch(environment=meddled("request_name=gate"))
    bare.wait("the daemon to ask for its name", lambda: os.path.exists("/run/stage/gate"))
    daemon.send_signal(signal.SIGSEGV)
    assert daemon.wait(3) == 1
    assert daemon.communicate() == ("", "")
    assert bare.pid_file() is None
    assert os.listdir(LOG) == []


def test_a_crash_on_a_full_disk_still_takes_the_pid_file_and_ends_with_1(bare):
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


@not_under_a_sanitizer("it keeps signals back from a thread that waits for a stream's lock", "thread")
def test_a_crash_while_another_thread_keeps_the_log_locked_ends_with_1_all_the_same(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon(environment=meddled("fflush=hold"))
    # Not asked, but sent: the reply may never come, because the main thread may need the log for it.
    bare.caller().send(plugin_call("DisplayManager", "Start", "sss", ":1", "init-station", "COMMON"))
    bare.wait("a thread to hold the log's lock", lambda: os.path.exists("/run/stage/held"))
    bare.daemon.send_signal(signal.SIGSEGV)
    assert bare.daemon.wait(3) == 1
    assert bare.pid_file() is None
    assert bare.daemon.communicate() == ("", "")


def test_a_crash_while_the_heap_is_locked_ends_with_1_all_the_same(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon(environment=meddled(library="malloc-lock"))
    bare.daemon.send_signal(signal.SIGUSR2)
    bare.daemon.send_signal(signal.SIGSEGV)
    assert bare.daemon.wait(3) == 1
    assert bare.pid_file() is None
    line, names = report(bare)
    assert line.text == "Catch segfault signal."
    assert len(names) >= 3


def test_a_crash_of_a_child_is_neither_reported_nor_takes_the_pid_file_along(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon(environment=meddled("fork=crash"))
    caller = bare.caller()
    assert caller.start(":1", "xhotkey") is True
    bare.wait_log("Child process died", count=2)
    assert "Catch segfault signal." not in bare.log_text()
    assert bare.pid_file() == "77"
    assert caller.hello() == "How are you?"


def test_a_pid_file_that_is_written_after_the_report_removed_one_is_left_alone(bare):
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon(environment=meddled("exit=hang"))
    bare.daemon.send_signal(signal.SIGSEGV)
    bare.wait("the handlers of an orderly exit", lambda: os.path.exists("/run/stage/exit"))
    assert bare.pid_file() is None
    bare.write_pid_file("88")  # as the next daemon does
    assert bare.daemon.wait(4) == 1
    assert bare.pid_file() == "88"


PAINT = b"\xa5"  # painter.c
PAGE = os.sysconf("SC_PAGE_SIZE")


def depths(machine):
    """Of each thread so far, in the order of their creation: id, size of its stack, how deep it has been."""
    found = []
    with open("/run/stage/stacks") as stacks, open(f"/proc/{machine.daemon.pid}/mem", "rb", 0) as memory:
        for thread, lowest, size in (map(int, line.split()) for line in stacks):
            memory.seek(lowest + PAGE)  # the lowest page may be a guard
            used = memory.read(size - PAGE).lstrip(PAINT)
            found.append((thread, size, len(used)))
    return found


@not_under_a_sanitizer("it uses stacks itself")
@pytest.mark.parametrize("place", ["worker", "group"])
def test_no_thread_needs_more_than_half_of_its_stack_even_for_a_crash_report(bare, place):
    directory = os.path.dirname(STAND_IN)
    bare.start_bus()
    bare.write_pid_file("77")
    bare.start_daemon("--verbose", environment={"LD_PRELOAD": f"{directory}/libpainter.so:{directory}/libmeddler.so",
                                                "MEDDLE": "unlink=gate", "TZ": "America/New_York"})
    caller = bare.caller()
    for actor in ("disable-station", "local-login"):
        assert caller.start(":2147483647", actor) is True
        (record,) = bare.wait_records(1, {"disable-station": "corvane-x11-put-image", "local-login": "corvane-ls"}[actor])
        bare.wait_log(f"child={record.pid}$")
        assert caller.stop(":2147483647", actor) is True
        bare.wait_log("keep_alive field is FALSE", 1 if actor == "disable-station" else 2)
    assert caller.start(":2147483647", "click-mouse") is True
    bare.wait_records(1, "corvane-pfk")
    bare.wait_log("actor_code=5, child=")
    served = depths(bare)
    threads = {"worker": served[0][0], "group": served[-1][0]}
    crash_thread(bare, threads[place])
    bare.wait("the report to be complete", lambda: os.path.exists("/run/stage/gate"))
    crashed = {thread: (size, depth) for thread, size, depth in depths(bare)}
    size, depth = crashed[threads[place]]
    serving = next(deep for thread, _, deep in served if thread == threads[place])
    print(f"\n  {place}: {serving} bytes while it serves, {depth} with a crash report, of {size}", flush=True)
    assert len(served) == 4 and size == 65536
    assert 1000 < serving < depth <= size // 2
    os.unlink("/run/stage/gate")
    assert bare.daemon.wait(3) == 1


@not_under_a_sanitizer("it uses stacks itself")
def test_no_child_needs_more_than_half_of_the_stack_that_it_has(bare):
    """Nothing on a search path that is about as long as execvp takes it can be run."""
    path = ":".join(f"/run/{number:0>200}" for number in range(19))
    bare.start_bus()
    bare.start_daemon(environment={"LD_PRELOAD": f"{os.path.dirname(STAND_IN)}/libpainter.so", "PATH": path})
    assert bare.caller().start(":2147483647", "xhotkey") is True
    bare.wait_log("Child process died")
    with open("/run/stage/stacks-of-children") as stacks:
        _, _, size, depth = map(int, stacks.readline().split())
    print(f"\n  child: {depth} bytes of {size}", flush=True)
    assert size == 65536
    assert len(path) < depth <= size // 2


@pytest.mark.parametrize("trouble, orderly", [("none", True), ("crash", False)])
def test_only_a_report_that_came_to_its_end_is_followed_by_an_orderly_exit(bare, trouble, orderly):
    bare.start_bus()
    bare.start_daemon(environment=meddled(f"symbols={trouble} exit=told"))
    bare.daemon.send_signal(signal.SIGSEGV)
    assert bare.daemon.wait(3) == 1
    assert os.path.exists("/run/stage/exit") == orderly
