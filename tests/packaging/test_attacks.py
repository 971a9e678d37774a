# SPDX-License-Identifier: MIT
# test_attacks.py: what a user without rights tried against an installed daemon, each attempt as it was made.
#
# The attacker is a user of no group but his own. He has what everyone has: the system bus, processes of any
# name, and the programs that he runs as an actor.
import os
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest
from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import open_dbus_connection

from conftest import STRANGER as ATTACKER
from conftest import start_system_bus
from support.callers import Caller, plugin_call
from support.place import LOG, NAME, PATH, PID_FILE, STAGE
from support.processes import process_state

DEBIAN = Path(__file__).resolve().parent.parent.parent / "debian"
BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
INTROSPECT = new_method_call(DBusAddress(PATH, bus_name=NAME, interface=INTROSPECTABLE), "Introspect")


def attack(task):
    """Runs task() in a process of the attacker; returns the pid of the process, which ends with the story."""
    child = os.fork()
    if child:
        return child
    os.setgroups([])
    os.setresgid(ATTACKER, ATTACKER, ATTACKER)
    os.setresuid(ATTACKER, ATTACKER, ATTACKER)
    try:
        task()
    finally:
        os._exit(0)


def seconds_of_a_call(machine):
    """How long root waits for an answer."""
    caller = machine.caller()
    started = time.monotonic()
    assert caller.ask(plugin_call("Dummy", "HelloWorld"), timeout=30) == ("How are you?",)
    return time.monotonic() - started


# ---- callers ----


def test_a_caller_that_never_reads_keeps_root_from_nothing(laid_over, policies):
    """The bus stops reading from a service of whose messages it holds too many; here that comes sooner."""
    start_system_bus(laid_over, policies, max_incoming_bytes=100000)
    laid_over.start_daemon()
    before = laid_over.texts()
    reader, writer = os.pipe()

    def flood():
        connection = Caller(laid_over.address).connection
        connection.sock.settimeout(2)
        try:
            for serial in range(1, 100000):
                connection.sock.sendall(INTROSPECT.serialise(serial=serial))
        except OSError:  # the bus takes no more
            pass
        os.write(writer, b".")
        time.sleep(600)

    attack(flood)
    os.read(reader, 1)

    assert seconds_of_a_call(laid_over) < 5
    assert not [text for text in laid_over.texts()[len(before):] if "Introspect" in text]


def test_a_socket_that_lingers_does_not_hold_the_main_thread(system_bus):
    daemon = system_bus.start_daemon()
    listener = socket.create_server(("127.0.0.1", 0))
    lingering = socket.create_connection(listener.getsockname())
    deaf, _ = listener.accept()
    lingering.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 20))
    lingering.setblocking(False)
    with pytest.raises(BlockingIOError):
        while True:
            lingering.send(bytes(65536))
    reader, writer = os.pipe()

    def ping():
        connection = open_dbus_connection(system_bus.address, enable_fds=True)
        peer = DBusAddress(PATH, bus_name=NAME, interface="org.freedesktop.DBus.Peer")
        connection.send(new_method_call(peer, "Ping", "h", (lingering,)))
        connection.send_and_get_reply(new_method_call(BUS, "GetId"), timeout=10)  # the Ping was dealt with
        os.write(writer, b".")

    daemon.send_signal(signal.SIGSTOP)  # so that the daemon is the last to hold the socket
    attacker = attack(ping)
    lingering.close()
    os.read(reader, 1)
    system_bus.wait("the attacker to let go", lambda: not os.path.exists(f"/proc/{attacker}/fd/{writer}"))
    daemon.send_signal(signal.SIGCONT)
    try:
        assert seconds_of_a_call(system_bus) < 5
    finally:
        deaf.close()


# ---- actors ----

# An actor that gives up its rights and then does what it can with each descriptor that it was given.
MEDDLING_ACTOR = f"""#!/usr/bin/python3
import fcntl, os
os.setgroups([])
os.setresgid({ATTACKER}, {ATTACKER}, {ATTACKER})
os.setresuid({ATTACKER}, {ATTACKER}, {ATTACKER})
for descriptor in range(3, 256):
    try:
        fcntl.fcntl(descriptor, fcntl.F_SETFL, 0)
        os.truncate(descriptor, 0)
        os.write(descriptor, b"2026-01-01 00:00:00:cs/corvane-cs.cpp:57:segfault_handler: ERROR: forged\\n")
    except OSError:
        pass
os.kill(os.getpid(), 9)
"""


def test_an_actor_of_another_user_cannot_touch_the_log(system_bus):
    system_bus.remove("corvane-xh")
    actor = Path(f"{STAGE}/actors/bin/corvane-xh")
    actor.write_text(MEDDLING_ACTOR)
    actor.chmod(0o755)
    system_bus.start_daemon()
    before = system_bus.log_text()
    assert system_bus.caller().start(":1", "xhotkey") is True
    system_bus.wait("the actor's end", lambda: "Child process died" in system_bus.log_text())

    assert system_bus.log_text().startswith(before)
    assert "forged" not in system_bus.log_text()
    flags = [line.split()[1] for descriptor in os.listdir(f"/proc/{system_bus.daemon.pid}/fd")
             if os.readlink(f"/proc/{system_bus.daemon.pid}/fd/{descriptor}") == LOG
             for line in Path(f"/proc/{system_bus.daemon.pid}/fdinfo/{descriptor}").read_text().splitlines()
             if line.startswith("flags:")]
    assert len(flags) == 1 and int(flags[0], 8) & os.O_APPEND


# ---- processes of the daemon's name ----

def test_a_held_process_keeps_no_log_from_being_cut(system_bus, installed, held):
    system_bus.start_daemon()
    started = time.monotonic()
    for _ in range(6):
        done = subprocess.run(["logrotate", "--force", "--state", f"{STAGE}/logrotate.state",
                               str(installed / "etc/logrotate.d/corvane-cs")], capture_output=True, text=True)
        assert (done.returncode, done.stderr) == (0, "")
        system_bus.caller().hello()
    assert time.monotonic() - started < 5
    assert process_state(held) == "t"
    kept = [f"corvane-cs.log.{number}.gz" for number in (1, 2, 3, 4)]
    assert sorted(os.listdir("/var/log")) == ["corvane-cs.log", *kept]


# ---- the pid file ----


def test_the_pid_file_of_the_init_script_cannot_be_overwritten(system_bus, installed, held):
    script = str(installed / "etc/init.d/corvane-cs")
    subprocess.run([script, "start"], check=True, umask=0, stdout=subprocess.DEVNULL)
    daemon = system_bus.pid_file()

    def overwrite():
        with open(PID_FILE, "w") as file:
            file.write(str(held))

    os.waitpid(attack(overwrite), 0)
    assert system_bus.pid_file() == daemon
    assert subprocess.run([script, "stop"], stdout=subprocess.DEVNULL).returncode == 0
    assert process_state(int(daemon)) is None


def test_the_log_of_the_init_scripts_daemon_cannot_be_written(system_bus, installed):
    script = str(installed / "etc/init.d/corvane-cs")
    subprocess.run([script, "start"], check=True, umask=0, stdout=subprocess.DEVNULL)

    def forge():
        with open(LOG, "a") as file:
            file.write("forged\n")

    os.waitpid(attack(forge), 0)
    assert "forged" not in system_bus.log_text()


@pytest.mark.parametrize("text", ["{held}", "../run/attack"])
def test_a_pid_file_that_the_attacker_wrote_does_not_block_a_removal(laid_over, held, text):
    laid_over.write_pid_file(text.format(held=held))
    Path("/run/attack").mkdir()
    os.symlink("/usr/sbin/corvane-cs", "/run/attack/exe")  # what a lazy reader takes for a process
    started = time.monotonic()
    done = subprocess.run(["sh", DEBIAN / "corvane-cs.prerm", "remove"], capture_output=True, text=True,
                          timeout=60)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert time.monotonic() - started < 5 and process_state(held) == "t"
