# SPDX-License-Identifier: MIT
# test_attacks.py: what a user without rights may try against an installed daemon.
#
# The attacker has what every user has: the system bus, processes with any name, and the programs that run as
# actors. His attempts on the pid file are in test_init_script.py and test_maintainer_scripts.py.
import os
import signal
import socket
import struct
import time
from pathlib import Path

import pytest
from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import open_dbus_connection

from conftest import STRANGER as ATTACKER
from conftest import start_system_bus
from support.callers import Caller, plugin_call
from support.place import LOG, NAME, PATH, STAGE

BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
INTROSPECT = new_method_call(DBusAddress(PATH, bus_name=NAME, interface=INTROSPECTABLE), "Introspect")


def attack(task):
    """Runs task() in a process of the attacker; returns its pid. The process ends with the story."""
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
    """How long root waits for a reply."""
    caller = machine.caller()
    started = time.monotonic()
    assert caller.ask(plugin_call("Dummy", "HelloWorld"), timeout=30) == ("How are you?",)
    return time.monotonic() - started


def test_a_caller_that_never_reads_does_not_delay_root(laid_over, policies):
    """The bus stops reading from a service of which it holds too much; a low limit is reached sooner."""
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
        except OSError:  # the bus reads no more
            pass
        os.write(writer, b".")
        time.sleep(600)

    attack(flood)
    os.read(reader, 1)

    assert seconds_of_a_call(laid_over) < 5
    assert not [text for text in laid_over.texts()[len(before) :] if "Introspect" in text]


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
        connection.send_and_get_reply(
            new_method_call(BUS, "GetId"), timeout=10
        )  # the bus has handled the Ping
        os.write(writer, b".")

    daemon.send_signal(signal.SIGSTOP)  # so that the daemon would be the last to hold the socket
    attacker = attack(ping)
    lingering.close()
    os.read(reader, 1)
    system_bus.wait("the attacker to exit", lambda: not os.path.exists(f"/proc/{attacker}/fd/{writer}"))
    daemon.send_signal(signal.SIGCONT)
    try:
        assert seconds_of_a_call(system_bus) < 5
    finally:
        deaf.close()


# An actor that gives up its rights and then does what it can with each descriptor that it inherited.
HOSTILE_ACTOR = f"""#!/usr/bin/python3
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
    actor.write_text(HOSTILE_ACTOR)
    actor.chmod(0o755)
    daemon = system_bus.start_daemon()
    before = system_bus.log_text()
    assert system_bus.caller().start(":1", "xhotkey") is True
    system_bus.wait("the actor's end", lambda: "Child process died" in system_bus.log_text())

    assert system_bus.log_text().startswith(before)
    assert "forged" not in system_bus.log_text()
    flags = [
        line.split()[1]
        for descriptor in os.listdir(f"/proc/{daemon.pid}/fd")
        if os.readlink(f"/proc/{daemon.pid}/fd/{descriptor}") == LOG
        for line in Path(f"/proc/{daemon.pid}/fdinfo/{descriptor}").read_text().splitlines()
        if line.startswith("flags:")
    ]
    assert len(flags) == 1 and int(flags[0], 8) & os.O_APPEND
