# SPDX-License-Identifier: MIT
# test_policy.py: the bus lets root make the described calls to the control server, and no other user anything.
#
# Root and a stranger try each way to reach a daemon that serves the system's bus. Every answer says who gave
# it: what the daemon does not know it refuses itself, and that is not the policy's doing.
#
# Of every plugin, root gets what is described for callers, and no other user gets anything. A bus can be
# asked for two users only, so the files themselves are read, too.
import json
import os
import traceback
import xml.etree.ElementTree as ElementTree

import pytest
from jeepney import DBusAddress, HeaderFields, MessageFlag, MessageType, new_method_call, new_signal
from jeepney.io.blocking import open_dbus_connection

from support.callers import Caller
from conftest import BUS_ERRORS, STRANGER, start_system_bus

ROOT = 0
NAME = "com.corvane.ControlServer"
MANAGER = ("/com/corvane/ControlServer/DisplayManager", "com.corvane.ControlServer.DisplayManager")
DUMMY = ("/com/corvane/ControlServer/Dummy", "com.corvane.ControlServer.Dummy")
INTROSPECTABLE, PEER = "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer"
BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
DENIED = "the bus: org.freedesktop.DBus.Error.AccessDenied"
UNKNOWN = "the daemon: org.freedesktop.DBus.Error.UnknownMethod"
NOBODY = ("", "nobody", "PCI")  # no display: it is understood, and answered with false

# name of the row, path, interface, member, arguments, answer to root; a stranger is always refused
CALLS = [
    ("Start", *MANAGER, "Start", NOBODY, [False]),
    ("Stop", *MANAGER, "Stop", NOBODY[:2], [False]),
    ("HelloWorld", *DUMMY, "HelloWorld", (), ["How are you?"]),
    ("Start without arguments", *MANAGER, "Start", (), UNKNOWN),
    ("Start without an interface", MANAGER[0], None, "Start", NOBODY, DENIED),
    ("Stop without an interface", MANAGER[0], None, "Stop", NOBODY[:2], DENIED),
    ("HelloWorld without an interface", DUMMY[0], None, "HelloWorld", (), DENIED),
    ("Introspect without an interface", MANAGER[0], None, "Introspect", (), DENIED),
    ("a member of DisplayManager that has no rule", *MANAGER, "Restart", (), DENIED),
    ("a member of Dummy that has no rule", *DUMMY, "GoodbyeWorld", (), DENIED),
    ("an interface that has no rule", MANAGER[0], NAME, "Start", NOBODY, DENIED),
    ("a member with another interface's rule", MANAGER[0], DUMMY[1], "Start", NOBODY, DENIED),
    ("Introspect of DisplayManager", MANAGER[0], INTROSPECTABLE, "Introspect", (), "a description"),
    ("Introspect of Dummy", DUMMY[0], INTROSPECTABLE, "Introspect", (), "a description"),
    ("Introspect of the root", "/", INTROSPECTABLE, "Introspect", (), "a description"),
    ("Ping", MANAGER[0], PEER, "Ping", (), []),
    ("GetMachineId", MANAGER[0], PEER, "GetMachineId", (), DENIED),
    ("Get", MANAGER[0], "org.freedesktop.DBus.Properties", "Get", ("a", "b"), DENIED),
    ("GetAll", MANAGER[0], "org.freedesktop.DBus.Properties", "GetAll", ("a",), DENIED),
]


def as_user(uid, task):
    """What task() returns in a process of that user, who is in no group except his own."""
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


def answer(connection, path, interface, member, arguments, destination=NAME):
    address = DBusAddress(path, bus_name=destination, interface=interface)
    return answer_to(connection, new_method_call(address, member, "s" * len(arguments) or None, arguments))


def answer_to(connection, message):
    reply = connection.send_and_get_reply(message, timeout=10)
    if reply.header.message_type == MessageType.error:
        fields = reply.header.fields
        who = "the bus" if fields[HeaderFields.sender] == "org.freedesktop.DBus" else "the daemon"
        return f"{who}: {fields[HeaderFields.error_name]}"
    if reply.body and str(reply.body[0]).startswith("<!DOCTYPE node"):
        return "a description"
    return list(reply.body)


def answers(machine, uid, destination=NAME):
    """The answers to all rows, in their order."""

    def ask_all():
        connection = Caller(machine.address).connection
        return [answer(connection, *row[1:5], destination) for row in CALLS]

    return as_user(uid, ask_all)


def bus_call(machine, uid, member, signature, *arguments):
    """The answer of the bus itself: what it returns, or the name of its error."""

    def ask():
        reply = Caller(machine.address).connection.send_and_get_reply(
            new_method_call(BUS, member, signature, arguments), timeout=10)
        is_error = reply.header.message_type == MessageType.error
        return reply.header.fields[HeaderFields.error_name] if is_error else list(reply.body)

    return as_user(uid, ask)


def stop_bus(machine):
    """Ends the bus; returns its complaints, except that of the machine's limit of open files."""
    machine.bus.terminate()
    machine.bus.wait(10)
    return [line for line in BUS_ERRORS.read_text().splitlines() if "Failed to set fd limit" not in line]


def seen_by(daemon_log):
    return [text for text in daemon_log if text.startswith("obj=")]


HELLO = f"obj={DUMMY[0]}, interface={DUMMY[1]}, member=HelloWorld, type=1"


def test_root_gets_the_answers_of_the_table(system_bus):
    system_bus.start_daemon()

    expected = {row[0]: row[5] for row in CALLS}
    assert dict(zip(expected, answers(system_bus, ROOT))) == expected


def test_the_bus_refuses_each_call_of_a_stranger(system_bus):
    system_bus.start_daemon()

    expected = {row[0]: DENIED for row in CALLS}
    assert dict(zip(expected, answers(system_bus, STRANGER))) == expected


def test_the_unique_name_of_the_daemon_opens_nothing_to_a_stranger(system_bus):
    system_bus.start_daemon()
    [unique] = bus_call(system_bus, ROOT, "GetNameOwner", "s", NAME)

    assert answers(system_bus, STRANGER, unique) == [DENIED] * len(CALLS)


def test_nothing_that_a_stranger_calls_reaches_the_daemon(system_bus):
    system_bus.start_daemon()
    answers(system_bus, STRANGER)
    system_bus.caller().hello()

    assert seen_by(system_bus.texts()) == [HELLO]


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
@pytest.mark.parametrize("kind", [MessageType.signal, MessageType.method_return, MessageType.error])
def test_no_message_that_is_not_a_call_reaches_the_daemon(system_bus, uid, kind):
    system_bus.start_daemon()
    message = new_signal(DBusAddress(*MANAGER[:1], interface=MANAGER[1]), "Start", "sss", NOBODY)
    message.header.message_type = kind
    message.header.fields[HeaderFields.destination] = NAME
    if kind != MessageType.signal:
        message.header.fields[HeaderFields.reply_serial] = 1
    if kind == MessageType.error:
        message.header.fields[HeaderFields.error_name] = f"{NAME}.Failed"

    def send():
        connection = Caller(system_bus.address).connection
        connection.send(message)
        connection.send_and_get_reply(new_method_call(BUS, "GetId"), timeout=10)  # the bus has seen both

    as_user(uid, send)
    system_bus.caller().hello()
    assert seen_by(system_bus.texts()) == [HELLO]


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
def test_a_call_that_wants_no_reply_is_refused_like_any_other(system_bus, uid):
    system_bus.start_daemon()
    introspection = f"obj={MANAGER[0]}, interface={INTROSPECTABLE}, member=Introspect, type=1"

    def send():
        connection = Caller(system_bus.address).connection
        for interface in (INTROSPECTABLE, None):
            call = new_method_call(DBusAddress(MANAGER[0], bus_name=NAME, interface=interface), "Introspect")
            call.header.flags |= MessageFlag.no_reply_expected
            connection.send(call)
        connection.send_and_get_reply(new_method_call(BUS, "GetId"), timeout=10)  # the bus has seen all

    as_user(uid, send)
    system_bus.caller().hello()
    assert seen_by(system_bus.texts()) == ([introspection, HELLO] if uid == ROOT else [HELLO])


@pytest.mark.parametrize("uid", [ROOT, STRANGER])
def test_a_message_with_a_descriptor_is_refused_whatever_it_calls(system_bus, uid):
    system_bus.start_daemon()

    def ask_all():
        connection = open_dbus_connection(system_bus.address, enable_fds=True)
        with open("/dev/null") as file:
            calls = [new_method_call(DBusAddress(path, bus_name=NAME, interface=interface), member,
                                     "s" * len(arguments) + "h", (*arguments, file))
                     for _, path, interface, member, arguments, _ in CALLS]
            return [answer_to(connection, call) for call in calls]

    assert as_user(uid, ask_all) == [DENIED] * len(CALLS)
    system_bus.caller().hello()
    assert seen_by(system_bus.texts()) == [HELLO]


def test_root_alone_may_own_the_name(system_bus):
    primary_owner, do_not_queue = 1, 4

    assert bus_call(system_bus, STRANGER, "RequestName", "su", NAME, do_not_queue) == \
        "org.freedesktop.DBus.Error.AccessDenied"
    assert bus_call(system_bus, ROOT, "RequestName", "su", NAME, do_not_queue) == [primary_owner]


def test_root_alone_may_take_the_name_while_the_daemon_has_it(system_bus):
    exists, do_not_queue = 3, 4
    system_bus.start_daemon()

    assert bus_call(system_bus, STRANGER, "RequestName", "su", NAME, do_not_queue) == \
        "org.freedesktop.DBus.Error.AccessDenied"
    assert bus_call(system_bus, ROOT, "RequestName", "su", NAME, do_not_queue) == [exists]


def test_the_bus_has_nothing_to_say_about_the_policy(system_bus):
    system_bus.start_daemon()

    assert stop_bus(system_bus) == []


# ---- every plugin, by its description ----


def described(installed):
    """The (path, interface, method) of all descriptions."""
    nodes = [ElementTree.parse(file).getroot()
             for file in (installed / "usr/share/dbus-1/interfaces").glob(f"{NAME}.*.xml")]
    methods = [(node.get("name"), interface.get("name"), method.get("name")) for node in nodes
               for interface in node.iter("interface") for method in interface.iter("method")]
    assert len(methods) >= 3
    return sorted(methods)


def let_through(machine, uid, methods):
    """Those of the methods that the bus lets this user call."""

    def ask_all():
        connection = Caller(machine.address).connection
        return [answer(connection, *method, ()) != DENIED for method in methods]

    return [method for method, is_free in zip(methods, as_user(uid, ask_all)) if is_free]


def given(policy):
    """What a file of the bus's configuration gives and takes: for each part, to whom and by which rules."""
    return [(dict(part.attrib), [(rule.tag, dict(rule.attrib)) for rule in part])
            for part in ElementTree.parse(policy).getroot()]


def due(name, methods):
    """What the file of this plugin has to give: these calls to root, and nothing to anybody else."""
    return [({"user": "root"}, [("allow", {"send_destination": NAME, "send_type": "method_call",
                                           "send_interface": name, "send_member": method})
                                for _, interface, method in methods if interface == name])]


def test_of_each_plugin_root_may_call_what_is_described_and_a_stranger_nothing(system_bus, installed):
    system_bus.start_daemon()
    methods = described(installed)

    assert let_through(system_bus, ROOT, methods) == methods
    assert let_through(system_bus, STRANGER, methods) == []


def test_the_file_of_the_daemon_gives_root_the_name_and_two_questions_and_nobody_descriptors(installed):
    call = {"send_destination": NAME, "send_type": "method_call"}
    assert given(installed / f"usr/share/dbus-1/system.d/{NAME}.conf") == [
        ({"context": "default"}, [("deny", {"own": NAME}), ("deny", {"send_destination": NAME})]),
        ({"user": "root"}, [
            ("allow", {"own": NAME}),
            ("allow", {**call, "send_interface": INTROSPECTABLE, "send_member": "Introspect"}),
            ("allow", {**call, "send_interface": PEER, "send_member": "Ping"})]),
        ({"context": "mandatory"}, [("deny", {"send_destination": NAME, "min_fds": "1"})])]


def test_the_file_of_each_plugin_gives_root_what_is_described_and_nobody_else_anything(installed):
    methods = described(installed)
    files = (installed / "usr/share/dbus-1/system.d").glob(f"{NAME}.*.conf")
    plugins = {file.stem: given(file) for file in files}

    assert plugins == {name: due(name, methods) for _, name, _ in methods}


# The stranger is in no group but his own; of a group, and of any other user, the file alone tells.
@pytest.mark.parametrize("whom, is_for_the_stranger", [
    ('context="mandatory"', True), ('context="default"', True), ('user="nobody"', True),
    ('group="audio"', False)])
def test_a_file_that_gives_more_would_be_noticed(laid_over, installed, policies, whom, is_for_the_stranger):
    more = policies / f"{DUMMY[1]}.conf"
    rule = f'<allow send_destination="{NAME}" send_interface="{DUMMY[1]}"/>'
    text = more.read_text().replace("</busconfig>", f"<policy {whom}>{rule}</policy></busconfig>")
    more.write_text(text)
    methods = described(installed)
    assert given(more) != due(DUMMY[1], methods)

    start_system_bus(laid_over, policies)
    laid_over.start_daemon()
    free = [(*DUMMY, "HelloWorld")] if is_for_the_stranger else []
    assert let_through(laid_over, STRANGER, methods) == free


@pytest.mark.parametrize("before, after", [("</busconfig>", ""), ('own="', 'owns="')])
def test_the_bus_complains_of_a_broken_policy_though_it_runs_on(bare, policies, before, after):
    broken = policies / "com.corvane.ControlServer.conf"
    broken.write_text(broken.read_text().replace(before, after))
    start_system_bus(bare, policies)

    assert any("Encountered error" in line and str(broken) in line for line in stop_bus(bare))
