# SPDX-License-Identifier: MIT
# test_plugins.py: which messages reach a plugin, what it says of them, and who answers them.
import pytest
from jeepney import DBusAddress, Endianness, Header, HeaderFields, Message, MessageType, new_method_call

from support.callers import CallFailed
from support.machine import meddled
from support.place import NAME, PATH

DUMMY = f"{PATH}/Dummy"
DISPLAY_MANAGER = f"{PATH}/DisplayManager"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
HANDLER = "cs/plugin-registry.cpp ccs_dbus_message_handler:"
DUMMY_HANDLER = "plugins/dummy/dummy-plugin.cpp dummy_handle_dbus_message:"
DISPLAY_MANAGER_HANDLER = ("plugins/display-manager/dm-plugin.cpp "
                           "dm_handle_dbus_message dbus_message_get_path(message):")
HELLO = "plugins/dummy/dummy.cpp dbus_dummy_hello_world: {DUMMY} dbus_dummy_hello_world: HelloWorld"


def call(path, member, interface, signature=None, arguments=()):
    return new_method_call(DBusAddress(path, bus_name=NAME, interface=interface), member, signature, arguments)


def ask(machine, message):
    """The reply, or the error's name and text, and the lines that the message left in the log."""
    since = len(machine.told())
    try:
        answer = machine.caller().ask(message)
    except CallFailed as failed:
        answer = failed.args
    return answer, machine.told()[since:]


def test_hello_world_asks_how_we_are(machine):
    assert ask(machine, call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy")) == (("How are you?",), [
        f"{HANDLER} obj=/com/corvane/ControlServer/Dummy, interface=com.corvane.ControlServer.Dummy, "
        "member=HelloWorld, type=1",
        HELLO,
    ])


def test_the_reply_has_one_text_and_goes_to_its_caller(machine):
    caller = machine.caller()
    reply = caller.connection.send_and_get_reply(call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy"))
    fields = reply.header.fields
    assert reply.header.message_type == MessageType.method_return
    assert fields[HeaderFields.signature] == "s"
    assert fields[HeaderFields.destination] == caller.connection.unique_name


@pytest.mark.parametrize("signature, arguments", [
    ("s", ("Fine",)),
    ("sib", ("Fine", 7, True)),
    ("a{sv}", ({"a": ("s", "b")},)),
])
def test_hello_world_does_not_read_what_the_caller_sends_along(machine, signature, arguments):
    message = call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy", signature, arguments)
    assert ask(machine, message)[0] == ("How are you?",)


def test_a_call_without_an_interface_is_answered_for_any(machine):
    assert ask(machine, call(DUMMY, "HelloWorld", None)) == (("How are you?",), [
        f"{HANDLER} obj=/com/corvane/ControlServer/Dummy, interface=(null), member=HelloWorld, type=1",
        HELLO,
    ])


@pytest.mark.parametrize("member, interface, shown", [
    ("GoodbyeWorld", "com.corvane.ControlServer.Dummy", "com.corvane.ControlServer.Dummy"),
    ("helloworld", "com.corvane.ControlServer.Dummy", "com.corvane.ControlServer.Dummy"),
    ("HelloWorlds", "com.corvane.ControlServer.Dummy", "com.corvane.ControlServer.Dummy"),
    ("Start", "com.corvane.ControlServer.DisplayManager", "com.corvane.ControlServer.DisplayManager"),
    ("HelloWorld", "com.corvane.ControlServer.DisplayManager", "com.corvane.ControlServer.DisplayManager"),
    ("HelloWorld", "com.corvane.ControlServer", "com.corvane.ControlServer"),
    ("Get", "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Properties"),
    ("GoodbyeWorld", None, "(null)"),
])
def test_what_the_dummy_does_not_offer_is_logged_and_answered_by_the_bus_library(machine, member, interface, shown):
    answer, lines = ask(machine, call(DUMMY, member, interface))
    assert answer == (UNKNOWN_METHOD,
                      f'Method "{member}" with signature "" on interface "{shown}" doesn\'t exist\n')
    assert lines == [
        f"{HANDLER} obj=/com/corvane/ControlServer/Dummy, interface={shown}, member={member}, type=1",
        f"{DUMMY_HANDLER} Unhandled message: obj=/com/corvane/ControlServer/Dummy, intf={shown}, member={member}",
    ]


@pytest.mark.parametrize("member, interface, shown", [
    ("Restart", "com.corvane.ControlServer.DisplayManager", "com.corvane.ControlServer.DisplayManager"),
    ("HelloWorld", "com.corvane.ControlServer.Dummy", "com.corvane.ControlServer.Dummy"),
    ("Restart", None, "(null)"),
])
def test_what_the_display_manager_does_not_offer_is_logged_in_its_own_way(machine, member, interface, shown):
    answer, lines = ask(machine, call(DISPLAY_MANAGER, member, interface))
    assert answer == (UNKNOWN_METHOD,
                      f'Method "{member}" with signature "" on interface "{shown}" doesn\'t exist\n')
    assert lines == [
        f"{HANDLER} obj=/com/corvane/ControlServer/DisplayManager, interface={shown}, member={member}, type=1",
        f"{DISPLAY_MANAGER_HANDLER} Unhandled message: obj={shown}, intf={member}, member=",
    ]


@pytest.mark.parametrize("path", [
    "/",
    "/com",
    "/com/corvane/ControlServer",
    "/com/corvane/ControlServer/Dumm",
    "/com/corvane/ControlServer/Dummys",
    "/com/corvane/ControlServer/Dummy/below",
    "/com/corvane/ControlServer/DisplayManager/below",
])
def test_a_path_of_no_plugin_is_answered_by_the_bus_library_alone(machine, path):
    answer, lines = ask(machine, call(path, "HelloWorld", "com.corvane.ControlServer.Dummy"))
    assert answer == (UNKNOWN_METHOD, 'Method "HelloWorld" with signature "" on interface '
                                      '"com.corvane.ControlServer.Dummy" doesn\'t exist\n')
    assert lines == []


def test_a_ping_is_answered_by_the_bus_library_alone(machine):
    assert ask(machine, call(DUMMY, "Ping", "org.freedesktop.DBus.Peer")) == ((), [])


def test_an_introspection_shows_the_two_objects(machine):
    (text,), lines = ask(machine, call(PATH, "Introspect", "org.freedesktop.DBus.Introspectable"))
    assert text.endswith('<node>\n  <node name="DisplayManager"/>\n  <node name="Dummy"/>\n</node>\n')
    assert lines == []


def test_an_introspection_of_an_object_passes_the_plugin_unhandled(machine):
    (text,), lines = ask(machine, call(DUMMY, "Introspect", "org.freedesktop.DBus.Introspectable"))
    assert text.endswith("<node>\n</node>\n")
    assert lines == [
        f"{HANDLER} obj=/com/corvane/ControlServer/Dummy, interface=org.freedesktop.DBus.Introspectable, "
        "member=Introspect, type=1",
        f"{DUMMY_HANDLER} Unhandled message: obj=/com/corvane/ControlServer/Dummy, "
        "intf=org.freedesktop.DBus.Introspectable, member=Introspect",
    ]


@pytest.mark.parametrize("kind, fields, number, interface, member", [
    (MessageType.signal, {HeaderFields.interface: "com.corvane.ControlServer.Dummy",
                          HeaderFields.member: "HelloWorld"}, 4, "com.corvane.ControlServer.Dummy", "HelloWorld"),
    (MessageType.signal, {HeaderFields.interface: "com.corvane.ControlServer.DisplayManager",
                          HeaderFields.member: "Start"}, 4, "com.corvane.ControlServer.DisplayManager", "Start"),
    (MessageType.method_return, {HeaderFields.reply_serial: 77}, 2, "(null)", "(null)"),
    (MessageType.error, {HeaderFields.reply_serial: 77, HeaderFields.error_name: "a.b"}, 3, "(null)", "(null)"),
])
def test_a_message_that_is_no_call_reaches_the_plugin_and_is_left_unanswered(machine, kind, fields, number, interface,
                                                                              member):
    caller = machine.caller()
    since = len(machine.told())
    for path in (DUMMY, DISPLAY_MANAGER):
        addressed = {**fields, HeaderFields.path: path, HeaderFields.destination: NAME}
        caller.send(Message(Header(Endianness.little, kind, 0, 1, -1, -1, addressed), ()))
    assert caller.hello() == "How are you?"  # the first and only answer
    assert machine.told()[since:-2] == [
        f"{HANDLER} obj=/com/corvane/ControlServer/Dummy, interface={interface}, member={member}, type={number}",
        f"{DUMMY_HANDLER} Unhandled message: obj=/com/corvane/ControlServer/Dummy, intf={interface}, member={member}",
        f"{HANDLER} obj=/com/corvane/ControlServer/DisplayManager, interface={interface}, member={member}, "
        f"type={number}",
        f"{DISPLAY_MANAGER_HANDLER} Unhandled message: obj={interface}, intf={member}, member=",
    ]


def test_a_caller_that_wants_no_reply_gets_none(machine):
    caller = machine.caller()
    message = call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy")
    message.header.flags = 1  # no reply expected
    caller.send(message)
    machine.wait_log(r"\{DUMMY\} dbus_dummy_hello_world: HelloWorld")
    unknown = call(PATH, "Nothing", "a.b")
    reply = caller.connection.send_and_get_reply(unknown, timeout=10)
    assert reply.header.message_type == MessageType.error
    with pytest.raises(TimeoutError):
        caller.connection.receive(timeout=0)


def test_a_reply_that_cannot_be_sent_at_once_is_sent_at_the_last_of_a_thousand_attempts(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("send=999"))
    answer, lines = ask(bare, call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy"))
    assert answer == ("How are you?",)
    assert lines[1:] == [HELLO]


def test_a_reply_that_cannot_be_sent_is_given_up_after_a_thousand_attempts_and_the_next_call_is_served(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("send=1000"))
    caller = bare.caller()
    caller.send(call(DUMMY, "HelloWorld", "com.corvane.ControlServer.Dummy"))
    bare.wait_log("Unable to reply")
    assert caller.hello() == "How are you?"
    assert [told for told in bare.told() if "Unable" in told] == [
        "common/reply.cpp bus_reply: {EE} Unable to reply to HelloWorld"]
