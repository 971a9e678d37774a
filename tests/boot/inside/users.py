# SPDX-License-Identifier: MIT
# users.py: an ordinary user of the machine tries what root may.
import descriptor
import machine
from report import check, expect

REFUSED = "org.freedesktop.DBus.Error.AccessDenied"
CALLS = {
    "HelloWorld": lambda: machine.call("HelloWorld", user=machine.USER),
    "Start": lambda: machine.call("Start", ":9", "local-login", "COMMON", user=machine.USER),
    "Stop": lambda: machine.call("Stop", ":9", "local-login", user=machine.USER),
    "Introspect": lambda: machine.call("Introspect", user=machine.USER,
                                       interface="org.freedesktop.DBus.Introspectable"),
    "Ping": lambda: machine.call("Ping", user=machine.USER, interface="org.freedesktop.DBus.Peer"),
    "GetAll": lambda: machine.call("GetAll", "", user=machine.USER,
                                   interface="org.freedesktop.DBus.Properties"),
}


def refuse(name):
    @check(f"another user's {name} is refused")
    def is_refused():
        result = CALLS[name]()
        expect(result.status == 1 and REFUSED in result.output, result)
        expect(not machine.actors(), "an actor runs")


for name in CALLS:
    refuse(name)


def added_to(before):
    return machine.read(machine.LOG).removeprefix(before)


@check("another user's calls leave nothing in the log")
def silence():
    before = machine.read(machine.LOG)
    for one in CALLS.values():
        one()
    machine.call("HelloWorld")  # is logged after them, in two lines
    machine.wait_for("root's call in the log", lambda: "{DUMMY}" in added_to(before))
    added = added_to(before)
    expect(added.count("\n") == 2, "added:", added)


@check("another user may not own the daemon's name")
def ownership():
    result = machine.ask_bus("RequestName", f"string:{machine.NAME}", "uint32:3", user=machine.USER)
    expect(result.status == 1 and REFUSED in result.output, result)


@check("root's calls with a descriptor are refused")
def with_a_descriptor():
    for interface, member, strings in (
        (f"{machine.NAME}.DisplayManager", "Start", (":9", "init-station", "COMMON")),
        ("org.freedesktop.DBus.Peer", "Ping", ()),
    ):
        path = f"/{machine.NAME.replace('.', '/')}/DisplayManager"
        error = descriptor.call(machine.NAME, path, interface, member, *strings)
        expect(error == REFUSED, f"{member}: {error or 'no error'}")
