# SPDX-License-Identifier: MIT
# hostile.py: callers that send invalid or excessive messages, and the checks that follow.
import contextlib
import os
import resource
import time
from array import array

import pytest
from jeepney import DBusAddress, HeaderFields, MessageFlag, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

from support.machine import SANITIZER
from support.place import LOG, NAME, PATH

# A bus that forwards everything, up to the largest message that the protocol allows.
BUS = """<busconfig><type>session</type><listen>unix:path=/run/stage/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow send_requested_reply="false"/><allow receive_requested_reply="false"/></policy>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">134217728</limit><limit name="max_incoming_unix_fds">100000</limit>
<limit name="max_outgoing_unix_fds">100000</limit>%s
<limit name="max_replies_per_connection">1000000</limit></busconfig>"""

AT_ONCE = 2  # seconds, on a machine with other load
START_BYTES = 13 * 1024  # the part of a thread's stack that a start touches; the stack is never released
SLACK_BYTES = 256 * 1024  # caches of libdbus and malloc that the first runs do not fill
MOST_OPEN = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
BASIC = {"y": 1, "b": True, "n": -1, "q": 1, "i": -1, "u": 1, "x": -1, "t": 1, "d": 1.5, "o": "/a", "g": "s"}


def call(
    member, signature="", body=(), plugin="DisplayManager", interface="", path=None, destination=NAME, flags=0
):
    """A method call. The interface None is left out; an empty one is that of the plugin."""
    interface = f"{NAME}.{plugin}" if interface == "" else interface
    address = DBusAddress(path or f"{PATH}/{plugin}", bus_name=destination, interface=interface)
    message = new_method_call(address, member, signature or None, tuple(body))
    message.header.flags = MessageFlag(0)
    message.raw_flags = flags
    return message


def start(display=":1", actor="init-station", station_type="COMMON", **more):
    return call("Start", "sss", (display, actor, station_type), **more)


def stop(display=":1", actor="init-station", **more):
    return call("Stop", "ss", (display, actor), **more)


def hello(**more):
    return call("HelloWorld", plugin="Dummy", **more)


class HungUp(Exception):
    """The bus has closed the connection."""


class Client:
    """A caller that counts the replies to each of its calls."""

    def __init__(self, address):
        self.connection = open_dbus_connection(address, enable_fds=True)
        self.serial = 100
        self.wanted = {}  # serial -> expected number of replies
        self.others = set()  # serials of messages that want no reply, but may get one
        self.answers = {}  # serial -> number of replies

    def send(self, message, serial=None):
        """Sends a message; `raw_flags` of the message goes into the header unchanged."""
        serial = serial or self.next_serial()
        descriptors = array("i")
        data = bytearray(message.serialise(serial=serial, fds=descriptors))
        data[2] = getattr(message, "raw_flags", data[2])
        if message.header.message_type == MessageType.method_call:
            if data[2] & 1:
                self.others.add(serial)
            else:
                self.wanted[serial] = self.wanted.get(serial, 0) + 1
        self.send_bytes(data, descriptors)

    def next_serial(self):
        self.serial += 1
        return self.serial

    def send_bytes(self, data, descriptors=()):
        try:
            if descriptors:
                self.connection._send_with_fds(data, descriptors)
            else:
                self.connection.sock.sendall(data)
        except (BrokenPipeError, ConnectionResetError):
            raise HungUp from None

    def settle(self, timeout=30):
        """Waits for all replies. The daemon replies in order, so one more call marks the end."""
        last = self.next_serial()
        self.send(hello(), last)
        while last not in self.answers:
            try:
                message = self.connection.receive(timeout=timeout)
            except TimeoutError:
                raise AssertionError(f"no reply to {self.missing()}") from None
            except (ConnectionResetError, BrokenPipeError):
                raise HungUp from None
            serial = message.header.fields.get(HeaderFields.reply_serial)
            if serial is not None:
                self.answers[serial] = self.answers.get(serial, 0) + 1
        assert message.header.message_type == MessageType.method_return, message.body  # not the bus's error
        assert not self.missing(), f"serial -> replies that came and were wanted: {self.missing()}"
        self.wanted.clear()
        self.others.clear()
        self.answers.clear()

    def missing(self):
        """Serial -> number of replies that came and that were wanted, where the two differ."""
        counts = {s: (self.answers.get(s, 0), self.wanted.get(s, 0)) for s in {*self.wanted, *self.answers}}
        return {
            s: (came, wanted)
            for s, (came, wanted) in counts.items()
            if came != wanted and not (came == 1 and s in self.others)
        }

    def close(self):
        self.connection.close()


class Ground:
    """A machine whose daemon and bus are under attack."""

    def __init__(self, machine, limit="", **launch):
        self.machine = machine
        with open("/run/stage/bus.conf", "w") as file:
            file.write(BUS % limit)
        machine.start_bus("--config-file=/run/stage/bus.conf")
        resource.prlimit(machine.bus.pid, resource.RLIMIT_NOFILE, (MOST_OPEN, MOST_OPEN))
        machine.start_daemon(**launch)
        # The callers are in this process. When they send descriptors, the kernel checks its soft limit.
        resource.setrlimit(resource.RLIMIT_NOFILE, (MOST_OPEN, MOST_OPEN))
        self.clients = []
        self.slowest = 0
        self.bystander = self.client()
        self.unique_name = self.ask_bus(self.bystander, "GetNameOwner", "s", NAME)

    def ask_bus(self, client, member, signature=None, *arguments):
        address = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
        request = new_method_call(address, member, signature, arguments)
        (answer,) = client.connection.send_and_get_reply(request).body
        return answer

    def client(self):
        client = Client(self.machine.address)
        self.clients.append(client)
        return client

    def clean(self):
        """Closes the callers, except the bystander, and empties the log."""
        for client in self.clients[1:]:
            client.close()
        del self.clients[1:]
        os.truncate(LOG, 0)

    def close(self):
        for client in self.clients:
            client.close()

    def serves_at_once(self):
        """Asserts that the daemon serves an old caller and a new one."""
        for client in (self.bystander, self.client()):
            begin = time.monotonic()
            client.settle(AT_ONCE)
            self.slowest = max(self.slowest, time.monotonic() - begin)

    def descriptors(self):
        return sorted(os.readlink(link.path) for link in os.scandir(f"/proc/{self.machine.daemon.pid}/fd"))

    def memory(self):
        if SANITIZER:
            return 0  # the sanitizer keeps freed memory
        with open(f"/proc/{self.machine.daemon.pid}/status") as file:
            (kib,) = [line.split()[1] for line in file if line.startswith("RssAnon:")]
        return 1024 * int(kib)


@pytest.fixture
def own_limit():
    """Restores the limit that a Ground raises."""
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, limit)


@pytest.fixture
def ground(bare, own_limit):
    with contextlib.closing(Ground(bare)) as ground:
        yield ground
