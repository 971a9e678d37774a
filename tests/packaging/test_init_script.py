# SPDX-License-Identifier: MIT
# test_init_script.py: the verbs of the init script on a machine with a system bus and without systemd.
#
# The exit statuses are those of the Linux Standard Base. A start or stop returns 0 if the daemon runs or does
# not run afterwards as asked, and 1 otherwise. status returns 0 for a running daemon, 1 for a dead one with a
# pid file, and 3 for none.
import contextlib
import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from jeepney import DBusAddress, new_method_call

from support.place import LOG, NAME, PID_FILE
from support.processes import process_state


BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
RUNNING = "corvane-cs is running with pid {}.\n"
DEAD = (1, "corvane-cs is not running, but its pid file exists.\n")
NOT_RUNNING = (3, "corvane-cs is not running.\n")


class Script:
    def __init__(self, machine, installed):
        self.machine, self.path = machine, installed / "etc/init.d/corvane-cs"

    def __call__(self, *verbs, **popen):
        """Runs the script as an init does, with nearly no environment; its status and its output.

        The output comes through a pipe, which ends only when no process holds it, the daemon included.
        """
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
        options = {"env": {"PATH": "/usr/bin:/bin", "TERM": "dumb"}, "cwd": "/", **streams, **popen}
        done = subprocess.run([self.path, *verbs], text=True, timeout=60, **options)
        return done.returncode, done.stdout

    def succeed(self, verb, **popen):
        """Runs a verb that must succeed; its output."""
        status, output = self(verb, **popen)
        assert status == 0, output
        return output

    def owner(self):
        """The pid of the process that owns the daemon's name."""
        call = new_method_call(BUS, "GetConnectionUnixProcessID", "s", (NAME,))
        return self.machine.caller().ask(call)[0]

    def stopped(self):
        return daemons() == [] and self.machine.pid_file() is None


def daemons():
    """The pids of all processes of root that run the daemon's executable."""
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it may exit meanwhile
            executable = os.readlink(process / "exe")
            if process.stat().st_uid == 0 and executable.startswith("/usr/sbin/corvane-cs"):
                found.append(int(process.name))
    return found


def mode(path):
    return oct(os.stat(path).st_mode & 0o777)


@pytest.fixture
def script(system_bus, installed):
    shutil.rmtree("/run/corvane")  # the script makes it
    return Script(system_bus, installed)


def test_each_verb_succeeds_twice(script):
    machine = script.machine
    assert script("status") == NOT_RUNNING

    script.succeed("start")
    first = script.owner()
    assert machine.pid_file() == f"{first}\n"
    assert machine.caller().hello() == "How are you?"
    assert "already running" in script.succeed("start")
    assert daemons() == [first]
    for _ in range(2):
        assert script("status") == (0, RUNNING.format(first))

    before = first
    for _ in range(2):
        script.succeed("restart")
        assert process_state(before) is None
        before = script.owner()
        assert daemons() == [before] and machine.pid_file() == f"{before}\n"

    script.succeed("stop")
    assert script.stopped()
    assert "not running" in script.succeed("stop")
    for _ in range(2):
        assert script("status") == NOT_RUNNING


def test_restart_starts_a_daemon_that_does_not_run_and_try_restart_does_not(script):
    assert script("try-restart") == (0, "")
    assert script("status") == NOT_RUNNING
    script.succeed("restart")
    first = script.owner()
    for verb in ("try-restart", "force-reload"):
        script.succeed(verb)
    assert daemons() == [script.owner()] != [first]


@pytest.mark.parametrize("umask", [0, 0o077])
def test_only_root_may_write_the_pid_file_and_the_log_whatever_the_umask_of_the_init(script, umask):
    script.succeed("start", umask=umask)
    assert (mode("/run/corvane"), mode(PID_FILE), mode(LOG)) == ("0o755", "0o644", "0o644")
    status = Path(f"/proc/{script.owner()}/status").read_text()
    assert "Umask:\t0022\n" in status


def test_a_pid_file_that_every_user_may_write_is_replaced(script):
    os.mkdir("/run/corvane", 0o755)
    script.machine.write_pid_file("")
    os.chmod(PID_FILE, 0o666)  # as --start leaves it
    script.succeed("start")
    assert mode(PID_FILE) == "0o644"


def test_the_daemon_has_its_own_session_no_inherited_descriptors_and_the_path_of_administrators(script):
    script.succeed("start")
    pid = script.owner()
    assert os.getsid(pid) not in (0, os.getsid(0))
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert [os.readlink(f"/proc/{pid}/fd/{number}") for number in (0, 1, 2)] == ["/dev/null"] * 3
    environment = Path(f"/proc/{pid}/environ").read_text().split("\0")
    assert "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" in environment


def test_the_daemons_own_options_report_its_pid_and_stop_it(script):
    script.succeed("start")
    pid = script.owner()
    assert script.machine.run("--pid").stdout == f"{pid}\n"
    assert script.machine.run("--stop").returncode == 0
    script.machine.wait_gone(pid)
    assert script("status") == NOT_RUNNING


STALE = ["", "0", "-1", "999999", "12345678", "99999999999999999999", "{other}", "{other} x", "../run/x"]


@pytest.mark.parametrize("content", [*STALE, "{stranger}"])
def test_a_stale_pid_file_is_recognized(script, content, held):
    machine = script.machine
    other = subprocess.Popen(["sleep", "600"])
    os.mkdir("/run/corvane")
    content = content.format(other=other.pid, stranger=held)

    machine.write_pid_file(content)
    assert script("status") == DEAD
    assert "not running" in script.succeed("stop")
    assert machine.pid_file() is None

    machine.write_pid_file(content)
    script.succeed("start")
    assert machine.pid_file() == f"{script.owner()}\n"
    assert other.poll() is None and process_state(held) == "t"


def test_a_killed_daemon_is_reported_and_replaced(script):
    script.succeed("start")
    for _ in range(2):
        pid = script.owner()
        os.kill(pid, signal.SIGKILL)
        script.machine.wait_gone(pid)
        for _ in range(2):
            assert script("status") == DEAD
        script.succeed("start")
        assert daemons() == [script.owner()] != [pid]


def test_a_start_without_a_bus_fails_and_leaves_nothing(laid_over, installed):
    script = Script(laid_over, installed)
    for verb in ("start", "start", "restart"):
        status, output = script(verb)
        assert status == 1 and "see /var/log/corvane-cs.log" in output
        assert "Failed to connect system DBus" in laid_over.log_text()
        assert script.stopped()
    assert script("status") == NOT_RUNNING
    script.succeed("stop")


def test_a_start_without_a_place_for_the_pid_file_fails(script):
    Path("/run/corvane").write_text("not a directory")
    assert script("start")[0] == 1
    assert daemons() == []


@pytest.mark.parametrize("content", [None, "12345678"])
def test_a_daemon_that_its_pid_file_does_not_name_is_found_on_the_bus(script, content):
    machine = script.machine
    pid = machine.start_daemon().pid
    if content:
        os.mkdir("/run/corvane")
        machine.write_pid_file(content)

    assert script("status") == (0, RUNNING.format(pid))
    script.succeed("start")
    assert script.owner() == pid
    machine.daemon = None  # the story ends it
    script.succeed("stop")
    assert process_state(pid) is None and script.stopped()


def test_a_daemon_whose_executable_an_upgrade_replaced_is_found(script):
    os.mkdir("/run/stage/upper")
    os.mkdir("/run/stage/work")
    layers = "lowerdir=/usr/sbin,upperdir=/run/stage/upper,workdir=/run/stage/work"
    script.machine.mount("-t", "overlay", "overlay", "-o", layers, "/usr/sbin")
    script.succeed("start")
    pid = script.owner()
    shutil.copy("/usr/sbin/corvane-cs", "/usr/sbin/new")
    os.rename("/usr/sbin/new", "/usr/sbin/corvane-cs")

    assert script("status") == (0, RUNNING.format(pid))
    script.succeed("start")
    assert script.owner() == pid
    script.succeed("stop")
    assert process_state(pid) is None and script.stopped()


def test_a_halted_daemon_is_stopped(script):
    script.succeed("start")
    pid = script.owner()
    os.kill(pid, signal.SIGSTOP)
    script.machine.wait("a halted daemon", lambda: process_state(pid) == "T")
    script.succeed("stop")
    assert script.stopped()


def test_daemons_that_wait_for_the_name_are_stopped_with_its_owner(script):
    """One in the foreground owns the name; another waits for it, and so does one with a pid file."""
    machine = script.machine
    first = machine.start_daemon().pid
    machine.daemon = None  # the story ends all three
    machine.launch()
    os.mkdir("/run/corvane")
    machine.daemonise("--start")
    queue = new_method_call(BUS, "ListQueuedOwners", "s", (NAME,))
    machine.wait("all three to wait for the name", lambda: len(machine.caller().ask(queue)[0]) == 3)
    assert script.owner() == first

    script.succeed("stop")
    assert script.stopped()
    assert script("status") == NOT_RUNNING


# Owns the daemon's name in a second thread after the first thread has exited. A daemon that is about to exit
# does the same: /proc no longer shows its executable.
HALF_ENDED = """
import ctypes, struct, threading, time
from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import open_dbus_connection
connection = open_dbus_connection("SESSION")
bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
connection.send_and_get_reply(new_method_call(bus, "RequestName", "su", ("com.corvane.ControlServer", 0)))
threading.Thread(target=time.sleep, args=(600,)).start()
ctypes.CDLL(None).syscall(60 if struct.calcsize("P") == 8 else 1, 0)  # exit(2), of this thread alone
"""


def test_a_stop_waits_for_an_owner_of_the_name_that_is_about_to_exit(script):
    machine = script.machine
    process = subprocess.Popen([sys.executable, "-c", HALF_ENDED], env=machine.environment())
    executable = f"/proc/{process.pid}/exe"
    machine.wait("the first thread to exit with the name taken", lambda: not os.path.exists(executable))
    script.succeed("stop")
    assert process.wait(10) == -signal.SIGTERM


@pytest.mark.parametrize("verbs", [[], ["reload"]])
def test_an_unknown_verb_and_none_are_refused(script, verbs):
    status, output = script(*verbs)
    assert status == 2 and "Usage:" in output


def test_a_machine_without_the_daemon_is_left_alone(bare, installed):
    bare.mount("-t", "tmpfs", "tmpfs", "/usr/sbin")  # this machine itself may have a daemon there
    script = Script(bare, installed)
    assert script("start") == script("stop") == (0, "")
    assert script("status") == (4, "")
