# SPDX-License-Identifier: MIT
# descriptor.py: a call over the system bus that carries a descriptor, which no tool of this machine can send.
import array
import re
import socket
import struct

ADDRESS = "/run/dbus/system_bus_socket"
SIGNAL = 4  # a message's type


def pad(data, size):
    return data + b"\0" * (-len(data) % size)


def text(value):
    """A string or an object path of a message."""
    return struct.pack("<I", len(value)) + value.encode() + b"\0"


def signature(value):
    return bytes([len(value)]) + value.encode() + b"\0"


def message(serial, destination, path, interface, member, strings=(), descriptors=0):
    """A call with the arguments strings, and one more if descriptors is 1."""
    body = b""
    for string in strings:
        body = pad(body, 4) + text(string)
    if descriptors:
        body = pad(body, 4) + struct.pack("<I", 0)
    types = "s" * len(strings) + "h" * descriptors
    fields = b""
    for code, kind, value in ((1, "o", text(path)), (2, "s", text(interface)), (3, "s", text(member)),
                              (6, "s", text(destination)), (8, "g", signature(types)),
                              (9, "u", struct.pack("<I", descriptors))):
        fields = pad(fields, 8) + bytes([code]) + signature(kind) + value
    header = struct.pack("<BBBBIII", ord("l"), 1, 0, 1, len(body), serial, len(fields))
    return pad(header + fields, 8) + body


def receive(connection):
    """The next message that is no signal."""
    while True:
        header = connection.recv(16, socket.MSG_WAITALL)
        _, kind, _, _, body, _, fields = struct.unpack("<BBBBIII", header)
        rest = connection.recv(fields + -fields % 8 + body, socket.MSG_WAITALL)
        if kind != SIGNAL:
            return rest


def call(destination, path, interface, member, *strings):
    """Makes a call with strings and a descriptor for arguments; returns the name of the error, or None."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(20)
        connection.connect(ADDRESS)
        connection.sendall(b"\0AUTH EXTERNAL 30\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n")  # 30: root's uid, in hex
        answer = b""
        while answer.count(b"\r\n") < 2:
            answer += connection.recv(1)
        bus = "org.freedesktop.DBus"
        connection.sendall(message(1, bus, "/org/freedesktop/DBus", bus, "Hello"))
        receive(connection)
        with open("/dev/null", "rb") as sent:
            data = message(2, destination, path, interface, member, strings, 1)
            ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [sent.fileno()]))]
            connection.sendmsg([data], ancillary)
            found = re.search(rb"org\.freedesktop\.DBus\.Error\.\w+", receive(connection))
    return found[0].decode() if found else None
