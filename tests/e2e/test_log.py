# SPDX-License-Identifier: MIT
# test_log.py: the lines of the start, and the file that they go to.
import ctypes
import os
import time

import pytest

from support.log import Line
from support.place import LOG
from transcript import SET_UP

LIBC = ctypes.CDLL(None)
LIBC.time.restype = ctypes.c_long

OLD = LOG + ".old"
HELLO = [
    "cs/plugin-registry.cpp ccs_dbus_message_handler: obj=/com/corvane/ControlServer/Dummy, "
    "interface=com.corvane.ControlServer.Dummy, member=HelloWorld, type=1",
    "plugins/dummy/dummy.cpp dbus_dummy_hello_world: {DUMMY} dbus_dummy_hello_world: HelloWorld",
]


@pytest.fixture
def bus(bare):
    """A machine with a bus, but without a daemon."""
    bare.start_bus()
    return bare


def content(path, size=-1):
    with open(path) as file:
        return file.read(size)


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def tail(path, size):
    with open(path, "rb") as file:
        file.seek(-size, os.SEEK_END)
        return file.read().decode()


def flags(machine):
    """The open(2) flags of the log's descriptor, which is the first free one."""
    with open(f"/proc/{machine.daemon.pid}/fdinfo/3") as file:
        return int(dict(line.split(":", 1) for line in file)["flags"], 8)


# ---- lines ----


@pytest.mark.parametrize("options", [[], ["-v"], ["--enable", "--disable", "--purge"]])
def test_the_log_shows_each_step_of_the_start(bus, options):
    bus.start_daemon(*options)
    assert bus.logged() == SET_UP
    assert bus.log_text().endswith("Start mainloop ...\n\n")
    assert bus.log_text().count("\n\n") == 1
    numbers = [int(line.number) for line in bus.log() if line.function == "main"]
    assert numbers == sorted(set(numbers))


def test_the_log_of_a_background_daemon_shows_the_same_steps(bus):
    bus.daemonise("--start")
    bus.wait_log(r"Start mainloop")
    # One more descriptor is open: the null logger for the search for a running daemon is never closed.
    assert bus.logged() == [line.replace("on fd 4", "on fd 5") for line in SET_UP]


def test_a_line_is_in_the_file_when_the_reply_arrives(machine):
    caller = machine.caller()
    for calls in range(1, 4):
        assert caller.hello() == "How are you?"
        assert machine.logged() == SET_UP + HELLO * calls
        assert machine.log_text().endswith("HelloWorld\n")


@pytest.mark.parametrize("zone, hours", [("UTC0", 0), ("EAST-5:30", 5.5), ("WEST+9", -9)])
def test_a_line_begins_with_the_local_time(bus, zone, hours):
    def local():
        now = LIBC.time(None)  # the clock of the daemon: a precise clock is ahead by up to a tick
        return time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(now + 3600 * hours))

    before = local()
    bus.start_daemon(environment={"TZ": zone})
    after = local()
    assert all(before <= line.time <= after for line in bus.log())


@pytest.mark.parametrize(
    "seconds, local",
    [
        (981173106, "2001-02-03 04:05:06"),
        (946684799, "1999-12-31 23:59:59"),
        (4102444800, "2100-01-01 00:00:00"),
    ],
)
def test_the_time_has_leading_zeros_and_passes_the_year_2038(bus, seconds, local):
    bus.set_rule("time", seconds)
    bus.start_daemon(preloaded=True, environment={"TZ": "UTC0"})
    assert {line.time for line in bus.log()} == {local}
    assert bus.log_text().startswith(f"{local}:cs/corvane-cs.cpp:")


# ---- the old log ----


def test_each_start_moves_the_log_aside_and_keeps_one_old_log(bus):
    write(LOG, "the run before\n")
    write(OLD, "the run before that\n")
    bus.start_daemon()
    assert content(OLD) == "the run before\n"
    assert bus.logged() == SET_UP
    first = bus.log_text()
    bus.daemon.kill()
    bus.daemon.wait()
    os.unlink("/run/stage/bus")
    assert bus.run().returncode == 1
    assert content(OLD) == first
    assert len(bus.log()) == 5
    assert bus.logs() == ["corvane-cs.log", "corvane-cs.log.old"]


def test_a_log_that_cannot_be_moved_is_appended_to(bus):
    write(LOG, "the run before\n")
    os.mkdir(OLD)  # a file cannot take the place of a directory
    bus.start_daemon()
    old, first, rest = bus.log_text().split("\n", 2)
    assert old == "the run before"
    assert Line(first).text == f"Cannot move old log file from {LOG} to {OLD}"
    assert [Line(raw).text for raw in rest.splitlines() if raw] == [line.split(": ", 1)[1] for line in SET_UP]
    assert os.listdir(OLD) == []
    assert flags(bus) & os.O_APPEND


# ---- other files in the place of the log ----


def test_a_link_to_nothing_is_followed(bus):
    os.symlink("/run/stage/elsewhere", LOG)
    bus.start_daemon()
    assert os.path.islink(LOG)
    assert content("/run/stage/elsewhere") == bus.log_text()
    assert bus.logs() == ["corvane-cs.log"]


# ---- full and large logs ----


def test_the_daemon_serves_on_a_full_disk_and_logs_again_when_space_is_free(bus):
    bus.mount("-t", "tmpfs", "-o", "size=64k", "none", "/var/log")
    with open("/var/log/filler", "wb", buffering=0) as filler:
        with pytest.raises(OSError):
            while True:
                filler.write(bytes(4096))
    bus.daemon = bus.launch()
    caller = bus.wait_service()
    assert content(LOG) == ""
    assert caller.start(":1", "xhotkey") is True
    bus.wait_records(1)
    assert content(LOG) == ""
    os.unlink("/var/log/filler")
    assert caller.hello() == "How are you?"
    assert bus.logged()[-2:] == HELLO


def test_a_log_truncated_while_the_daemon_runs_continues_from_its_beginning(machine):
    caller = machine.caller()
    caller.hello()
    os.truncate(LOG, 0)
    caller.hello()
    assert "\0" not in machine.log_text()
    assert machine.logged() == HELLO
    assert flags(machine) & os.O_APPEND


def test_a_log_larger_than_2_gib_is_moved_aside_at_the_start(bus):
    write(LOG, "")
    os.truncate(LOG, 3 << 30)
    bus.daemon = bus.launch()
    bus.wait("moved log", lambda: os.path.exists(OLD))
    bus.wait_log(r"Start mainloop")
    assert os.path.getsize(OLD) == 3 << 30
    assert bus.logged() == SET_UP


def test_a_log_larger_than_2_gib_that_cannot_be_moved_is_appended_to(bus):
    write(LOG, "")
    os.truncate(LOG, 3 << 30)
    os.mkdir(OLD)
    bus.daemon = bus.launch()
    bus.wait_service()
    bus.wait("line of the call", lambda: "dbus_dummy_hello_world: HelloWorld\n" in tail(LOG, 1000))


def test_a_running_daemon_writes_its_log_beyond_2_gib(machine):
    os.truncate(LOG, (2 << 30) - 10)
    assert machine.caller().hello() == "How are you?"
    assert os.path.getsize(LOG) > 2 << 30
    assert tail(LOG, 500).endswith(": DEBUG: {DUMMY} dbus_dummy_hello_world: HelloWorld\n")
    os.truncate(LOG, 0)  # a failure would print the whole log
