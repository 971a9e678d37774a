# SPDX-License-Identifier: MIT
# test_log.py: what the daemon writes down about its start, and into which file under which circumstances.
import ctypes
import os
import stat
import threading
import time

import pytest

from support.log import LINE, Line
from support.machine import FAULTS, meddled
from support.place import LOG

LIBC = ctypes.CDLL(None)
LIBC.time.restype = ctypes.c_long

OLD = LOG + ".old"
START = [
    "cs/corvane-cs.cpp main: Initialize DBus connection and Watches ...",
    "cs/corvane-cs.cpp main: Initialize segfault signal handler...",
    "cs/corvane-cs.cpp main: Succeeded to get System DBus connection ...",
    "cs/bus.cpp ccs_add_watch: Adding a write watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: Adding a read watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: READ Watch on fd 4",
    "cs/corvane-cs.cpp main: Succeeded to set watch functions ...",
    "cs/bus.cpp ccs_request_service_name: Request service name: com.corvane.ControlServer",
    "cs/corvane-cs.cpp main: Succeeded to request service name ...",
    "plugins/display-manager/dm-plugin.cpp dm_init: Initialize DisplayManager plugin",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/DisplayManager",
    "plugins/dummy/dummy-plugin.cpp dummy_init: Initialize Dummy plugin()",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/Dummy",
    "cs/corvane-cs.cpp main: Succeeded to register objects ...",
    "cs/corvane-cs.cpp main: Start mainloop ...",
]
HELLO = [
    "cs/plugin-registry.cpp ccs_dbus_message_handler: obj=/com/corvane/ControlServer/Dummy, "
    "interface=com.corvane.ControlServer.Dummy, member=HelloWorld, type=1",
    "plugins/dummy/dummy.cpp dbus_dummy_hello_world: {DUMMY} dbus_dummy_hello_world: HelloWorld",
]


@pytest.fixture
def bus(bare):
    """A machine with a bus whose log is to be prepared before the daemon starts."""
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
    """The open(2) flags of the descriptor behind the log, which is the first free one."""
    with open(f"/proc/{machine.daemon.pid}/fdinfo/3") as file:
        return int(dict(line.split(":", 1) for line in file)["flags"], 8)


# ---- lines ----


@pytest.mark.parametrize("options", [[], ["-v"], ["--enable", "--disable", "--purge"]])
def test_the_log_tells_the_start_step_by_step(bus, options):
    bus.start_daemon(*options)
    assert bus.told() == START
    assert bus.log_text().endswith("Start mainloop ...\n\n")
    assert bus.log_text().count("\n\n") == 1
    numbers = [int(line.number) for line in bus.log() if line.function == "main"]
    assert numbers == sorted(set(numbers))


def test_the_log_of_a_daemon_that_left_its_shell_tells_the_same(bus):
    bus.daemonise("--start")
    bus.wait_log(r"Start mainloop")
    # One descriptor more is open: the silent log of the look for a running daemon is never closed.
    assert bus.told() == [told.replace("on fd 4", "on fd 5") for told in START]


def test_a_line_is_complete_in_the_file_when_the_reply_arrives(machine):
    caller = machine.caller()
    for calls in range(1, 4):
        assert caller.hello() == "How are you?"
        assert machine.told() == START + HELLO * calls
        assert machine.log_text().endswith("HelloWorld\n")


@pytest.mark.parametrize("zone, hours", [("UTC0", 0), ("EAST-5:30", 5.5), ("WEST+9", -9)])
def test_a_line_begins_with_the_local_time(bus, zone, hours):
    def local():
        now = LIBC.time(None)  # as the daemon reads it: a precise clock is ahead of time(2) by up to a tick
        return time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(now + 3600 * hours))

    before = local()
    bus.start_daemon(environment={"TZ": zone})
    after = local()
    assert all(before <= line.time <= after for line in bus.log())


@pytest.mark.parametrize("seconds, local", [
    (981173106, "2001-02-03 04:05:06"),
    (946684799, "1999-12-31 23:59:59"),
    (4102444800, "2100-01-01 00:00:00"),
])
def test_the_time_has_leading_zeros_and_goes_on_after_2038(bus, seconds, local):
    bus.start_daemon(environment=dict(meddled(f"time={seconds}"), TZ="UTC0"))
    assert {line.time for line in bus.log()} == {local}
    assert bus.log_text().startswith(f"{local}:cs/corvane-cs.cpp:")


def test_lines_of_many_threads_are_whole(machine):
    machine.behave("corvane-pfk", "exit 0")
    callers = [machine.caller() for _ in range(4)]

    def work(caller, first):
        for display in range(first, first + 4):
            assert caller.start(f":{display}", "press-fkey") is True
            assert caller.hello() == "How are you?"

    threads = [threading.Thread(target=work, args=(caller, 4 * n)) for n, caller in enumerate(callers)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    machine.wait_log(r"Child process died: \d+$", count=16)
    lines = [line for line in machine.log_text().splitlines() if line]
    assert [line for line in lines if not LINE.fullmatch(line) or not Line(line).file] == []


# ---- one generation of backup ----


def test_a_first_log_has_no_backup(machine):
    assert machine.logs() == ["corvane-cs.log"]


def test_each_start_moves_the_log_aside_and_keeps_one_generation(bus):
    write(LOG, "the run before\n")
    write(OLD, "the run before that\n")
    bus.start_daemon()
    assert content(OLD) == "the run before\n"
    assert bus.told() == START
    first = bus.log_text()
    bus.daemon.kill()
    bus.daemon.wait()
    os.unlink("/run/stage/bus")
    assert bus.run().returncode == 1
    assert content(OLD) == first
    assert len(bus.log()) == 5
    assert bus.logs() == ["corvane-cs.log", "corvane-cs.log.old"]


def test_a_log_that_cannot_be_moved_goes_on_behind_its_old_lines(bus):
    write(LOG, "the run before\n")
    os.mkdir(OLD)  # a file cannot take the place of a directory
    bus.start_daemon()
    old, first, rest = bus.log_text().split("\n", 2)
    assert old == "the run before"
    assert Line(first).text == "Cannot move old log file from /var/log/corvane-cs.log to /var/log/corvane-cs.log.old"
    assert [Line(raw).text for raw in rest.splitlines() if raw] == [told.split(": ", 1)[1] for told in START]
    assert os.listdir(OLD) == []
    assert flags(bus) & os.O_APPEND


# ---- what else may stand in the log's place ----


def test_a_directory_in_the_place_of_the_log_makes_the_daemon_silent(bus):
    os.mkdir(LOG)
    daemon = bus.launch()
    caller = bus.caller()
    bus.wait("the daemon to take its name", lambda: serves(caller))
    assert caller.start(":1", "init-station") is True
    assert bus.logs() == ["corvane-cs.log"]
    assert os.listdir(LOG) == []
    daemon.terminate()
    assert daemon.communicate(timeout=10) == ("", "")


def serves(caller):
    try:
        return caller.hello()
    except Exception:  # nobody has the name yet
        return None


def test_lines_go_to_a_device_in_the_place_of_the_log_which_stays(bus):
    ours, theirs = os.openpty()
    os.symlink(os.ttyname(theirs), LOG)
    bus.daemon = bus.launch()
    caller = bus.caller()
    bus.wait("the daemon to take its name", lambda: serves(caller))
    seen = os.read(ours, 65536).decode()
    assert seen.splitlines()[0].endswith("DEBUG: Initialize DBus connection and Watches ...")
    assert os.path.islink(LOG)
    assert bus.logs() == ["corvane-cs.log"]
    os.close(ours)
    os.close(theirs)


def test_a_link_to_a_file_is_moved_aside_itself(bus):
    write("/run/stage/elsewhere", "kept\n")
    os.symlink("/run/stage/elsewhere", LOG)
    bus.start_daemon()
    assert os.readlink(OLD) == "/run/stage/elsewhere"
    assert content("/run/stage/elsewhere") == "kept\n"
    assert stat.S_ISREG(os.lstat(LOG).st_mode)
    assert bus.told() == START


def test_a_link_to_nothing_is_followed(bus):
    os.symlink("/run/stage/elsewhere", LOG)
    bus.start_daemon()
    assert os.path.islink(LOG)
    assert content("/run/stage/elsewhere") == bus.log_text()
    assert bus.logs() == ["corvane-cs.log"]


# ---- a log in trouble ----


def test_on_a_full_disk_the_daemon_goes_on_and_logs_again_when_there_is_room(bus):
    bus.mount("-t", "tmpfs", "-o", "size=64k", "none", "/var/log")
    with open("/var/log/filler", "wb", buffering=0) as filler:
        with pytest.raises(OSError):
            while True:
                filler.write(bytes(4096))
    bus.daemon = bus.launch()
    caller = bus.caller()
    bus.wait("the daemon to take its name", lambda: serves(caller))
    assert content(LOG) == ""
    assert caller.start(":1", "xhotkey") is True
    bus.wait_records(1)
    assert content(LOG) == ""
    os.unlink("/var/log/filler")
    assert caller.hello() == "How are you?"
    assert bus.told()[-2:] == HELLO


def test_a_log_that_is_emptied_under_the_running_daemon_goes_on_from_its_beginning(machine):
    caller = machine.caller()
    caller.hello()
    os.truncate(LOG, 0)
    caller.hello()
    assert "\0" not in machine.log_text()
    assert machine.told() == HELLO
    assert flags(machine) & os.O_APPEND


def test_a_log_beyond_2_gib_is_moved_aside_at_the_start(bus):
    write(LOG, "")
    os.truncate(LOG, 3 << 30)
    bus.daemon = bus.launch()
    bus.wait("the log to be moved aside", lambda: os.path.exists(OLD))
    bus.wait_log(r"Start mainloop")
    assert os.path.getsize(OLD) == 3 << 30
    assert bus.told() == START


def test_a_log_beyond_2_gib_that_cannot_be_moved_is_still_appended_to(bus):
    write(LOG, "")
    os.truncate(LOG, 3 << 30)
    os.mkdir(OLD)
    bus.daemon = bus.launch()
    caller = bus.caller()
    bus.wait("the daemon to take its name", lambda: serves(caller))
    bus.wait("the line of the call", lambda: "dbus_dummy_hello_world: HelloWorld\n" in tail(LOG, 1000))


def test_a_running_daemon_writes_its_log_beyond_2_gib(machine):
    os.truncate(LOG, (2 << 30) - 10)
    assert machine.caller().hello() == "How are you?"
    assert os.path.getsize(LOG) > 2 << 30
    assert tail(LOG, 500).endswith(": DEBUG: {DUMMY} dbus_dummy_hello_world: HelloWorld\n")
    os.truncate(LOG, 0)  # a failure would print all of it


def test_without_memory_for_its_log_the_daemon_says_so_once_and_serves(bus):
    os.mkdir("/run/stage/faults")
    bus.fail("memory")
    bus.daemon = bus.launch(environment={"LD_PRELOAD": FAULTS})
    caller = bus.caller()
    bus.wait("the daemon to take its name", lambda: serves(caller))
    assert not os.path.exists("/run/stage/faults/memory")
    assert caller.start(":1", "init-station") is True
    bus.daemon.terminate()
    assert bus.daemon.communicate(timeout=10) == ("", "insufficient memory\n")
    assert bus.logs() == []
