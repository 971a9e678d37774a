# SPDX-License-Identifier: MIT
# test_init_script.py: the verbs of the init script on a machine with a policed bus and without systemd.
#
# The exit statuses are those of the Linux Standard Base: 0 for what was asked and for what is so already, 1
# for a start or stop that failed; of status 0 for running, 1 for dead with a pid file, 3 for not running.
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


class Script:
    def __init__(self, machine, path):
        self.machine, self.path = machine, path

    def __call__(self, *verbs, **popen):
        """Runs the script as an init does: with next to no environment; its status and its output.

        The output comes through a pipe, which ends only when nobody holds it any more, the daemon included.
        """
        done = subprocess.run([self.path, *verbs], env={"PATH": "/usr/bin:/bin", "TERM": "dumb"}, cwd="/",
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, timeout=60, **popen)
        return done.returncode, done.stdout

    def status(self):
        return self("status")[0]


def owner(machine):
    """The pid of the process that has the daemon's name."""
    bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
    return machine.caller().ask(new_method_call(bus, "GetConnectionUnixProcessID", "s", (NAME,)))[0]


def queued(machine):
    """The connections that have the daemon's name or wait for it."""
    bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
    return machine.caller().ask(new_method_call(bus, "ListQueuedOwners", "s", (NAME,)))[0]


def daemons():
    """The pids of all processes of root that run the daemon's executable."""
    return [int(pid) for pid in os.listdir("/proc") if pid.isdigit() and process_state(int(pid))
            and os.stat(f"/proc/{pid}").st_uid == 0
            and os.readlink(f"/proc/{pid}/exe").startswith("/usr/sbin/corvane-cs")]


@pytest.fixture
def script(system_bus, installed):
    shutil.rmtree("/run/corvane")  # the script makes it
    return Script(system_bus, installed / "etc/init.d/corvane-cs")


@pytest.mark.parametrize("beside_a_stranger", [False, True])
def test_each_verb_twice(script, beside_a_stranger, request):
    machine = script.machine
    stranger = request.getfixturevalue("held") if beside_a_stranger else None
    assert script("status") == (3, "corvane-cs is not running.\n")

    status, output = script("start")
    assert status == 0, output
    first = owner(machine)
    assert machine.pid_file() == f"{first}\n"
    assert machine.caller().hello() == "How are you?"
    status, output = script("start")
    assert status == 0 and "already running" in output
    assert daemons() == [first]

    for _ in range(2):
        assert script("status") == (0, f"corvane-cs is running with pid {first}.\n")

    before = first
    for _ in range(2):
        status, output = script("restart")
        assert status == 0, output
        assert process_state(before) is None
        before = owner(machine)
        assert daemons() == [before] and machine.pid_file() == f"{before}\n"

    status, output = script("stop")
    assert status == 0, output
    assert daemons() == [] and machine.pid_file() is None
    status, output = script("stop")
    assert status == 0 and "not running" in output
    for _ in range(2):
        assert script("status") == (3, "corvane-cs is not running.\n")
    assert not stranger or process_state(stranger) == "t"


def test_restart_starts_what_does_not_run_and_try_restart_does_not(script):
    assert script("try-restart") == (0, "")
    assert script.status() == 3
    assert script("restart")[0] == 0
    first = owner(script.machine)
    for verb in ("try-restart", "force-reload"):
        assert script(verb)[0] == 0
    assert daemons() == [owner(script.machine)] != [first]


def mode(path):
    return oct(os.stat(path).st_mode & 0o777)


@pytest.mark.parametrize("umask", [0, 0o077])
def test_pid_file_and_log_are_for_root_to_write_whatever_the_umask_of_the_init_is(script, umask):
    os.mkdir("/run/corvane", 0o755)
    script.machine.write_pid_file("")
    os.chmod(PID_FILE, 0o666)  # of a daemon that was started with --start
    assert script("start", umask=umask)[0] == 0

    assert (mode("/run/corvane"), mode(PID_FILE), mode(LOG)) == ("0o755", "0o644", "0o644")
    status = Path(f"/proc/{owner(script.machine)}/status").read_text()
    assert "Umask:\t0022\n" in status


def test_the_directory_of_the_pid_file_is_made_for_root_to_write_in(script):
    script("start", umask=0)
    assert mode("/run/corvane") == "0o755"


def test_the_daemon_has_a_session_of_its_own_and_nothing_of_the_scripts_descriptors(script):
    script("start")
    pid = owner(script.machine)
    assert os.getsid(pid) not in (0, os.getsid(0))
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert [os.readlink(f"/proc/{pid}/fd/{number}") for number in (0, 1, 2)] == ["/dev/null"] * 3


def test_the_daemon_can_be_asked_for_and_stopped_by_its_own_options(script):
    script("start")
    pid = owner(script.machine)
    assert script.machine.run("--pid").stdout == f"{pid}\n"
    assert script.machine.run("--stop").returncode == 0
    script.machine.wait_gone(pid)
    assert script("status") == (3, "corvane-cs is not running.\n")


def test_actors_are_looked_up_where_an_administrator_installs_them(script):
    script("start")
    with open(f"/proc/{owner(script.machine)}/environ") as file:
        environment = file.read().split("\0")
    assert "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" in environment


@pytest.mark.parametrize("content", ["", "0", "-1", "999999", "12345678", "99999999999999999999", "{other}",
                                     "{other} x", "../run/x", "{stranger}"])
def test_a_stale_pid_file_is_seen_through(script, content, held):
    machine = script.machine
    other = subprocess.Popen(["sleep", "600"])
    os.mkdir("/run/corvane")
    content = content.format(other=other.pid, stranger=held)

    machine.write_pid_file(content)
    assert script("status") == (1, "corvane-cs is not running, but its pid file exists.\n")
    status, output = script("stop")
    assert status == 0 and "not running" in output
    assert machine.pid_file() is None

    machine.write_pid_file(content)
    status, output = script("start")
    assert status == 0, output
    assert machine.pid_file() == f"{owner(machine)}\n"
    assert other.poll() is None and process_state(held) == "t"


def test_a_killed_daemon_is_reported_and_replaced(script):
    script("start")
    for _ in range(2):
        pid = owner(script.machine)
        os.kill(pid, signal.SIGKILL)
        script.machine.wait_gone(pid)

        for _ in range(2):
            assert script("status") == (1, "corvane-cs is not running, but its pid file exists.\n")
        assert script("start")[0] == 0
        assert daemons() == [owner(script.machine)] != [pid]


def test_a_start_without_a_bus_fails_and_leaves_nothing(laid_over, installed):
    script = Script(laid_over, installed / "etc/init.d/corvane-cs")
    for verb in ("start", "start", "restart"):
        status, output = script(verb)
        assert status == 1 and "see /var/log/corvane-cs.log" in output
        assert "Failed to connect system DBus" in laid_over.log_text()
        assert daemons() == [] and laid_over.pid_file() is None
    assert script.status() == 3
    assert script("stop")[0] == 0


def test_a_start_without_a_place_for_the_pid_file_fails(script):
    Path("/run/corvane").write_text("not a directory")
    assert script("start")[0] == 1
    assert daemons() == []


@pytest.mark.parametrize("replaced", [False, True])
def test_a_daemon_that_its_pid_file_does_not_name_is_found_on_the_bus(script, replaced):
    machine = script.machine
    if replaced:  # by an upgrade: the executable that runs is none any more
        os.mkdir("/run/stage/upper")
        os.mkdir("/run/stage/work")
        machine.mount("-t", "overlay", "overlay", "-o",
                      "lowerdir=/usr/sbin,upperdir=/run/stage/upper,workdir=/run/stage/work", "/usr/sbin")
        assert script("start")[0] == 0
        pid = owner(machine)
        shutil.copy("/usr/sbin/corvane-cs", "/usr/sbin/new")
        os.rename("/usr/sbin/new", "/usr/sbin/corvane-cs")
    else:
        machine.start_daemon()
        pid = machine.daemon.pid

    assert script("status") == (0, f"corvane-cs is running with pid {pid}.\n")
    assert script("start")[0] == 0
    assert owner(machine) == pid
    machine.daemon = None  # its end is asked for
    assert script("stop")[0] == 0
    assert process_state(pid) is None and machine.pid_file() is None


def test_a_pid_file_that_the_daemon_cannot_read_goes_when_one_is_stopped(script):
    script.machine.start_daemon()
    script.machine.daemon = None  # its end is asked for
    os.mkdir("/run/corvane")
    script.machine.write_pid_file("12345678")

    status, output = script("stop")
    assert status == 0, output
    assert daemons() == [] and script.machine.pid_file() is None
    assert script.status() == 3


def test_a_halted_daemon_is_stopped(script):
    script("start")
    pid = owner(script.machine)
    os.kill(pid, signal.SIGSTOP)
    script.machine.wait("a halted daemon", lambda: process_state(pid) == "T")

    status, output = script("stop")
    assert status == 0, output
    assert daemons() == [] and script.machine.pid_file() is None


def test_those_that_wait_for_the_name_are_stopped_with_its_owner(script):
    """One in the foreground has the name, another waits for it, and so does one with a pid file."""
    machine = script.machine
    machine.start_daemon()
    machine.daemon = None  # the end of all is asked for
    first = owner(machine)
    machine.launch()
    os.mkdir("/run/corvane")
    machine.daemonise("--start")
    machine.wait("all three to wait for the name", lambda: len(queued(machine)) == 3)
    assert owner(machine) == first

    status, output = script("stop")
    assert status == 0, output
    assert daemons() == [] and machine.pid_file() is None
    assert script.status() == 3


# Has the daemon's name in a thread while the first thread has ended, as a daemon that is about to end: its
# executable is not to be seen any more.
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


def test_a_stop_waits_for_an_owner_of_the_name_that_is_about_to_end(script):
    machine = script.machine
    process = subprocess.Popen([sys.executable, "-c", HALF_ENDED], env=machine.environment())
    machine.wait("the end of the first thread, which comes after the name",
                 lambda: not os.path.exists(f"/proc/{process.pid}/exe"))
    status, output = script("stop")
    assert status == 0, output
    assert process.wait(10) == -signal.SIGTERM


def test_an_unknown_verb_and_none_are_refused(script):
    for verbs in ((), ("reload",)):
        status, output = script(*verbs)
        assert status == 2 and "Usage:" in output


def test_a_machine_without_the_daemon_is_left_alone(bare, installed):
    bare.mount("-t", "tmpfs", "tmpfs", "/usr/sbin")  # where this machine itself may have it
    script = Script(bare, installed / "etc/init.d/corvane-cs")
    assert script("start") == (0, "")
    assert script("stop") == (0, "")
    assert script("status") == (4, "")
