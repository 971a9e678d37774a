# SPDX-License-Identifier: MIT
# test_bus_loss.py: whenever the bus goes away the daemon ends with status 1, and on the next bus a new one serves.
#
# A daemon that lives on without its bus is deaf: nobody would start another one. A real bus is killed at moments that
# chance picks; a bus played by the test goes away at each step of the conversation, down to half a message.
import glob
import os
import signal
import socket
import threading
import time

import pytest
from jeepney import Endianness, Header, HeaderFields, Message, MessageFlag, MessageType, Parser

from support.callers import CallFailed, plugin_call
from support.machine import FAULTS
from support.processes import process_state
from stress import chance, report, size, start_call, stop_call

SECONDS = 5


def expect_end(machine):
    """Waits for the daemon's end; returns how long it took."""
    since = time.monotonic()
    machine.wait("the daemon to be gone", lambda: machine.daemon.poll() is not None, SECONDS)
    assert machine.daemon.returncode == 1, machine.log_text()[-3000:]
    return time.monotonic() - since


def wait_service(machine):
    """Waits until a call is served; calls before the daemon has its name and its objects get errors."""
    caller = machine.caller()

    def served():
        try:
            return caller.hello() == "How are you?"
        except CallFailed:
            return False

    machine.wait("the daemon to serve", served)
    return caller


def forget_callers(machine):
    for caller in machine.callers:
        caller.close()
    machine.callers.clear()


# ---- a real bus ----


class Losses:
    """The ways in which a bus is lost; each leaves the machine without bus and daemon."""

    def __init__(self, machine, random):
        self.machine = machine
        self.random = random

    def start(self):
        self.machine.start_bus()
        self.machine.daemon = self.machine.launch(stdout=None, stderr=None)

    def pause(self, longest):
        time.sleep(self.random.uniform(0, longest))  # chance picks the moment: there is nothing to wait for

    def kill_bus(self):
        self.machine.bus.kill()
        self.machine.bus.wait()

    def idle(self):
        self.start()
        wait_service(self.machine)
        self.pause(0.02)
        self.kill_bus()

    def busy(self):
        """In the middle of a burst that nobody reads the answers to."""
        self.start()
        caller = wait_service(self.machine)
        caller.send_all([call for display in range(5) for call in
                         (start_call(display, "xhotkey"), stop_call(display, "xhotkey"))])
        self.pause(0.01)
        self.kill_bus()

    def starting(self):
        self.start()
        self.pause(0.03)
        self.kill_bus()

    def in_a_message(self):
        """While a message of many mebibytes is on its way to the daemon."""
        self.start()
        caller = wait_service(self.machine)

        def send():
            try:
                caller.send(plugin_call("Dummy", "HelloWorld", "s", 8 * 1024 * 1024 * "x"))
            except OSError:
                pass  # the bus is gone already

        sender = threading.Thread(target=send)
        sender.start()
        self.pause(0.03)
        self.kill_bus()
        sender.join()

    def stopped_first(self):
        """A bus that hangs for a while, with calls before and behind."""
        self.start()
        caller = wait_service(self.machine)
        caller.send_all([start_call(1, "xhotkey")])
        self.machine.bus.send_signal(signal.SIGSTOP)
        caller.send_all([stop_call(1, "xhotkey"), plugin_call("Dummy", "HelloWorld")])
        self.pause(0.05)
        self.kill_bus()

    def terminated(self):
        """An orderly end of the bus, which removes its socket."""
        self.start()
        wait_service(self.machine)
        self.machine.bus.terminate()
        self.machine.bus.wait()
        assert not os.path.exists("/run/stage/bus")

    def socket_removed(self):
        """Nobody finds the bus any more; the connection that the daemon has goes on until the bus ends."""
        self.start()
        caller = wait_service(self.machine)
        os.unlink("/run/stage/bus")
        assert caller.hello() == "How are you?"
        self.kill_bus()


def test_a_bus_that_is_lost_at_any_moment_ends_the_daemon_and_the_next_one_serves(bare):
    random = chance()
    losses = Losses(bare, random)
    ways = (losses.idle, losses.busy, losses.starting, losses.in_a_message, losses.stopped_first, losses.terminated,
            losses.socket_removed)
    counts = dict.fromkeys((way.__name__ for way in ways), 0)
    slowest = 0
    for number in range(size(14, 105)):
        way = ways[number % len(ways)]
        way()
        counts[way.__name__] += 1
        slowest = max(slowest, expect_end(bare))
        bare.bus.stdout.close()
        forget_callers(bare)
        for record in bare.running():
            os.kill(record.pid, signal.SIGKILL)
        for path in glob.glob("/run/stage/actors/records/*"):
            os.unlink(path)
    losses.start()
    assert wait_service(bare).start(":1", "xhotkey") is True
    bare.wait_records(1)
    report("losses of the bus", **counts, slowest_end=f"{1000 * slowest:.0f} ms")


def test_a_bus_that_is_started_again_at_once_on_the_same_socket_is_not_taken_for_the_old_one(bare):
    for _ in range(size(3, 20)):
        bare.start_bus()
        bare.daemon = bare.launch(stdout=None, stderr=None)
        wait_service(bare)
        bare.bus.kill()
        bare.bus.wait()
        bare.bus.stdout.close()
        bare.start_bus()
        expect_end(bare)
        bare.daemon = bare.launch(stdout=None, stderr=None)
        wait_service(bare)
        bare.daemon.kill()
        bare.daemon.wait()
        bare.bus.kill()
        bare.bus.wait()
        bare.bus.stdout.close()
        forget_callers(bare)


def test_a_bus_that_is_lost_while_actors_run_and_die_ends_the_daemon_and_leaves_the_actors(bare):
    bare.start_bus()
    bare.start_daemon()
    caller = bare.caller()
    bare.behave("corvane-pfk", "exit 0")
    assert caller.start(":1", "xhotkey") is True
    assert caller.start(":2", "click-mouse") is True
    (record,) = bare.wait_records(1, "corvane-xh")
    bare.wait_log("Child process died")  # its pause runs
    bare.bus.kill()
    expect_end(bare)
    assert process_state(record.pid)


def test_a_bus_that_is_lost_while_memory_is_short_ends_the_daemon(bare):
    for count in size((1, 3, 10), range(1, 41)):
        bare.start_bus()
        os.makedirs("/run/stage/faults", exist_ok=True)
        bare.start_daemon(environment={"LD_PRELOAD": FAULTS})
        bare.fail("library_memory", f"1 {count}")
        bare.bus.kill()
        expect_end(bare)
        bare.bus.wait()
        bare.bus.stdout.close()
        bare.daemon.communicate()
        if os.path.exists("/run/stage/faults/library_memory"):
            os.unlink("/run/stage/faults/library_memory")


# ---- a bus that the test plays ----

STEPS = [
    "connected",       # the daemon has connected, nothing is said
    "auth_half",       # half a line of the authentication is answered
    "authenticated",   # it is accepted, and hears no more
    "hello_asked",     # it has said Hello, and hears no answer
    "hello_half",      # half the answer to Hello
    "hello_answered",  # the whole one, and then the end in the same breath
    "name_asked",
    "name_half",
    "name_answered",
    "call_with_name",  # the name, a call and the end in one breath: the call comes during set-up
    "signal_half",     # it serves; half a signal
    "call_half",
    "call_and_end",    # it serves; a call and the end in one breath
    "garbage",         # it serves; what is no message
]


def bus_message(kind, serial, signature=None, body=(), **fields):
    named = {HeaderFields[name]: value for name, value in fields.items()}
    named[HeaderFields.sender] = "org.freedesktop.DBus"
    named[HeaderFields.destination] = ":1.7"
    if signature:
        named[HeaderFields.signature] = signature
    header = Header(Endianness.little, kind, MessageFlag.no_reply_expected, 1, -1, serial, named)
    return Message(header, body).serialise()


def a_call(serial):
    return bus_message(MessageType.method_call, serial, path="/com/corvane/ControlServer/Dummy",
                       interface="com.corvane.ControlServer.Dummy", member="HelloWorld")


def ping(serial):
    """A call that wants an answer."""
    data = bytearray(a_call(serial))
    data[2] = 0  # the flags
    return bytes(data)


class PlayedBus:
    """Plays a bus for one connection, until the step at which it hangs up."""

    def __init__(self, path, step):
        self.step = step
        self.error = None
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
                self.talk()
        except Exception as error:
            self.error = error
        self.listener.close()

    def line(self):
        text = b""
        while not text.endswith(b"\r\n"):
            text += self.connection.recv(1)
        return text

    def message(self):
        """The next message of the daemon's."""
        while not (message := self.parser.get_next_message()):
            data = self.connection.recv(4096)
            assert data, "the daemon hung up"
            self.parser.add_data(data)
        return message

    def answer(self, call, signature, value, more=b"", half=False):
        data = bus_message(MessageType.method_return, 1000 + call.header.serial, signature, (value,),
                           reply_serial=call.header.serial) + more
        self.connection.sendall(data[:len(data) // 2] if half else data)

    def talk(self):
        step = STEPS.index(self.step)

        def ends_at(name):
            return step == STEPS.index(name)

        if ends_at("connected"):
            return
        assert self.connection.recv(1) == b"\0"
        assert self.line().startswith(b"AUTH EXTERNAL")
        if ends_at("auth_half"):
            return self.connection.sendall(b"OK 0123")
        self.connection.sendall(b"OK 0123456789abcdef0123456789abcdef\r\n")
        assert self.line() == b"NEGOTIATE_UNIX_FD\r\n"
        self.connection.sendall(b"AGREE_UNIX_FD\r\n")
        assert self.line() == b"BEGIN\r\n"
        if ends_at("authenticated"):
            return
        self.parser = Parser()
        hello = self.message()
        assert hello.header.fields[HeaderFields.member] == "Hello"
        if ends_at("hello_asked"):
            return
        self.answer(hello, "s", ":1.7", half=ends_at("hello_half"))
        if ends_at("hello_half") or ends_at("hello_answered"):
            return
        request = self.message()
        assert request.header.fields[HeaderFields.member] == "RequestName"
        if ends_at("name_asked"):
            return
        more = a_call(50) if ends_at("call_with_name") else b""
        self.answer(request, "u", 1, more, half=ends_at("name_half"))
        if step <= STEPS.index("call_with_name"):
            return
        self.connection.sendall(ping(51))
        reply = self.message()  # it serves
        assert reply.header.fields[HeaderFields.reply_serial] == 51
        if ends_at("signal_half"):
            data = bus_message(MessageType.signal, 52, "s", ("x" * 1000,), path="/org/freedesktop/DBus",
                               interface="org.freedesktop.DBus", member="NameAcquired")
            self.connection.sendall(data[:500])
        elif ends_at("call_half"):
            self.connection.sendall(a_call(53)[:-9])
        elif ends_at("call_and_end"):
            self.connection.sendall(a_call(54))
        else:
            self.connection.sendall(b"GET / HTTP/1.1\r\nHost: corvane\r\n\r\n")


@pytest.mark.parametrize("step", STEPS)
def test_a_bus_that_hangs_up_at_any_step_of_the_conversation_ends_the_daemon(bare, step):
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
    wait_service(bare)
