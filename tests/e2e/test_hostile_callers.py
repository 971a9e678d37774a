# SPDX-License-Identifier: MIT
# test_hostile_callers.py: every call gets exactly one reply, and no caller can harm the others.
#
# Each case runs several times against one daemon. After each run the next caller is served at once, and the
# daemon has the same open descriptors as before. Its memory may grow only by what the case allows.
import contextlib
import resource
import signal
import socket
import struct
import tempfile
from array import array

import pytest
from jeepney import (
    DBusAddress,
    Endianness,
    Header,
    HeaderFields,
    Message,
    MessageFlag,
    MessageType,
    new_signal,
)

from hostile import BASIC, MOST_OPEN, SLACK_BYTES, START_BYTES, Ground, HungUp, call, hello, start, stop
from stress import report, size
from support.place import NAME, PATH

STATION_BYTES = 40 * 1024  # a station keeps its worker with the stack and a part of the heap
BACKLOG_BYTES = 1024 * 1024  # thousands of calls in libdbus's queue

# The kernel limits the descriptors in flight between the processes of an unprivileged user to RLIMIT_NOFILE.
# The tests use half of them.
IN_FLIGHT = MOST_OPEN // 2
many_descriptors = pytest.mark.skipif(MOST_OPEN < 1024, reason="the bus may not open enough descriptors")
DBUS = "org.freedesktop.DBus"
CASES = {}

# fmt: off
STRANGE_TEXTS = (
    "%n", "%s%s%s%s%s%s%s%s", "%999999d", "%1$n", "%p%x%hhn", "%", "%*d", "%.999999999s",
    *map(chr, range(1, 33)), "\x7f", "\x80", "\x9f", "\x1b[2J\x1b]0;x\x07", "\r\n", "\b\b\b", "\u202e:1",
    ":1\u202c", "\u2066xhotkey\u2069", "\ufeff:1", "e\u0301" * 100, "\ufffe\uffff",
    "\U0001f469\u200d\U0001f4bb", "\U0010ffff", "\u2028\u2029\u0085",
    "\n2026-01-01 00:00:00:cs/corvane-cs.cpp:1:segfault_handler: ERROR: Catch segfault signal.\n",
)
STRANGE_PATHS = (
    "/", "/com", PATH, f"{PATH}/DisplayManager/child", f"{PATH}/displaymanager", f"{PATH}/Dummy/a/b/c", "/_",
    "/0/1/2", "/" + 60000 * "a", 500 * "/a",
)
# fmt: on


def case(function=None, *, runs=3, grows_by=0, backlog=0):
    """Adds a case. One run may keep `grows_by` bytes permanently, and all runs `backlog` bytes."""
    if function is None:
        return lambda named: case(named, runs=runs, grows_by=grows_by, backlog=backlog)
    CASES[function.__name__] = (function, runs, grows_by, backlog)
    return function


# ---- arguments ----


@case
def arguments_of_other_types(ground, client):
    containers = {"v": ("s", "x"), "as": ["x"], "(s)": ("x",), "a{sv}": {"x": ("s", "x")}}
    for letter, value in {**BASIC, **containers}.items():
        for position in range(3):
            body = [":1", "xhotkey", "PCI"]
            body[position] = value
            types = ["s", "s", "s"]
            types[position] = letter
            client.send(call("Start", "".join(types), body))
            client.send(call("Stop", "".join(types[:2]), body[:2]))


@case
def too_few_and_too_many_arguments(ground, client):
    for count in (*range(9), 255):
        client.send(call("Start", count * "s", count * ["x"]))
        client.send(call("Stop", count * "s", count * ["x"]))
        client.send(call("HelloWorld", count * "s", count * ["x"], plugin="Dummy"))


@case
def large_and_deep_containers(ground, client):
    variant, struct_, signature = ("s", "x"), "x", "s"
    for _ in range(60):
        variant = ("v", variant)
    for _ in range(31):
        struct_, signature = (struct_,), f"({signature})"
    for member in ("Start", "Stop"):
        client.send(call(member, "ay", [b"\0" * 100_000]))
        client.send(call(member, "as", [1000 * ["x" * 100]]))
        client.send(call(member, 30 * "a" + "s", [[]]))
        client.send(call(member, "a{ya{yv}}", [{1: {2: ("i", 3)}}]))
        client.send(call(member, "v", [variant]))
        client.send(call(member, signature, [struct_]))


@case
def texts_of_any_length(ground, client):
    """One at a time: how much memory several long ones take at once depends on the scheduler."""
    for length in (0, 1, 64 * 1024, 1024 * 1024):
        text = length * "x"
        for message in (
            start(text),
            start(":1", text),
            start(":1", "init-station", text),
            stop(":" + text, text),
            call("HelloWorld", "s", (text,), plugin="Dummy"),
            call("Launch", "s", (text,)),
        ):
            client.send(message)
            client.settle()


@case(runs=1)
def texts_that_libdbus_hardly_holds(ground, client):
    """Above 63 MiB libdbus stops reading until the message is freed. The calls after it must not be lost."""
    client.send(start(32 * 1024 * 1024 * "x"))
    client.send(call("HelloWorld", "s", (70 * 1024 * 1024 * "x",), plugin="Dummy"))
    for _ in range(3):
        client.send(hello())


@case
def texts_with_a_meaning_elsewhere(ground, client):
    for text in STRANGE_TEXTS:
        client.send(start(f":{text}", text, text))
        client.send(start(":1", text, "PCI"))
        client.send(start(":1", "xhotkey", text))
        client.send(stop(f"{text}:", text))


# ---- descriptors ----


@case
def descriptors_in_many_places(ground, client):
    with contextlib.ExitStack() as stack:
        files = [stack.enter_context(tempfile.TemporaryFile(dir="/run")) for _ in range(16)]
        for count in (1, 3, 16):
            client.send(call("Start", count * "h", files[:count]))
        for file in files:
            client.send(call("Start", "sssh", (":1", "bad actor", "PCI", file)))
            client.send(call("HelloWorld", "h", (file,), plugin="Dummy"))
            client.send(call("Launch", "hh", (file, file), flags=1))
        bus = stack.enter_context(socket.socket(socket.AF_UNIX))
        bus.connect("/run/stage/bus")
        client.send(call("Start", "h", (bus,)))


@case
def descriptors_in_a_burst(ground, client):
    messages, at_once = 100, max(1, IN_FLIGHT // 16)
    with tempfile.TemporaryFile(dir="/run") as file:
        for sent in range(0, messages, at_once):
            for _ in range(min(at_once, messages - sent)):
                client.send(call("Launch", 16 * "h", 16 * [file]))
            client.settle()


# ---- headers ----


@case
def other_interfaces(ground, client):
    for interface in (None, "a.b", NAME, f"{NAME}.Dummy", "org.freedesktop.DBus", "a." + 253 * "b"):
        client.send(start(":1", "bad actor", interface=interface))
        client.send(stop(":99", "xhotkey", interface=interface))
        client.send(hello(interface=interface))
        client.send(call(255 * "M", interface=interface))


@case(grows_by=4 * START_BYTES)
def any_flags(ground, client):
    for flags in (1, 2, 4, 0xF8):
        client.send(start(flags=flags))
        client.send(hello(flags=flags))
        client.send(hello(flags=flags | 1))
        client.send(call("Launch", flags=flags | 1))
        client.send(call("Start", "s", ("x",), flags=flags | 1))


@case
def unknown_paths(ground, client):
    for path in STRANGE_PATHS:
        client.send(start(path=path))
        client.send(call("Introspect", interface="org.freedesktop.DBus.Introspectable", path=path))


def with_field(message, serial, code, signature, value):
    """The message's bytes with one more header field, which the bus may not know."""
    data = message.serialise(serial=serial)
    (length,) = struct.unpack_from("<I", data, 12)
    end, begin = 16 + length, 16 + length + -length % 8
    fields, body = data[16:end], data[begin:]
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
    dictionary = call("Start", "a{sv}", ({"a": ("t", 1)},))
    for message in (start(), start("x", "y", "z"), hello(), call("Start", "i", (1,)), dictionary):
        message.header.endianness = Endianness.big
        client.send(message)


@case
def one_serial_for_all(ground, client):
    for serial in (7, 0xFFFFFFFF):
        for _ in range(20):
            client.send(hello(), serial)


@case
def the_unique_name(ground, client):
    client.send(start(":1", "bad actor", destination=ground.unique_name))
    client.send(hello(destination=ground.unique_name))
    client.send(call("Launch", destination=ground.unique_name))


# ---- other messages ----


@case
def replies_that_were_not_asked_for(ground, client):
    for serial in (1, 2, 3, 77, 0xFFFFFFFF):
        for destination in (NAME, ground.unique_name):
            for error in (None, "a.b", f"{DBUS}.Error.Disconnected", f"{DBUS}.Error.NoMemory"):
                fields = {HeaderFields.path: f"{PATH}/DisplayManager", HeaderFields.destination: destination}
                fields[HeaderFields.reply_serial] = serial
                if error:
                    fields[HeaderFields.error_name] = error
                kind = MessageType.error if error else MessageType.method_return
                client.send(Message(Header(Endianness.little, kind, MessageFlag(0), 1, -1, -1, fields), ()))


@case
def signals(ground, client):
    own = DBusAddress(f"{PATH}/DisplayManager", interface=f"{NAME}.DisplayManager")
    bus = DBusAddress("/org/freedesktop/DBus", interface="org.freedesktop.DBus")
    for address, member, signature, body in (
        (own, "Start", "sss", (":1", "xhotkey", "PCI")),
        (own, "Stop", None, ()),
        (bus, "NameLost", "s", (NAME,)),
        (bus, "NameAcquired", "s", (NAME,)),
        (bus, "NameOwnerChanged", "sss", (NAME, ground.unique_name, "")),
    ):
        for destination in (NAME, ground.unique_name, None):
            message = new_signal(address, member, signature, body)
            if destination:
                message.header.fields[HeaderFields.destination] = destination
            client.send(message)


@case
def unknown_types_of_messages(ground, client):
    for kind in (5, 6, 99, 255):
        serial = client.next_serial()
        client.others.add(serial)  # libdbus may reply to a message of an unknown type
        data = bytearray(start().serialise(serial=serial))
        data[1] = kind
        client.send_bytes(data)


@case
def calls_that_libdbus_answers_itself(ground, client):
    methods = "Peer.Ping Peer.GetMachineId Introspectable.Introspect Properties.GetAll Peer.Other"
    for method in methods.split():
        interface, _, member = method.partition(".")
        client.send(call(member, interface=f"{DBUS}.{interface}"))
        client.send(call(member, interface=f"{DBUS}.{interface}", path="/"))


@case
def bytes_that_are_no_message(ground, client):
    expect_hang_up(client, b"GET / HTTP/1.1\r\nHost: corvane\r\n\r\n" + bytes(4096))


@case
def a_forged_end_of_the_connection(ground, client):
    """It would end the daemon, but the bus does not pass it on."""
    local = DBusAddress("/org/freedesktop/DBus/Local", interface=f"{DBUS}.Local")
    signal = new_signal(local, "Disconnected")
    signal.header.fields[HeaderFields.destination] = NAME
    expect_hang_up(client, signal.serialise(serial=9))


def expect_hang_up(client, data):
    client.send_bytes(data)
    with pytest.raises(HungUp):
        client.settle()


# ---- what callers do ----


@case
def a_caller_that_asks_for_the_name(ground, client):
    bus = {"interface": DBUS, "path": "/org/freedesktop/DBus", "destination": DBUS}
    client.send(call("RequestName", "su", (NAME, 1 | 2), **bus))
    client.settle()
    client.send(hello())


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
def callers_that_vanish(ground, client):
    for count in 60 * [1] + [10, 300]:
        other = ground.client()
        for _ in range(count):
            other.send(stop(":x", "y"))
        other.close()


@case
def callers_that_vanish_within_a_message(ground, client):
    data = start(1024 * 1024 * ":").serialise(serial=9)
    for length in (1, 15, 16, 100, len(data) // 2, len(data) - 1):
        other = ground.client()
        other.send_bytes(data[:length])
        other.close()


@case
def callers_that_stay_silent(ground, client):
    for _ in range(30):
        ground.client()


@case(grows_by=5 * START_BYTES)
def starts_and_stops_of_one_actor_by_many_callers(ground, client):
    callers = [ground.client() for _ in range(5)]
    for caller in callers:
        caller.send(start(":1", "xhotkey"))
        caller.send(stop(":1", "xhotkey"))
    for caller in callers:
        caller.settle()


stations = iter(range(100, 2**31))


@case(grows_by=20 * (STATION_BYTES + START_BYTES))
def new_stations(ground, client):
    for _ in range(20):
        client.send(start(f":{next(stations)}"))


@pytest.mark.parametrize("name", CASES)
def test_a_hostile_caller_harms_no_other_caller(ground, name):
    attack, runs, grows_by, backlog = CASES[name]
    runs = size(runs, 5 * runs)

    def run():
        client = ground.client()
        attack(ground, client)
        with contextlib.suppress(HungUp):  # a case that expects it has checked it
            client.settle()
        ground.serves_at_once()
        ground.clean()

    run()
    run()
    descriptors, memory = ground.descriptors(), ground.memory()
    for _ in range(runs):
        run()
        assert ground.descriptors() == descriptors
    growth = ground.memory() - memory
    assert growth <= SLACK_BYTES + backlog + runs * grows_by
    assert ground.machine.daemon.poll() is None
    report(
        name,
        slowest_next_caller=f"{1000 * ground.slowest:.0f} ms",
        memory=f"{memory // 1024} KiB",
        growth=f"{growth // 1024} KiB in {runs} runs",
    )


@many_descriptors
def test_the_daemon_serves_after_a_message_with_the_most_descriptors_that_the_kernel_carries(bare, own_limit):
    with contextlib.closing(Ground(bare, '<limit name="max_message_unix_fds">250</limit>')) as ground:
        client = ground.client()
        with tempfile.TemporaryFile(dir="/run") as file:
            for count in (17, 250):
                client.send(call("Start", count * "h", count * [file]))
        client.settle()
        ground.serves_at_once()


def send_descriptors(client, file, count, are_in_the_body):
    """Sends a message with so many descriptors. The body may have no arguments for them."""
    serial = client.next_serial()
    client.wanted[serial] = 1
    if are_in_the_body:
        data = call("Launch", count * "h", count * [file]).serialise(serial=serial, fds=array("i"))
    else:
        data = with_field(hello(), serial, HeaderFields.unix_fds.value, "u", struct.pack("<I", count))
    client.send_bytes(data, array("i", count * [file.fileno()]))


@many_descriptors
@pytest.mark.parametrize("are_in_the_body", [True, False])
def test_the_daemon_serves_after_more_descriptors_than_it_may_open(bare, own_limit, are_in_the_body):
    few = 300  # one message of 253 and the daemon's own descriptors fit; two such messages do not
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
                    send_descriptors(client, file, 253, are_in_the_body)
                ground.ask_bus(client, "GetId")  # the bus has read them all
                bare.daemon.send_signal(signal.SIGCONT)
                client.settle()
        ground.serves_at_once()
        assert ground.descriptors() == descriptors
