# SPDX-License-Identifier: MIT
# test_hostile_callers.py: whatever a caller does, every call that wants an answer gets exactly one, and nobody suffers.
#
# Each case is run a few times against one daemon: first to warm it up, then measured. After each run the next caller is
# served at once, the daemon has the descriptors that it had, and its memory has not grown but for what the case names.
# The last test is a caller whose messages chance makes.
import contextlib
import os
import resource
import signal
import socket
import struct
import tempfile
import time
from array import array

import pytest
from jeepney import (DBusAddress, Endianness, Header, HeaderFields, Message, MessageFlag, MessageType, new_method_call,
                     new_signal)
from jeepney.io.blocking import open_dbus_connection

from support.machine import SANITIZER
from support.place import LOG, NAME, PATH
from stress import chance, report, size

# A bus that lets everything through, as large as a message may be.
BUS = """<busconfig><type>session</type><listen>unix:path=/run/stage/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow send_requested_reply="false"/><allow receive_requested_reply="false"/></policy>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">134217728</limit><limit name="max_incoming_unix_fds">100000</limit>
<limit name="max_outgoing_unix_fds">100000</limit>%s
<limit name="max_replies_per_connection">1000000</limit></busconfig>"""

AT_ONCE = 2  # seconds, on a machine that others load too; the figures printed are the ones that count
START_BYTES = 13 * 1024  # a start keeps its thread's stack for good: so much of it was ever touched
STATION_BYTES = 40 * 1024  # a station keeps its worker, and that its share of the heap
SLACK_BYTES = 256 * 1024  # caches of the bus library and of malloc that a warm-up has not filled yet
BACKLOG_BYTES = 1024 * 1024  # what a burst of some thousand calls takes while it waits in the bus library's queue

# A user who is not privileged may have as many descriptors in flight between processes as a process of theirs may have
# open: those that were sent and not yet received, of all their processes. The other half is left to other processes.
MOST_OPEN = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
IN_FLIGHT = MOST_OPEN // 2
many_descriptors = pytest.mark.skipif(MOST_OPEN < 1024, reason="the bus may not open enough descriptors")


def call(member, signature="", body=(), plugin="DisplayManager", interface="", path=None, destination=NAME, flags=0):
    """A method call; an interface of None is left out, an empty one is the plugin's."""
    interface = f"{NAME}.{plugin}" if interface == "" else interface
    address = DBusAddress(path or f"{PATH}/{plugin}", bus_name=destination, interface=interface)
    message = new_method_call(address, member, signature or None, tuple(body))
    message.header.flags = MessageFlag(0)
    message.raw_flags = flags
    return message


def start(display=":1", actor="init-station", station_type="COMMON", **more):
    return call("Start", "sss", (display, actor, station_type), **more)


def hello(**more):
    return call("HelloWorld", plugin="Dummy", **more)


def stranger(kind, member="Start", **fields):
    """A message to the display manager that is no call."""
    named = {HeaderFields.path: f"{PATH}/DisplayManager", HeaderFields.destination: NAME}
    named.update({HeaderFields[name]: value for name, value in fields.items()})
    return Message(Header(Endianness.little, kind, MessageFlag(0), 1, -1, -1, named), ())


class HungUp(Exception):
    """The bus has closed the connection."""


class Client:
    """A caller that keeps account of its calls and of the answers to each."""

    def __init__(self, address):
        self.connection = open_dbus_connection(address, enable_fds=True)
        self.serial = 100
        self.wanted = {}  # by serial: how many answers are due
        self.others = set()  # serials that want no answer, but may get one: the daemon answers whatever it can read
        self.answers = {}

    def send(self, message, serial=None):
        """Sends a message; what it has in raw_flags goes into the header as it is."""
        serial = serial or self.next_serial()
        descriptors = array("i")
        data = bytearray(message.serialise(serial=serial, fds=descriptors))
        data[2] = getattr(message, "raw_flags", data[2])
        if message.header.message_type == MessageType.method_call and not data[2] & 1:
            self.wanted[serial] = self.wanted.get(serial, 0) + 1
        elif message.header.message_type == MessageType.method_call:
            self.others.add(serial)
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

    def receive(self, timeout):
        try:
            return self.connection.receive(timeout=timeout)
        except (ConnectionResetError, BrokenPipeError):
            raise HungUp from None

    def settle(self, timeout=30):
        """Waits until all is answered: calls are answered in their order, so one more call tells."""
        last = self.next_serial()
        self.send(hello(), last)
        while last not in self.answers:
            try:
                message = self.receive(timeout)
            except TimeoutError:
                raise AssertionError(f"no answer to {self.missing()}") from None
            serial = message.header.fields.get(HeaderFields.reply_serial)
            if serial is not None:
                self.answers[serial] = self.answers.get(serial, 0) + 1
        assert message.header.message_type == MessageType.method_return, message.body  # the daemon's, not the bus's
        assert not self.missing(), f"wrong number of answers, by serial: {self.missing()}"
        self.wanted.clear()
        self.others.clear()
        self.answers.clear()

    def missing(self):
        """By serial: how many answers came and were wanted, where these differ."""
        counts = {serial: (self.answers.get(serial, 0), self.wanted.get(serial, 0))
                  for serial in sorted({*self.wanted, *self.answers})}
        return {serial: (came, wanted) for serial, (came, wanted) in counts.items()
                if came != wanted and not (came == 1 and serial in self.others)}

    def expect_hang_up(self):
        with pytest.raises(HungUp):
            self.settle()

    def close(self):
        self.connection.close()


class Ground:
    """The machine with its daemon, as the cases see it."""

    def __init__(self, machine, limit="", **launch):
        self.machine = machine
        with open("/run/stage/bus.conf", "w") as file:
            file.write(BUS % limit)
        machine.start_bus("--config-file=/run/stage/bus.conf")
        resource.prlimit(machine.bus.pid, resource.RLIMIT_NOFILE, (MOST_OPEN, MOST_OPEN))
        machine.start_daemon(**launch)
        # The callers are this process: the kernel looks at its soft limit when they send descriptors.
        resource.setrlimit(resource.RLIMIT_NOFILE, (MOST_OPEN, MOST_OPEN))
        self.clients = []
        self.slowest = 0
        self.bystander = self.client()
        self.unique_name = self.ask_bus(self.bystander, "GetNameOwner", "s", NAME)

    def ask_bus(self, client, member, signature=None, *arguments):
        address = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
        (answer,) = client.connection.send_and_get_reply(new_method_call(address, member, signature, arguments)).body
        return answer

    def client(self):
        client = Client(self.machine.address)
        self.clients.append(client)
        return client

    def clean(self):
        for client in self.clients[1:]:
            client.close()
        del self.clients[1:]

    def close(self):
        self.clean()
        self.bystander.close()

    def serves_at_once(self):
        """A caller that is there already and a new one are both served."""
        for client in (self.bystander, self.client()):
            begin = time.monotonic()
            client.settle(AT_ONCE)
            self.slowest = max(self.slowest, time.monotonic() - begin)

    def descriptors(self):
        return sorted(os.readlink(link.path) for link in os.scandir(f"/proc/{self.machine.daemon.pid}/fd"))

    def memory(self):
        if SANITIZER:
            return 0  # the sanitizer keeps what was freed, to recognise it
        with open(f"/proc/{self.machine.daemon.pid}/status") as file:
            (kib,) = [line.split()[1] for line in file if line.startswith("RssAnon:")]
        return 1024 * int(kib)

    def forget_log(self):
        os.truncate(LOG, 0)


@pytest.fixture(autouse=True)
def own_limit():
    """Restores the limit that a Ground raises."""
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, limit)


@pytest.fixture
def ground(bare):
    with contextlib.closing(Ground(bare)) as ground:
        yield ground


# ---- the cases ----

CASES = {}


def case(function=None, *, runs=3, grows_by=0, backlog=0):
    """A case; `grows_by` is what one run of it may keep of memory for good, `backlog` what all together may."""
    if function is None:
        return lambda named: case(named, runs=runs, grows_by=grows_by, backlog=backlog)
    CASES[function.__name__] = (function, runs, grows_by, backlog)
    return function


BASIC = {"y": 1, "b": True, "n": -1, "q": 1, "i": -1, "u": 1, "x": -1, "t": 1, "d": 1.5, "o": "/a", "g": "s"}


@case
def no_interface(ground, client):
    client.send(start(":1", "bad actor", interface=None))
    client.send(call("Stop", "ss", (":99", "xhotkey"), interface=None))
    client.send(hello(interface=None))
    client.send(call("Launch", interface=None))


@case
def another_interface(ground, client):
    for interface in ("a.b", f"{NAME}", f"{NAME}.Dummy", f"{NAME}.DisplayManagerX", "org.freedesktop.DBus"):
        client.send(start(interface=interface))


@case
def other_basic_types(ground, client):
    for letter, value in BASIC.items():
        for position in range(3):
            body = [":1", "xhotkey", "PCI"]
            body[position] = value
            signature = position * "s" + letter + (2 - position) * "s"
            client.send(call("Start", signature, body))
            client.send(call("Stop", signature[:2], body[:2]))


@case
def too_few_and_too_many_arguments(ground, client):
    for count in range(9):
        client.send(call("Start", count * "s", count * ["x"]))
        client.send(call("Stop", count * "s", count * ["x"]))
        client.send(call("HelloWorld", count * "s", count * ["x"], plugin="Dummy"))


@case
def arrays(ground, client):
    for signature, body in (("as", [[":1", "xhotkey", "PCI"]]), ("as", [[]]), ("aas", [[[], ["x"]]]),
                            ("ay", [b"\0" * 100_000]), ("as", [1000 * ["x" * 100]]), ("ad", [[1.0, 2.0]]),
                            ("sas", [":1", ["xhotkey"]]), (30 * "a" + "s", [[]])):
        client.send(call("Start", signature, body))
        client.send(call("Stop", signature, body))


@case
def variants(ground, client):
    deep = ("s", "x")
    for _ in range(60):
        deep = ("v", deep)
    for value in (("s", ":1"), ("v", ("s", ":1")), ("as", [":1"]), deep):
        client.send(call("Start", "vss", (value, "xhotkey", "PCI")))
        client.send(call("Start", "v", (value,)))


@case
def structs(ground, client):
    deep, signature = "x", "s"
    for _ in range(31):
        deep, signature = (deep,), f"({signature})"
    client.send(call("Start", "(sss)", ((":1", "xhotkey", "PCI"),)))
    client.send(call("Start", "ss(s)", (":1", "xhotkey", ("PCI",))))
    client.send(call("Stop", signature, (deep,)))


@case
def dictionaries(ground, client):
    client.send(call("Start", "a{ss}", ({"display": ":1", "actor": "xhotkey"},)))
    client.send(call("Start", "a{sv}", ({"display": ("s", ":1")},)))
    client.send(call("Stop", "a{ya{yv}}", ({1: {2: ("i", 3)}},)))


def some_files(count):
    return [tempfile.TemporaryFile(dir="/run") for _ in range(count)]


@case
def descriptors_instead_of_texts(ground, client):
    for count in (1, 3, 16):
        files = some_files(count)
        client.send(call("Start", count * "h", files))
        for file in files:
            file.close()


@case
def descriptors_behind_the_texts(ground, client):
    for file in some_files(5):
        with file:
            client.send(call("Start", "sssh", (":1", "bad actor", "PCI", file)))
            client.send(call("HelloWorld", "h", (file,), plugin="Dummy"))
            client.send(call("Launch", "h", (file,), plugin="Dummy"))


@case
def more_descriptors_than_the_bus_lets_through(ground, client):
    with tempfile.TemporaryFile(dir="/run") as file:
        with contextlib.suppress(HungUp):
            client.send(call("Start", 17 * "h", 17 * [file]))
        client.expect_hang_up()


@case
def descriptors_in_a_burst(ground, client):
    messages, at_once = 100, max(1, IN_FLIGHT // 16)
    with tempfile.TemporaryFile(dir="/run") as file:
        for sent in range(0, messages, at_once):
            for _ in range(min(at_once, messages - sent)):
                client.send(call("Launch", 16 * "h", 16 * [file]))
            client.settle()


@case
def descriptors_that_want_no_reply(ground, client):
    for file in some_files(40):
        with file:
            client.send(call("Launch", "hh", (file, file), flags=1))


@case
def a_descriptor_of_the_bus_itself(ground, client):
    with socket.socket(socket.AF_UNIX) as other:
        other.connect("/run/stage/bus")
        client.send(call("Start", "h", (other,)))


@case(grows_by=START_BYTES)
def no_reply_wanted(ground, client):
    for message in (start, hello):
        client.send(message(flags=1))
    client.send(call("Launch", flags=1))
    client.send(call("Start", "s", ("x",), flags=1))


@case(grows_by=3 * START_BYTES)
def other_flags(ground, client):
    for flags in (2, 4, 0xF8):
        client.send(start(flags=flags))
        client.send(hello(flags=flags))
        client.send(hello(flags=flags | 1))


@case
def empty_texts(ground, client):
    client.send(start("", "", ""))
    client.send(start(":1", "", "PCI"))
    client.send(start(":1", "init-station", ""))
    client.send(call("Stop", "ss", ("", "")))


def texts_of(client, length):
    text = length * "x"
    client.send(start(text))
    client.send(start(":1", text))
    client.send(start(":1", "init-station", text))
    client.send(call("Stop", "ss", (":" + text, text)))
    client.send(call("HelloWorld", "s", (text,), plugin="Dummy"))
    client.send(call("Launch", "s", (text,)))


@case
def texts_of_a_byte(ground, client):
    texts_of(client, 1)


@case
def texts_of_64_kib(ground, client):
    texts_of(client, 64 * 1024)


@case
def texts_of_a_mebibyte(ground, client):
    texts_of(client, 1024 * 1024)


@case(runs=1)
def a_text_of_32_mebibytes(ground, client):
    client.send(start(32 * 1024 * 1024 * "x"))


@case(runs=1)
def a_text_larger_than_what_the_bus_library_likes_to_hold(ground, client):
    """Beyond 63 MiB it stops reading until the message is gone; what came behind it must not be forgotten."""
    client.send(call("HelloWorld", "s", (70 * 1024 * 1024 * "x",), plugin="Dummy"))
    for _ in range(3):
        client.send(hello())


@case
def conversions(ground, client):
    for text in ("%n", "%s%s%s%s%s%s%s%s", "%999999d", "%1$n", "%p%x%hhn", "%", "%%n", "%*d", "%.999999999s", "%ms"):
        client.send(start(f":{text}", text, text))
        client.send(start(":1", text, "PCI"))
        client.send(start(":1", "xhotkey", text))
        client.send(call("Stop", "ss", (":1", text)))


@case
def control_characters(ground, client):
    for text in (*map(chr, range(1, 33)), "\x7f", "\x80", "\x9f", "\x1b[2J\x1b]0;x\x07", "\r\n", "\b\b\b"):
        client.send(start(f":1{text}", text, text))
        client.send(call("Stop", "ss", (f"{text}:", text)))


@case
def a_forged_line_of_the_log(ground, client):
    forged = "\n2026-01-01 00:00:00:cs/corvane-cs.cpp:1:segfault_handler: ERROR: Catch segfault signal.\n"
    client.send(start(forged))
    client.send(start(":1", forged))
    client.settle()
    assert ground.machine.daemon.poll() is None


@case
def marks_of_every_direction(ground, client):
    for text in ("\u202e:1", ":1\u202c", "\u200f:1\u200e", "\u2066xhotkey\u2069", "\ufeff:1", "e\u0301" * 100,
                 "\U0001f469\u200d\U0001f4bb", "\ufffe\uffff", "\U0010ffff", "\u2028\u2029\u0085"):
        client.send(start(text, text, text))
        client.send(call("Stop", "ss", (":1", text)))


@case
def paths_that_are_nobodys(ground, client):
    for path in ("/", "/com", PATH, f"{PATH}/DisplayManager/child", f"{PATH}/displaymanager", f"{PATH}/Dummy/a/b/c",
                 "/_", "/0/1/2", "/" + 60000 * "a", 500 * "/a"):
        client.send(start(path=path))
        client.send(call("Introspect", interface="org.freedesktop.DBus.Introspectable", path=path))


@case
def arguments_by_the_hundred(ground, client):
    for letter, value in (("s", "x"), ("y", 1), ("b", True), ("v", ("s", "x"))):
        client.send(call("Start", 255 * letter, 255 * [value]))
        client.send(call("HelloWorld", 255 * letter, 255 * [value], plugin="Dummy"))


@case
def names_as_long_as_they_may_be(ground, client):
    client.send(call(255 * "M"))
    client.send(call("Start", interface="a." + 253 * "b"))
    client.send(call(255 * "M", 255 * "s", 255 * ["x"], interface="a." + 253 * "b"))


def with_field(message, serial, code, signature, value):
    """The message's bytes with one more header field, which the bus may know or not."""
    data = message.serialise(serial=serial)
    (length,) = struct.unpack_from("<I", data, 12)
    fields, body = data[16:16 + length], data[16 + length + -length % 8:]
    fields += bytes(-length % 8) + bytes([code, len(signature)]) + signature.encode() + b"\0" + value
    return data[:12] + struct.pack("<I", len(fields)) + fields + bytes(-len(fields) % 8) + body


@case
def unknown_header_fields(ground, client):
    for code in (11, 12, 99, 255):
        for signature, value in (("y", b"\7"), ("s", struct.pack("<I", 3) + b"abc\0")):
            serial = client.next_serial()
            client.wanted[serial] = 1
            client.send_bytes(with_field(hello(), serial, code, signature, value))


@case
def a_forged_sender(ground, client):
    for sender in (ground.unique_name, "org.freedesktop.DBus", NAME, ":1.0"):
        message = hello()
        message.header.fields[HeaderFields.sender] = sender
        client.send(message)


@case(grows_by=START_BYTES)
def the_other_byte_order(ground, client):
    for message in (start(), start("x", "y", "z"), hello(), call("Start", "i", (1,)), call("Launch", "ad", ([1.0],)),
                    call("Start", "a{sv}", ({"a": ("t", 1)},))):
        message.header.endianness = Endianness.big
        client.send(message)


@case
def answers_that_nobody_asked_for(ground, client):
    for serial in (1, 2, 3, 77, 0xFFFFFFFF):
        for destination in (NAME, ground.unique_name):
            answer = stranger(MessageType.method_return, reply_serial=serial, destination=destination)
            client.send(answer)
            del answer.header.fields[HeaderFields.path]
            client.send(answer)


@case
def errors_that_nobody_asked_for(ground, client):
    for serial in (1, 2, 3, 77, 0xFFFFFFFF):
        for name in ("a.b", "org.freedesktop.DBus.Error.Disconnected", "org.freedesktop.DBus.Error.NoMemory"):
            client.send(stranger(MessageType.error, reply_serial=serial, error_name=name))


@case
def signals(ground, client):
    own = DBusAddress(f"{PATH}/DisplayManager", interface=f"{NAME}.DisplayManager")
    bus = DBusAddress("/org/freedesktop/DBus", interface="org.freedesktop.DBus")
    for address, member, signature, body in ((own, "Start", "sss", (":1", "xhotkey", "PCI")), (own, "Stop", None, ()),
                                             (bus, "NameLost", "s", (NAME,)), (bus, "NameAcquired", "s", (NAME,)),
                                             (bus, "NameOwnerChanged", "sss", (NAME, ground.unique_name, ""))):
        for destination in (NAME, ground.unique_name, None):
            signal = new_signal(address, member, signature, body)
            if destination:
                signal.header.fields[HeaderFields.destination] = destination
            client.send(signal)


@case
def unknown_kinds_of_messages(ground, client):
    for kind in (5, 6, 99, 255):
        serial = client.next_serial()
        client.others.add(serial)  # the bus library may answer what it does not know
        data = bytearray(start().serialise(serial=serial))
        data[1] = kind
        client.send_bytes(data)


@case
def what_the_bus_library_answers_itself(ground, client):
    for interface, member in (("Peer", "Ping"), ("Peer", "GetMachineId"), ("Introspectable", "Introspect"),
                              ("Properties", "GetAll"), ("Peer", "Other")):
        client.send(call(member, interface=f"org.freedesktop.DBus.{interface}"))
        client.send(call(member, interface=f"org.freedesktop.DBus.{interface}", path="/"))


@case
def the_unique_name(ground, client):
    client.send(start(":1", "bad actor", destination=ground.unique_name))
    client.send(hello(destination=ground.unique_name))
    client.send(call("Launch", destination=ground.unique_name))


@case
def somebody_else_asks_for_the_name(ground, client):
    client.send(call("RequestName", "su", (NAME, 1 | 2), interface="org.freedesktop.DBus",
                     path="/org/freedesktop/DBus", destination="org.freedesktop.DBus"))
    client.settle()
    client.send(hello())


@case
def one_serial_for_all(ground, client):
    for serial in (7, 0xFFFFFFFF):
        for _ in range(20):
            client.send(hello(), serial)


@case(runs=2, backlog=BACKLOG_BYTES)
def a_caller_that_never_reads(ground, client):
    for _ in range(3000):
        client.send(hello())
    ground.serves_at_once()


@case(runs=2, backlog=BACKLOG_BYTES)
def thousands_of_pending_calls(ground, client):
    callers = [ground.client() for _ in range(10)]
    for _ in range(300):
        for caller in callers:
            caller.send(start(":x"))
    for caller in callers:
        caller.settle()


@case
def a_caller_that_vanishes_in_mid_call(ground, client):
    for count in (1, 10, 300):
        other = ground.client()
        for _ in range(count):
            other.send(call("Stop", "ss", (":x", "y")))
        other.close()


@case
def a_caller_that_vanishes_in_mid_message(ground, client):
    data = start(1024 * 1024 * ":").serialise(serial=9)
    for length in (1, 15, 16, 100, len(data) // 2, len(data) - 1):
        other = ground.client()
        other.send_bytes(data[:length])
        other.close()


@case
def callers_that_come_and_vanish(ground, client):
    for _ in range(60):
        other = ground.client()
        other.send(hello())
        other.close()


@case
def callers_that_stay_and_say_nothing(ground, client):
    for _ in range(30):
        ground.client()


@case(grows_by=5 * START_BYTES)
def starts_and_stops_of_one_actor_by_many(ground, client):
    callers = [ground.client() for _ in range(5)]
    for caller in callers:
        caller.send(start(":1", "xhotkey"))
        caller.send(call("Stop", "ss", (":1", "xhotkey")))
    for caller in callers:
        caller.settle()


stations = iter(range(100, 2**31))


@case(grows_by=20 * (STATION_BYTES + START_BYTES))
def a_station_for_every_number(ground, client):
    for _ in range(20):
        client.send(start(f":{next(stations)}"))


# What the bus does not let through, and ends the caller for.


def hung_up(client, data):
    client.send_bytes(data)
    client.expect_hang_up()


def changed(message, offset, *values):
    data = bytearray(message.serialise(serial=9))
    data[offset:offset + len(values)] = bytes(values)
    return data


@case
def the_path_of_the_bus_library_itself(ground, client):
    hung_up(client, start(path="/org/freedesktop/DBus/Local").serialise(serial=9))


@case
def a_forged_end_of_the_connection(ground, client):
    local = DBusAddress("/org/freedesktop/DBus/Local", interface="org.freedesktop.DBus.Local")
    signal = new_signal(local, "Disconnected")
    signal.header.fields[HeaderFields.destination] = NAME
    hung_up(client, signal.serialise(serial=9))


@case
def serial_zero(ground, client):
    hung_up(client, changed(hello(), 8, 0, 0, 0, 0))


@case
def another_version_of_the_protocol(ground, client):
    hung_up(client, changed(hello(), 3, 2))


@case
def kind_zero(ground, client):
    hung_up(client, changed(hello(), 1, 0))


@case
def a_length_beyond_all_limits(ground, client):
    hung_up(client, changed(hello(), 4, 255, 255, 255, 127))


@case
def a_text_that_is_no_utf_8(ground, client):
    hung_up(client, start("\x01\x01\x01").serialise(serial=9).replace(b"\1\1\1\0", b"\xff\xc0\x80\0"))


@case
def a_text_with_a_zero_inside(ground, client):
    hung_up(client, start("\x01\x01\x01").serialise(serial=9).replace(b"\1\1\1\0", b"\1\0\1\0"))


@case
def a_call_without_a_path(ground, client):
    message = hello()
    del message.header.fields[HeaderFields.path]
    hung_up(client, message.serialise(serial=9))


@case
def a_signature_that_is_none(ground, client):
    hung_up(client, start().serialise(serial=9).replace(b"\3sss\0", b"\3s(s\0"))


@case
def no_message_at_all(ground, client):
    hung_up(client, b"GET / HTTP/1.1\r\nHost: corvane\r\n\r\n" + bytes(4096))


@pytest.mark.parametrize("name", CASES)
def test_a_hostile_caller_harms_nobody(ground, name):
    attack, runs, grows_by, backlog = CASES[name]
    runs = size(runs, 5 * runs)

    def run():
        client = ground.client()
        attack(ground, client)
        with contextlib.suppress(HungUp):  # a case that expects it has checked it
            client.settle()
        ground.serves_at_once()
        ground.clean()
        ground.forget_log()

    run()
    run()
    descriptors, memory = ground.descriptors(), ground.memory()
    for _ in range(runs):
        run()
        assert ground.descriptors() == descriptors
    growth = ground.memory() - memory
    assert growth <= SLACK_BYTES + backlog + runs * grows_by
    assert ground.machine.daemon.poll() is None
    report(name, slowest_next_caller=f"{1000 * ground.slowest:.0f} ms", memory=f"{memory // 1024} KiB",
           growth=f"{growth // 1024} KiB in {runs} runs")


@many_descriptors
def test_a_message_of_as_many_descriptors_as_the_kernel_carries_ends_nobody(bare):
    with contextlib.closing(Ground(bare, '<limit name="max_message_unix_fds">250</limit>')) as ground:
        client = ground.client()
        with tempfile.TemporaryFile(dir="/run") as file:
            for count in (17, 250):
                client.send(call("Start", count * "h", count * [file]))
        client.settle()
        ground.serves_at_once()


def full_of_descriptors(client, file, count, is_told_in_the_body):
    """Sends a message of so many descriptors; its body may know nothing of them."""
    serial = client.next_serial()
    client.wanted[serial] = 1
    if is_told_in_the_body:
        data = call("Launch", count * "h", count * [file]).serialise(serial=serial, fds=array("i"))
    else:
        data = with_field(hello(), serial, HeaderFields.unix_fds.value, "u", struct.pack("<I", count))
    client.send_bytes(data, array("i", count * [file.fileno()]))


@many_descriptors
@pytest.mark.parametrize("is_told_in_the_body", [True, False])
def test_more_descriptors_at_once_than_the_daemon_may_open_end_nobody(bare, is_told_in_the_body):
    few = 300  # one message of 253, and what the daemon has open itself; two such messages are too many
    messages, at_once = 40, IN_FLIGHT // 253

    def restrict():
        resource.setrlimit(resource.RLIMIT_NOFILE, (few, few))

    many = '<limit name="max_message_unix_fds">253</limit>'
    with contextlib.closing(Ground(bare, many, preexec_fn=restrict)) as ground:
        descriptors = ground.descriptors()
        client = ground.client()
        with tempfile.TemporaryFile(dir="/run") as file:
            for sent in range(0, messages, at_once):
                bare.daemon.send_signal(signal.SIGSTOP)
                for _ in range(min(at_once, messages - sent)):
                    full_of_descriptors(client, file, 253, is_told_in_the_body)
                ground.ask_bus(client, "GetId")  # the bus has read them all
                bare.daemon.send_signal(signal.SIGCONT)
                client.settle()
        ground.serves_at_once()
        assert ground.descriptors() == descriptors


# ---- chance ----

TEXTS = (":1", ":2", ":x", ":2147483648", "host:3.1", "init-station", "xhotkey", "local-login", "press-fkey", "PCI",
         "COMMON", "", "%n%s", "\n", "\u202e", 200 * "x", 5000 * "y")


class Chance:
    """Makes messages. All are valid on the bus; few are what the daemon expects."""

    def __init__(self, ground):
        self.random = chance()
        self.destinations = (NAME, NAME, NAME, ground.unique_name)

    def type(self, depth=0):
        kind = self.random.random()
        if depth > 3 or kind < 0.7:
            return self.random.choice("sssssybnqiuxtdogh")
        if kind < 0.8:
            return "a" + self.type(depth + 1)
        if kind < 0.87:
            return "v"
        if kind < 0.94:
            return "(" + "".join(self.type(depth + 1) for _ in range(self.random.randint(1, 3))) + ")"
        return "a{" + self.random.choice("sybnqiuxtdog") + self.type(depth + 1) + "}"

    def value(self, signature):
        """A value for the first type of the signature; returns it and what is left of the signature."""
        letter, rest = signature[0], signature[1:]
        if letter == "s":
            return self.random.choice(TEXTS), rest
        if letter == "h":
            return self.file, rest
        if letter == "v":
            inner = self.type(2)
            return (inner, self.value(inner)[0]), rest
        if letter == "(":
            fields = []
            while rest[0] != ")":
                value, rest = self.value(rest)
                fields.append(value)
            return tuple(fields), rest[1:]
        if letter == "a" and rest[0] == "{":
            key, behind = self.value(rest[1:])
            value, behind = self.value(behind)
            return {key: value}, behind[1:]
        if letter == "a":
            value, behind = self.value(rest)
            return [value] if self.random.random() < 0.6 else [], behind
        return BASIC[letter], rest

    def message(self):
        random = self.random
        signature = "sss" if random.random() < 0.3 else "".join(self.type() for _ in range(random.randint(0, 4)))
        body, rest = [], signature
        while rest:
            value, rest = self.value(rest)
            body.append(value)
        plugin = random.choice(("DisplayManager", "DisplayManager", "Dummy"))
        if signature == "sss" and random.random() < 0.3:
            body = [random.choice((":1", ":2")), random.choice(("init-station", "xhotkey", "local-login")), "PCI"]
        message = call(random.choice(("Start", "Start", "Stop", "Stop", "HelloWorld", "Introspect", "x_1")), signature,
                       body, plugin=plugin, interface=random.choice(("", "", "", None, "a.b")),
                       path=random.choice((None, None, None, None, "/", f"{PATH}/Dummy/x")),
                       destination=random.choice(self.destinations), flags=random.choice((0, 0, 0, 1, 2, 3, 4, 8)))
        message.header.endianness = random.choice((Endianness.little, Endianness.big))
        kind = random.random()
        if kind < 0.1:
            message.header.message_type = random.choice((MessageType.method_return, MessageType.error))
            message.header.fields[HeaderFields.reply_serial] = random.randint(1, 2**32 - 1)
            message.header.fields[HeaderFields.error_name] = "a.b"
        elif kind < 0.15 and HeaderFields.interface in message.header.fields:
            message.header.message_type = MessageType.signal
        return message


def test_messages_that_chance_makes_get_one_answer_each_that_wants_one(ground):
    makes = Chance(ground)
    total = size(3000, 100_000)
    descriptors = memory = None
    accepted = 0
    with tempfile.TemporaryFile(dir="/run") as makes.file:
        for sent in range(0, total, 100):
            client = ground.client()
            for _ in range(100):
                client.send(makes.message())
            client.settle()
            with open(LOG, errors="surrogateescape") as log:
                accepted += log.read().count("DEBUG: Start method_start_thread for actor:")
            ground.forget_log()
            ground.clean()
            if sent % 1000 == 900:
                ground.serves_at_once()
                ground.clean()
                if descriptors is None:  # warm
                    descriptors, memory, accepted = ground.descriptors(), ground.memory(), 0
                assert ground.descriptors() == descriptors
    growth = ground.memory() - memory
    report("messages of chance", messages=total, starts_after_warm_up=accepted, growth=f"{growth // 1024} KiB",
           slowest_next_caller=f"{1000 * ground.slowest:.0f} ms")
    assert growth <= SLACK_BYTES + accepted * START_BYTES
    assert ground.machine.daemon.poll() is None
