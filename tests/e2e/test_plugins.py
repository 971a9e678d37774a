# SPDX-License-Identifier: MIT
# test_plugins.py: which messages reach a plugin, what it logs, and whether it or libdbus replies.
import pytest
from jeepney import DBusAddress, Endianness, Header, HeaderFields, Message, MessageType, new_method_call

from support.callers import CallFailed
from support.place import NAME, PATH

DUMMY = "com.corvane.ControlServer.Dummy"
DISPLAY_MANAGER = "com.corvane.ControlServer.DisplayManager"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
ARRIVAL = "cs/plugin-registry.cpp ccs_dbus_message_handler: obj=/com/corvane/ControlServer/"
DUMMY_UNHANDLED = (
    "plugins/dummy/dummy-plugin.cpp dummy_handle_dbus_message: "
    "Unhandled message: obj=/com/corvane/ControlServer/Dummy, "
)
DISPLAY_MANAGER_UNHANDLED = (
    "plugins/display-manager/dm-plugin.cpp "
    "dm_handle_dbus_message dbus_message_get_path(message): Unhandled message: "
)
HELLO = "plugins/dummy/dummy.cpp dbus_dummy_hello_world: {DUMMY} dbus_dummy_hello_world: HelloWorld"


def call(path, member, interface, signature=None, arguments=()):
    address = DBusAddress(path, bus_name=NAME, interface=interface)
    return new_method_call(address, member, signature, arguments)


def hello(signature=None, arguments=()):
    return call(f"{PATH}/Dummy", "HelloWorld", DUMMY, signature, arguments)


def unknown(member, interface):
    """The error for a call of an unknown method without arguments."""
    text = f'Method "{member}" with signature "" on interface "{interface}" doesn\'t exist\n'
    return UNKNOWN_METHOD, text


def ask(machine, message):
    """The reply, or the name and text of the error, and the lines that the message left in the log."""
    since = len(machine.logged())
    try:
        answer = machine.caller().ask(message)
    except CallFailed as failed:
        answer = failed.args
    return answer, machine.logged()[since:]


def test_hello_world_is_answered(machine):
    answer, lines = ask(machine, hello())
    assert answer == ("How are you?",)
    assert lines == [f"{ARRIVAL}Dummy, interface={DUMMY}, member=HelloWorld, type=1", HELLO]


def test_the_reply_has_one_string_and_goes_to_the_caller(machine):
    caller = machine.caller()
    reply = caller.connection.send_and_get_reply(hello())
    assert reply.header.message_type == MessageType.method_return
    assert reply.header.fields[HeaderFields.signature] == "s"
    assert reply.header.fields[HeaderFields.destination] == caller.connection.unique_name


def test_hello_world_ignores_its_arguments(machine):
    assert ask(machine, hello("sib", ("Fine", 7, True)))[0] == ("How are you?",)
    assert ask(machine, hello("a{sv}", ({"a": ("s", "b")},)))[0] == ("How are you?",)


OTHERS = (DISPLAY_MANAGER, NAME, "org.freedesktop.DBus.Properties")
UNKNOWN_CALLS = [("HelloWorld", interface) for interface in OTHERS]
UNKNOWN_CALLS += [(name, DUMMY) for name in ("GoodbyeWorld", "helloworld", "HelloWorlds")] + [
    ("GoodbyeWorld", None)
]


@pytest.mark.parametrize("member, interface", UNKNOWN_CALLS)
def test_a_call_of_an_unknown_method_is_logged_and_libdbus_replies_with_an_error(machine, member, interface):
    shown = interface or "(null)"
    answer, lines = ask(machine, call(f"{PATH}/Dummy", member, interface))
    assert answer == unknown(member, shown)
    assert lines == [
        f"{ARRIVAL}Dummy, interface={shown}, member={member}, type=1",
        f"{DUMMY_UNHANDLED}intf={shown}, member={member}",
    ]


@pytest.mark.parametrize("path", ["/", "/com", PATH, f"{PATH}/Dumm", f"{PATH}/Dummys", f"{PATH}/Dummy/below"])
def test_only_libdbus_replies_on_a_path_of_no_plugin(machine, path):
    assert ask(machine, call(path, "HelloWorld", DUMMY)) == (unknown("HelloWorld", DUMMY), [])


def test_only_libdbus_replies_to_a_ping(machine):
    assert ask(machine, call(f"{PATH}/Dummy", "Ping", "org.freedesktop.DBus.Peer")) == ((), [])


def test_an_introspection_lists_the_two_objects(machine):
    (text,), lines = ask(machine, call(PATH, "Introspect", "org.freedesktop.DBus.Introspectable"))
    assert text.endswith('<node>\n  <node name="DisplayManager"/>\n  <node name="Dummy"/>\n</node>\n')
    assert lines == []


KINDS = {
    "signal": (MessageType.signal, 4, {"interface": DISPLAY_MANAGER, "member": "Start"}),
    "hello": (MessageType.signal, 4, {"interface": DUMMY, "member": "HelloWorld"}),
    "return": (MessageType.method_return, 2, {"reply_serial": 77}),
    "error": (MessageType.error, 3, {"reply_serial": 77, "error_name": "a.b"}),
}


@pytest.mark.parametrize("kind", KINDS)
def test_a_message_that_is_no_call_reaches_the_plugin_and_gets_no_reply(machine, kind):
    message_type, number, fields = KINDS[kind]
    interface, member = fields.get("interface", "(null)"), fields.get("member", "(null)")
    caller = machine.caller()
    since = len(machine.logged())
    for plugin in ("Dummy", "DisplayManager"):
        named = {HeaderFields[name]: value for name, value in fields.items()}
        named.update({HeaderFields.path: f"{PATH}/{plugin}", HeaderFields.destination: NAME})
        caller.send(Message(Header(Endianness.little, message_type, 0, 1, -1, -1, named), ()))
    assert caller.hello() == "How are you?"  # the only reply that came
    assert machine.logged()[since:-2] == [
        f"{ARRIVAL}Dummy, interface={interface}, member={member}, type={number}",
        f"{DUMMY_UNHANDLED}intf={interface}, member={member}",
        f"{ARRIVAL}DisplayManager, interface={interface}, member={member}, type={number}",
        f"{DISPLAY_MANAGER_UNHANDLED}obj={interface}, intf={member}, member=",
    ]


def test_a_caller_that_wants_no_reply_gets_none(machine):
    caller = machine.caller()
    message = hello()
    message.header.flags = 1  # no reply expected
    caller.send(message)
    machine.wait_log(r"\{DUMMY\} dbus_dummy_hello_world: HelloWorld")
    reply = caller.connection.send_and_get_reply(call(PATH, "Nothing", "a.b"), timeout=10)
    assert reply.header.message_type == MessageType.error
    with pytest.raises(TimeoutError):
        caller.connection.receive(timeout=0)
