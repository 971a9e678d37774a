# SPDX-License-Identifier: MIT
# users.py: an ordinary user of the machine tries what root may.
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


@check("root's calls with a descriptor are refused", "systemd")
def with_a_descriptor():
    for interface, member, arguments in (
        (f"{machine.NAME}.DisplayManager", "Start", ("sssh", ":9", "init-station", "COMMON", "0")),
        ("org.freedesktop.DBus.Peer", "Ping", ("h", "0")),
    ):
        result = machine.run("busctl", "call", machine.NAME, "/com/corvane/ControlServer/DisplayManager",
                             interface, member, *arguments)
        expect(result.status == 1 and "denied" in result.output.lower(), result)
