# SPDX-License-Identifier: MIT
# test_policy.py: the bus lets root make the described calls to the control server, and other users none.
#
# Root and a stranger try each way to reach a daemon on the system bus. Every answer names its sender, because
# the daemon itself refuses what it does not know. The tests also read the files: a file may name any user or
# group, and only two users ask here.
import json
import os
import traceback
import xml.etree.ElementTree as ElementTree

import pytest
from jeepney import DBusAddress, HeaderFields, MessageFlag, MessageType, new_method_call, new_signal
from jeepney.io.blocking import open_dbus_connection

from conftest import BUS_ERRORS, STRANGER
from support.callers import Caller
from support.place import NAME, PATH

ROOT = 0
MANAGER = (f"{PATH}/DisplayManager", f"{NAME}.DisplayManager")
DUMMY = (f"{PATH}/Dummy", f"{NAME}.Dummy")
INTROSPECTABLE, PEER = "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"
BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
DENIED = "the bus: org.freedesktop.DBus.Error.AccessDenied"
UNKNOWN = "the daemon: org.freedesktop.DBus.Error.UnknownMethod"
NO_DISPLAY = ("", "local-login", "PCI")  # understood, and answered with false
HELLO = f"obj={DUMMY[0]}, interface={DUMMY[1]}, member=HelloWorld, type=1"

# name of the row, path, interface, member, arguments, answer to root; the bus always refuses a stranger
CALLS = [
    ("Start", *MANAGER, "Start", NO_DISPLAY, [False]),
    ("Stop", *MANAGER, "Stop", NO_DISPLAY[:2], [False]),
    ("HelloWorld", *DUMMY, "HelloWorld", (), ["How are you?"]),
    ("Start without arguments", *MANAGER, "Start", (), UNKNOWN),
    ("Start without an interface", MANAGER[0], None, "Start", NO_DISPLAY, DENIED),
    ("Stop without an interface", MANAGER[0], None, "Stop", NO_DISPLAY[:2], DENIED),
    ("HelloWorld without an interface", DUMMY[0], None, "HelloWorld", (), DENIED),
    ("Introspect without an interface", MANAGER[0], None, "Introspect", (), DENIED),
    ("a member of DisplayManager that has no rule", *MANAGER, "Restart", (), DENIED),
    ("a member of Dummy that has no rule", *DUMMY, "GoodbyeWorld", (), DENIED),
    ("an interface that has no rule", MANAGER[0], NAME, "Start", NO_DISPLAY, DENIED),
    ("a member with another interface's rule", MANAGER[0], DUMMY[1], "Start", NO_DISPLAY, DENIED),
    ("Introspect of DisplayManager", MANAGER[0], INTROSPECTABLE, "Introspect", (), "a description"),
    ("Introspect of Dummy", DUMMY[0], INTROSPECTABLE, "Introspect", (), "a description"),
    ("Introspect of the root", "/", INTROSPECTABLE, "Introspect", (), "a description"),
    ("Ping", MANAGER[0], PEER, "Ping", (), []),
    ("GetMachineId", MANAGER[0], PEER, "GetMachineId", (), DENIED),
    ("Get", MANAGER[0], PROPERTIES, "Get", ("a", "b"), DENIED),
    ("GetAll", MANAGER[0], PROPERTIES, "GetAll", ("a",), DENIED),
]


@pytest.fixture
def served(system_bus):
    """A machine whose daemon serves the system bus."""
    system_bus.start_daemon()
    return system_bus


def as_user(uid, task):
    """The result of task() in a process of a user who is in no group except the user's own."""
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups([])
            os.setresgid(uid, uid, uid)
            os.setresuid(uid, uid, uid)
            result = {"result": task()}
        except BaseException:
            result = {"error": traceback.format_exc()}
        os.write(writer, json.dumps(result).encode())
        os._exit(0)
    os.close(writer)
    with os.fdopen(reader) as pipe:
        result = json.load(pipe)
    os.waitpid(child, 0)
    assert "error" not in result, result["error"]
    return result["result"]


def answer(connection, message):
    reply = connection.send_and_get_reply(message, timeout=10)
    if reply.header.message_type == MessageType.error:
        fields = reply.header.fields
        sender = "the bus" if fields[HeaderFields.sender] == "org.freedesktop.DBus" else "the daemon"
        return f"{sender}: {fields[HeaderFields.error_name]}"
    if reply.body and str(reply.body[0]).startswith("<!DOCTYPE node"):
        return "a description"
    return list(reply.body)


def answers(machine, uid, destination=NAME):
    """The answers to all rows, by name."""

    def ask_all():
        connection = Caller(machine.address).connection
        found = {}
        for name, path, interface, member, arguments, _ in CALLS:
            address = DBusAddress(path, bus_name=destination, interface=interface)
            call = new_method_call(address, member, "s" * len(arguments) or None, arguments)
            found[name] = answer(connection, call)
        return found

    return as_user(uid, ask_all)


def send(machine, uid, *messages):
    """Sends messages as a user, and returns when the bus has handled them."""

    def send_all():
        connection = Caller(machine.address).connection
        for message in messages:
            connection.send(message)
        answer(connection, new_method_call(BUS, "GetId"))

    as_user(uid, send_all)


def ask_bus(machine, uid, member, signature, *arguments):
    def ask():
        return answer(Caller(machine.address).connection, new_method_call(BUS, member, signature, arguments))

    return as_user(uid, ask)


def handled(machine):
    """The messages that the daemon has logged, up to a HelloWorld of root that follows them."""
    machine.caller().hello()
    return [text for text in machine.texts() if text.startswith("obj=")]


def test_root_gets_the_answers_of_the_table(served):
    assert answers(served, ROOT) == {row[0]: row[5] for row in CALLS}


def test_the_bus_refuses_each_call_of_a_stranger_and_the_daemon_sees_none(served):
    [unique] = ask_bus(served, ROOT, "GetNameOwner", "s", NAME)
    for destination in (NAME, unique):
        assert answers(served, STRANGER, destination) == {row[0]: DENIED for row in CALLS}
    assert handled(served) == [HELLO]


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
@pytest.mark.parametrize("kind", [MessageType.signal, MessageType.method_return, MessageType.error])
def test_no_message_that_is_not_a_call_reaches_the_daemon(served, uid, kind):
    message = new_signal(DBusAddress(*MANAGER[:1], interface=MANAGER[1]), "Start", "sss", NO_DISPLAY)
    message.header.message_type = kind
    message.header.fields[HeaderFields.destination] = NAME
    if kind != MessageType.signal:
        message.header.fields[HeaderFields.reply_serial] = 1
    if kind == MessageType.error:
        message.header.fields[HeaderFields.error_name] = f"{NAME}.Failed"
    send(served, uid, message)
    assert handled(served) == [HELLO]


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
def test_a_call_that_wants_no_reply_is_refused_like_any_other(served, uid):
    addresses = [DBusAddress(MANAGER[0], bus_name=NAME, interface=name) for name in (INTROSPECTABLE, None)]
    calls = [new_method_call(address, "Introspect") for address in addresses]
    for call in calls:
        call.header.flags |= MessageFlag.no_reply_expected
    send(served, uid, *calls)
    introspection = f"obj={MANAGER[0]}, interface={INTROSPECTABLE}, member=Introspect, type=1"
    assert handled(served) == ([introspection, HELLO] if uid == ROOT else [HELLO])


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
def test_a_call_with_a_descriptor_is_refused_whatever_it_calls(served, uid):
    """Closing a descriptor can take the daemon as long as the sender wants: a socket may linger."""

    def ask_all():
        connection = open_dbus_connection(served.address, enable_fds=True)
        found = []
        with open("/dev/null") as file:
            for _, path, interface, member, arguments, _ in CALLS:
                address = DBusAddress(path, bus_name=NAME, interface=interface)
                call = new_method_call(address, member, "s" * len(arguments) + "h", (*arguments, file))
                found.append(answer(connection, call))
        return found

    assert as_user(uid, ask_all) == [DENIED] * len(CALLS)
    assert handled(served) == [HELLO]


def test_root_alone_may_own_the_name(system_bus):
    primary_owner, exists, do_not_queue = 1, 3, 4
    assert ask_bus(system_bus, STRANGER, "RequestName", "su", NAME, do_not_queue) == DENIED
    assert ask_bus(system_bus, ROOT, "RequestName", "su", NAME, do_not_queue) == [primary_owner]
    system_bus.start_daemon()
    assert ask_bus(system_bus, STRANGER, "RequestName", "su", NAME, do_not_queue) == DENIED
    assert ask_bus(system_bus, ROOT, "RequestName", "su", NAME, do_not_queue) == [exists]


def test_the_bus_does_not_complain_of_the_policy(served):
    served.bus.terminate()
    served.bus.wait(10)
    complaints = BUS_ERRORS.read_text().splitlines()
    assert [line for line in complaints if "Failed to set fd limit" not in line] == []


# ---- the files ----


def rules(policy):
    """The rules of a bus configuration file: for each section, to whom it applies and what it says."""
    sections = ElementTree.parse(policy).getroot()
    return [(section.attrib, [(rule.tag, rule.attrib) for rule in section]) for section in sections]


def test_the_file_of_the_daemon_gives_root_the_name_and_two_calls_and_takes_descriptors_from_all(installed):
    call = {"send_destination": NAME, "send_type": "method_call"}
    introspect = {**call, "send_interface": INTROSPECTABLE, "send_member": "Introspect"}
    ping = {**call, "send_interface": PEER, "send_member": "Ping"}
    descriptors = {"send_destination": NAME, "min_fds": "1"}
    assert rules(installed / f"usr/share/dbus-1/system.d/{NAME}.conf") == [
        ({"context": "default"}, [("deny", {"own": NAME}), ("deny", {"send_destination": NAME})]),
        ({"user": "root"}, [("allow", {"own": NAME}), ("allow", introspect), ("allow", ping)]),
        ({"context": "mandatory"}, [("deny", descriptors)]),
    ]


def test_the_file_of_each_plugin_gives_root_the_described_methods_and_nothing_else(installed):
    due = {}
    for file in (installed / "usr/share/dbus-1/interfaces").glob(f"{NAME}.*.xml"):
        call = {"send_destination": NAME, "send_type": "method_call", "send_interface": file.stem}
        methods = [method.get("name") for method in ElementTree.parse(file).getroot().iter("method")]
        due[file.stem] = [({"user": "root"}, [("allow", {**call, "send_member": name}) for name in methods])]
    files = (installed / "usr/share/dbus-1/system.d").glob(f"{NAME}.*.conf")
    assert {file.stem: rules(file) for file in files} == due
    assert len(due) >= 2
