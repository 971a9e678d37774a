# SPDX-License-Identifier: MIT
# test_calls.py: the replies of the display manager, and the lines that its calls leave in the log.
import pytest
from jeepney import DBusAddress, HeaderFields, MessageFlag, MessageType, new_method_call

from support.callers import CallFailed, start_call, stop_call
from support.place import NAME, PATH
from transcript import START, STOP, arrival, now, transcript, unhandled

INTERFACE = "com.corvane.ControlServer.DisplayManager"
OBJECT = DBusAddress(f"{PATH}/DisplayManager", bus_name=NAME, interface=INTERFACE)
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"

VALID_DISPLAYS = [
    (":0", 0),
    (":1", 1),
    ("host:3", 3),
    ("host:0.0", 0),
    ("host.domain.example:4.0", 4),
    ("a host of blanks :5", 5),
    ("h\u00f6st\u2603:6", 6),
    (":2.1", 2),
    (" :7", 7),
    (": 8", 8),
    (":\t9", 9),
    (":+10", 10),
    (":-0", 0),
    (":-0.0", 0),
    (":0011", 11),
    (":12. 1", 12),
    (":13.+1", 13),
    (":14.-1", 14),
    (":15.0000000000000000000001", 15),
    (":16.2147483647", 16),
    (":17.-2147483648", 17),
    (":2147483647", 2147483647),
    (":00000000000000000000000002147483646.0", 2147483646),
    ("%n" * 512 * 1024 + ":3", 3),
]

# fmt: off
INVALID_DISPLAYS = [
    "", "0", "1", "host", "0.0", ":", "host:", "::", "::1", ": ", ":x", ":x1", ":1x", ":1 ", ":1:", ":1,0",
    ":+", ":-", ":- 1", ":+-1", ":--1", ":0x10x", ":0x10", ":1e3", ":.", ":.1", ":1.", ":0.", "host:0.",
    ":1. ", ":1.x", ":1.2x", ":1.2 ", ":1.2.3", ":1..2", ":1.-", ":-1", ":-5", ":-1.0", "host:-1",
    ":-2147483648", ":-2147483649", ":2147483648", ":4294967296", ":4294967297", ":9223372036854775808",
    ":-9223372036854775809", ":99999999999999999999999999", ":1.2147483648", ":1.-2147483649",
    ":1.4294967297", ":1.99999999999999999999999999", ":1.-99999999999999999999999999", "[::1]:0",
    "fe80::1:0", ":\u0661", ":\uff11", ":1\u00a0", ":\u00a01", ":1\x01", "%s%n", ":%d", ":1%n",
]

STRANGE_TYPES = [
    "", " ", "0", "1", "pci", "usb", "common", "Common", "PCi", "PCI ", " PCI", "USB\t", "COMMON.", "COMMO",
    "COMMONS", "PCI,USB", "\uff30\uff23\uff29", "%s%n",
]

STRANGE_ACTORS = [
    "", " ", "1", "7", "Init-Station", "INIT-STATION", "Local-Login", "LOCAL-LOGIN", "Xhotkey", "xhotkey ",
    " xhotkey", "xhotke", "xhotkeys", "local_login", "local-login,remote-login", "corvane-xh",
    "press\u2010fkey", "%s%n",
]
# fmt: on


# ---- the checks and their order ----


def test_each_valid_display_names_its_station(machine):
    caller = machine.caller()
    for display, number in VALID_DISPLAYS:
        assert caller.start(display, "init-station") is True, display
        assert machine.texts().count(f"Start requested actor code: 1 on display :{number}") > 0, display
        assert caller.stop(display, "init-station") is True, display
        requests = [text for text in machine.texts() if text.startswith(("Start requested", "display_num="))]
        assert requests[-2:] == [
            f"Start requested actor code: 1 on display :{number}",
            f"display_num={number}, actor_code=1",
        ], display


def test_start_and_stop_refuse_each_invalid_display(machine):
    caller = machine.caller()
    for display in INVALID_DISPLAYS:
        since = now(machine)
        assert caller.start(display, "init-station") is False, display
        assert caller.stop(display, "init-station") is False, display
        assert transcript(machine, since) == [
            START,
            ("dbus_dm_start", f"dbus_dm_start(): display={display}, actor=init-station, stationtype=COMMON"),
            ("dbus_dm_start", f"{{DM}} Invalid DISPLAY value : {display}"),
            STOP,
            ("dbus_dm_stop", f"{{DM}} Invalid DISPLAY value : {display}"),
        ]


def test_only_the_exact_name_of_a_station_type_is_accepted(machine):
    caller = machine.caller()
    for station_type in ("PCI", "USB", "COMMON"):
        assert caller.start(":1", "init-station", station_type) is True, station_type
    machine.wait_log("No action needed", 3)
    for station_type in STRANGE_TYPES:
        since = now(machine)
        assert caller.start(":2", "init-station", station_type) is False, station_type
        assert transcript(machine, since) == [
            START,
            ("dbus_dm_start", f"dbus_dm_start(): display=:2, actor=init-station, stationtype={station_type}"),
            ("dbus_dm_start", f"{{DM}} Invalid station type: {station_type}"),
        ]


def test_only_the_exact_name_of_an_actor_is_accepted(machine):
    caller = machine.caller()
    for actor in STRANGE_ACTORS:
        since = now(machine)
        assert caller.start(":2", actor, "PCI") is False, actor
        assert caller.stop(":2", actor) is False, actor
        assert transcript(machine, since) == [
            START,
            ("dbus_dm_start", f"dbus_dm_start(): display=:2, actor={actor}, stationtype=PCI"),
            ("dbus_dm_start", f"{{DM}} Invalid actor name: {actor}"),
            STOP,
            ("dbus_dm_stop", f"{{DM}} Invalid actor name: {actor}"),
        ]


def test_the_log_names_the_first_check_of_a_start_that_fails(machine):
    caller = machine.caller()
    since = now(machine)
    assert caller.start("bad display", "bad actor", "bad type") is False
    assert caller.start(":1", "bad actor", "bad type") is False
    assert caller.start(":1", "bad actor", "USB") is False
    assert caller.start("bad display", "bad actor", "USB") is False
    assert transcript(machine, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=bad display, actor=bad actor, stationtype=bad type"),
        ("dbus_dm_start", "{DM} Invalid DISPLAY value : bad display"),
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:1, actor=bad actor, stationtype=bad type"),
        ("dbus_dm_start", "{DM} Invalid station type: bad type"),
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:1, actor=bad actor, stationtype=USB"),
        ("dbus_dm_start", "{DM} Invalid actor name: bad actor"),
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=bad display, actor=bad actor, stationtype=USB"),
        ("dbus_dm_start", "{DM} Invalid DISPLAY value : bad display"),
    ]


def test_a_refused_start_creates_no_station(machine):
    caller = machine.caller()
    assert caller.start(":1", "bad actor") is False
    assert caller.start(":1", "init-station", "bad type") is False
    assert caller.stop(":1", "init-station") is False
    assert machine.texts()[-1] == "{DM} Unable to add event"


def test_the_reply_to_every_readable_call_is_one_boolean(machine):
    caller = machine.caller()
    assert caller.call("DisplayManager", "Start", "sss", ":1", "init-station", "COMMON") == (True,)
    assert caller.call("DisplayManager", "Start", "sss", ":x", "init-station", "COMMON") == (False,)
    assert caller.call("DisplayManager", "Stop", "ss", ":1", "init-station") == (True,)
    assert caller.call("DisplayManager", "Stop", "ss", ":2", "init-station") == (False,)
    for _ in range(4):  # the next message is the reply to this call, and not a second reply to the last one
        serial = next(caller.connection.outgoing_serial)
        caller.connection.send(stop_call(":1", "init-station"), serial=serial)
        reply = caller.connection.receive(timeout=10)
        assert reply.header.message_type == MessageType.method_return
        assert reply.header.fields[HeaderFields.signature] == "b"
        assert reply.header.fields[HeaderFields.reply_serial] == serial


def test_a_call_that_wants_no_reply_takes_effect(machine):
    caller = machine.caller()
    call = start_call(":1", "xhotkey")
    call.header.flags = MessageFlag.no_reply_expected
    caller.send(call)
    assert machine.wait_records(1)[0].argv == ["corvane-xh", "-display", ":1"]


# ---- wrong arguments ----

WRONG_TYPE = (
    '{{DM}} Unable to get args from DBus message: Argument {} is specified to be of type "string", '
    'but is actually of type "{}"'
)
TOO_FEW = "{{DM}} Unable to get args from DBus message: Message has only {} arguments, but more were expected"


@pytest.mark.parametrize(
    "member, signature, arguments, text",
    [
        ("Start", "", (), WRONG_TYPE.format(0, "invalid")),
        ("Start", "s", (":1",), TOO_FEW.format(1)),
        ("Start", "ss", (":1", "xhotkey"), TOO_FEW.format(2)),
        ("Start", "iss", (1, "xhotkey", "COMMON"), WRONG_TYPE.format(0, "int32")),
        ("Start", "sus", (":1", 7, "COMMON"), WRONG_TYPE.format(1, "uint32")),
        ("Start", "ssb", (":1", "xhotkey", True), WRONG_TYPE.format(2, "boolean")),
        ("Start", "as", ([":1", "xhotkey", "COMMON"],), WRONG_TYPE.format(0, "array")),
        ("Start", "(sss)", ((":1", "xhotkey", "COMMON"),), WRONG_TYPE.format(0, "struct")),
        ("Start", "ssv", (":1", "xhotkey", ("s", "COMMON")), WRONG_TYPE.format(2, "variant")),
        ("Start", "oss", ("/a", "xhotkey", "COMMON"), WRONG_TYPE.format(0, "object_path")),
        ("Stop", "", (), WRONG_TYPE.format(0, "invalid")),
        ("Stop", "s", (":1",), TOO_FEW.format(1)),
        ("Stop", "ds", (1.0, "xhotkey"), WRONG_TYPE.format(0, "double")),
        ("Stop", "sg", (":1", "s"), WRONG_TYPE.format(1, "signature")),
    ],
)
def test_a_call_with_wrong_arguments_is_logged_and_gets_an_error(machine, member, signature, arguments, text):
    since = now(machine)
    with pytest.raises(CallFailed) as failure:
        machine.caller().call("DisplayManager", member, signature, *arguments)
    assert failure.value.args == (
        UNKNOWN_METHOD,
        f'Method "{member}" with signature "{signature}" on interface "{INTERFACE}" doesn\'t exist\n',
    )
    assert transcript(machine, since) == [arrival(member), (f"dbus_dm_{member.lower()}", text)]


def test_surplus_arguments_are_ignored(machine):
    caller = machine.caller()
    assert caller.call("DisplayManager", "Start", "sssas", ":1", "xhotkey", "USB", ["more"]) == (True,)
    (record,) = machine.wait_records(1)
    machine.wait_log("child=")
    assert caller.call("DisplayManager", "Stop", "sssi", ":1", "xhotkey", "USB", 7) == (True,)
    machine.wait_gone(record.pid)


# ---- interfaces and members ----


def test_a_call_without_an_interface_is_served(machine):
    caller = machine.caller()
    since = now(machine)
    address = OBJECT.with_interface(None)
    assert caller.ask(new_method_call(address, "Start", "sss", (":1", "xhotkey", "PCI"))) == (True,)
    (record,) = machine.wait_records(1)
    machine.wait_log("child=")
    assert caller.ask(new_method_call(address, "Stop", "ss", (":1", "xhotkey"))) == (True,)
    machine.wait_gone(record.pid)
    arrivals = [line for line in transcript(machine, since) if line[0] == "ccs_dbus_message_handler"]
    assert arrivals == [arrival("Start", "(null)"), arrival("Stop", "(null)")]


@pytest.mark.parametrize(
    "interface, member",
    [
        (INTERFACE, "Launch"),
        (INTERFACE, "start"),
        (INTERFACE, "STOP"),
        (INTERFACE, "StartStop"),
        (INTERFACE, "HelloWorld"),
        ("com.corvane.ControlServer.Dummy", "Start"),
        ("com.corvane.ControlServer.Dummy", "HelloWorld"),
        ("com.corvane.ControlServer.displaymanager", "Start"),
        ("com.corvane.ControlServer", "Stop"),
        (None, "Launch"),
    ],
)
def test_a_call_of_an_unknown_method_is_logged_as_unhandled_and_gets_an_error(machine, interface, member):
    since = now(machine)
    shown = interface or "(null)"
    call = new_method_call(OBJECT.with_interface(interface), member, "sss", (":1", "xhotkey", "PCI"))
    with pytest.raises(CallFailed) as failure:
        machine.caller().ask(call)
    assert failure.value.args == (
        UNKNOWN_METHOD,
        f'Method "{member}" with signature "sss" on interface "{shown}" doesn\'t exist\n',
    )
    assert transcript(machine, since) == [arrival(member, shown), unhandled(shown, member)]


# ---- long texts ----


def test_a_text_of_one_mebibyte_full_of_conversions_is_logged_unchanged(machine):
    caller = machine.caller()
    long = ("%s%n%d%p%1$s%%%.9999999d" * 50000)[: 1024 * 1024]
    since = now(machine)
    assert caller.start(long, "init-station") is False
    assert caller.start(":1", "init-station", long) is False
    assert caller.start(":1", long) is False
    assert caller.stop(long, "init-station") is False
    assert caller.stop(":1", long) is False
    assert transcript(machine, since) == [
        START,
        ("dbus_dm_start", f"dbus_dm_start(): display={long}, actor=init-station, stationtype=COMMON"),
        ("dbus_dm_start", f"{{DM}} Invalid DISPLAY value : {long}"),
        START,
        ("dbus_dm_start", f"dbus_dm_start(): display=:1, actor=init-station, stationtype={long}"),
        ("dbus_dm_start", f"{{DM}} Invalid station type: {long}"),
        START,
        ("dbus_dm_start", f"dbus_dm_start(): display=:1, actor={long}, stationtype=COMMON"),
        ("dbus_dm_start", f"{{DM}} Invalid actor name: {long}"),
        STOP,
        ("dbus_dm_stop", f"{{DM}} Invalid DISPLAY value : {long}"),
        STOP,
        ("dbus_dm_stop", f"{{DM}} Invalid actor name: {long}"),
    ]


def test_line_feeds_in_a_text_are_logged_unchanged(machine):
    caller = machine.caller()
    assert caller.start("a\nb:\n4", "init-station", "USB\n") is False
    assert caller.start("a\nb:\n4", "init-station\n", "USB") is False
    assert caller.start("a\nb:\n4", "init-station", "USB") is True
    log = machine.log_text()
    assert "dbus_dm_start(): display=a\nb:\n4, actor=init-station, stationtype=USB\n\n" in log
    assert "{DM} Invalid station type: USB\n\n" in log
    assert "{DM} Invalid actor name: init-station\n\n" in log
    assert "Start requested actor code: 1 on display :4\n" in log
