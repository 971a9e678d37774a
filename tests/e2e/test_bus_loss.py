# SPDX-License-Identifier: MIT
# test_bus_loss.py: the daemon exits with status 1 when it loses the bus, and a new one serves the next bus.
#
# A daemon without its bus would be deaf, and no service manager would replace it. The stories kill a real bus
# at random moments. A played bus hangs up after each step of the conversation, also within a message.
import contextlib
import glob
import os
import signal
import socket
import threading
import time

import pytest
from jeepney import Endianness, Header, HeaderFields, Message, MessageFlag, MessageType, Parser

from stress import chance, report, size
from support.callers import plugin_call, start_call, stop_call
from support.place import NAME, PATH
from support.processes import process_state

SECONDS = 5
DBUS = "org.freedesktop.DBus"


def expect_end(machine):
    """Waits until the daemon exits; returns the seconds that this took."""
    since = time.monotonic()
    machine.wait("gone daemon", lambda: machine.daemon.poll() is not None, SECONDS)
    assert machine.daemon.returncode == 1, machine.log_text()[-3000:]
    return time.monotonic() - since


def forget_callers(machine):
    for caller in machine.callers:
        caller.close()
    machine.callers.clear()


# ---- a real bus ----


class Losses:
    """The ways to lose a bus. Each one leaves a daemon that has to exit."""

    def __init__(self, machine, random):
        self.machine = machine
        self.random = random

    def start(self):
        self.machine.start_bus()
        self.machine.daemon = self.machine.launch(stdout=None, stderr=None)

    def pause(self, longest):
        time.sleep(self.random.uniform(0, longest))  # a random moment: there is no event to wait for

    def idle(self):
        self.start()
        self.machine.wait_service()
        self.pause(0.02)
        self.machine.kill_bus()

    def busy(self):
        """During a burst whose caller does not read the replies."""
        self.start()
        caller = self.machine.wait_service()
        caller.send_all(
            [make(f":{display}", "xhotkey") for display in range(5) for make in (start_call, stop_call)]
        )
        self.pause(0.01)
        self.machine.kill_bus()

    def starting(self):
        self.start()
        self.pause(0.03)
        self.machine.kill_bus()

    def in_a_message(self):
        """While the daemon receives a message of several mebibytes."""
        self.start()
        caller = self.machine.wait_service()

        def send():
            with contextlib.suppress(OSError):  # the bus may be gone already
                caller.send(plugin_call("Dummy", "HelloWorld", "s", 8 * 1024 * 1024 * "x"))

        sender = threading.Thread(target=send)
        sender.start()
        self.pause(0.03)
        self.machine.kill_bus()
        sender.join()

    def stopped_first(self):
        """After the bus hung for a while, with calls before and during that time."""
        self.start()
        caller = self.machine.wait_service()
        caller.send_all([start_call(":1", "xhotkey")])
        self.machine.bus.send_signal(signal.SIGSTOP)
        caller.send_all([stop_call(":1", "xhotkey"), plugin_call("Dummy", "HelloWorld")])
        self.pause(0.05)
        self.machine.kill_bus()

    def terminated(self):
        """By an orderly exit of the bus, which removes its socket."""
        self.start()
        self.machine.wait_service()
        self.machine.bus.terminate()
        self.machine.bus.wait()
        self.machine.bus.stdout.close()
        assert not os.path.exists("/run/stage/bus")

    def socket_removed(self):
        """After the socket was removed. The daemon's connection stays until the bus exits."""
        self.start()
        caller = self.machine.wait_service()
        os.unlink("/run/stage/bus")
        assert caller.hello() == "How are you?"
        self.machine.kill_bus()


def test_the_daemon_exits_when_it_loses_the_bus_at_any_moment_and_the_next_daemon_serves(bare):
    random = chance()
    losses = Losses(bare, random)
    names = "idle busy starting in_a_message stopped_first terminated socket_removed"
    ways = [getattr(losses, name) for name in names.split()]
    counts = dict.fromkeys((way.__name__ for way in ways), 0)
    slowest = 0
    for number in range(size(14, 105)):
        way = ways[number % len(ways)]
        way()
        counts[way.__name__] += 1
        slowest = max(slowest, expect_end(bare))
        forget_callers(bare)
        for record in bare.running():
            os.kill(record.pid, signal.SIGKILL)
        for path in glob.glob("/run/stage/actors/records/*"):
            os.unlink(path)
    losses.start()
    assert bare.wait_service().start(":1", "xhotkey") is True
    bare.wait_records(1)
    report("losses of the bus", **counts, slowest_end=f"{1000 * slowest:.0f} ms")


def test_the_daemon_exits_although_a_new_bus_starts_at_once_on_the_same_socket(bare):
    for _ in range(size(3, 20)):
        bare.start_bus()
        bare.daemon = bare.launch(stdout=None, stderr=None)
        bare.wait_service()
        bare.kill_bus()
        bare.start_bus()
        expect_end(bare)
        bare.daemon = bare.launch(stdout=None, stderr=None)
        bare.wait_service()
        bare.daemon.kill()
        bare.daemon.wait()
        bare.kill_bus()
        forget_callers(bare)


def test_the_daemon_exits_and_its_actors_survive_when_it_loses_the_bus(bare):
    bare.start_bus()
    bare.start_daemon()
    caller = bare.caller()
    bare.behave("corvane-pfk", "exit 0")
    assert caller.start(":1", "xhotkey") is True
    assert caller.start(":2", "click-mouse") is True
    (record,) = bare.wait_records(1, "corvane-xh")
    bare.wait_log("Child process died")  # a pause has begun
    bare.kill_bus()
    expect_end(bare)
    assert process_state(record.pid)


def test_the_daemon_exits_when_it_loses_the_bus_while_memory_is_short(bare):
    for count in size((1, 3, 10), range(1, 41)):
        bare.start_bus()
        bare.start_daemon(preloaded=True)
        bare.fail("library_memory", count=count)
        bare.kill_bus()
        expect_end(bare)
        bare.daemon.communicate()
        bare.remove_rule("library_memory")


# ---- a played bus ----

# fmt: off
STEPS = [  # the last step before the bus hangs up
    "connection", "half of OK", "OK", "BEGIN",
    "Hello", "half of Hello's reply", "Hello's reply",
    "RequestName", "half of RequestName's reply", "RequestName's reply",
    "half of an early call", "an early call", "half of a signal", "a signal", "half of a call", "a call",
    "bytes that are no message",
]
# fmt: on


def bus_message(kind, serial, signature=None, body=(), **fields):
    named = {HeaderFields[name]: value for name, value in fields.items()}
    named[HeaderFields.sender] = DBUS
    named[HeaderFields.destination] = ":1.7"
    if signature:
        named[HeaderFields.signature] = signature
    header = Header(Endianness.little, kind, MessageFlag.no_reply_expected, 1, -1, serial, named)
    return Message(header, body).serialise()


def hello_call(serial, flags=1):
    named = {"path": f"{PATH}/Dummy", "interface": f"{NAME}.Dummy", "member": "HelloWorld"}
    data = bytearray(bus_message(MessageType.method_call, serial, **named))
    data[2] = flags
    return bytes(data)


class PlayedBus:
    """Plays a bus for one connection, up to the step after which it hangs up."""

    def __init__(self, path, last_step):
        self.last_step = last_step
        self.error = None
        self.parser = Parser()
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.play)
        self.thread.start()

    def play(self):
        try:
            self.connection, _ = self.listener.accept()
            self.connection.settimeout(10)
            with self.connection:
                assert self.last_step in self.conversation(), "the conversation has no such step"
        except Exception as error:
            self.error = error
        self.listener.close()

    def line(self):
        text = b""
        while not text.endswith(b"\r\n"):
            text += self.connection.recv(1)
        return text

    def message(self):
        """The next message from the daemon."""
        while not (message := self.parser.get_next_message()):
            data = self.connection.recv(4096)
            assert data, "the daemon hung up"
            self.parser.add_data(data)
        return message

    def send(self, name, data):
        """Sends data in two halves; each is a step."""
        middle = len(data) // 2
        self.connection.sendall(data[:middle])
        yield f"half of {name}"
        self.connection.sendall(data[middle:])
        yield name

    def reply_to_call_of(self, member, signature, value):
        """Receives a call and sends its reply."""
        call = self.message()
        assert call.header.fields[HeaderFields.member] == member
        yield member
        serial = call.header.serial
        reply = bus_message(
            MessageType.method_return, 1000 + serial, signature, (value,), reply_serial=serial
        )
        yield from self.send(f"{member}'s reply", reply)

    def conversation(self):
        """Yields the name of each step after it."""
        yield "connection"
        assert self.connection.recv(1) == b"\0" and self.line().startswith(b"AUTH EXTERNAL")
        yield from self.send("OK", b"OK 0123456789abcdef0123456789abcdef\r\n")
        assert self.line() == b"NEGOTIATE_UNIX_FD\r\n"
        self.connection.sendall(b"AGREE_UNIX_FD\r\n")
        assert self.line() == b"BEGIN\r\n"
        yield "BEGIN"
        yield from self.reply_to_call_of("Hello", "s", ":1.7")
        yield from self.reply_to_call_of("RequestName", "u", 1)
        yield from self.send("an early call", hello_call(50))  # may arrive during set-up
        self.connection.sendall(hello_call(51, flags=0))
        while self.message().header.fields[HeaderFields.reply_serial] != 51:
            pass  # the reply to the early call; the daemon serves after the next one
        named = {"path": "/org/freedesktop/DBus", "interface": DBUS, "member": "NameAcquired"}
        yield from self.send("a signal", bus_message(MessageType.signal, 52, "s", ("x" * 1000,), **named))
        yield from self.send("a call", hello_call(53))
        self.connection.sendall(b"GET / HTTP/1.1\r\nHost: corvane\r\n\r\n")
        yield "bytes that are no message"


@pytest.mark.parametrize("step", STEPS)
def test_the_daemon_exits_when_the_bus_hangs_up_after_any_step_of_the_conversation(bare, step):
    for _ in range(size(1, 10)):
        bus = PlayedBus("/run/stage/bus", step)
        bare.address = "unix:path=/run/stage/bus"
        bare.daemon = bare.launch(stdout=None, stderr=None)
        bus.thread.join(10)
        assert not bus.thread.is_alive() and bus.error is None, (bus.error, bare.log_text())
        expect_end(bare)
        os.unlink("/run/stage/bus")
    bare.start_bus()
    bare.daemon = bare.launch(stdout=None, stderr=None)
    bare.wait_service()
