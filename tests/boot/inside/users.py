# SPDX-License-Identifier: MIT
# users.py: the machine's own bus has the policy: it refuses an ordinary user what root may do.
import machine
from report import check, expect

REFUSED = "org.freedesktop.DBus.Error.AccessDenied"


def added_to(before):
    return machine.read(machine.LOG).removeprefix(before)


@check("another user's Start is refused and leaves nothing in the log")
def start():
    before = machine.read(machine.LOG)
    result = machine.call("Start", ":9", "local-login", "COMMON", user=machine.USER)
    expect(result.status == 1 and REFUSED in result.output, result)
    expect(not machine.actors(), "an actor runs")
    machine.call("HelloWorld")  # logged after it, in two lines
    machine.wait_for("root's call in the log", lambda: "{DUMMY}" in added_to(before))
    added = added_to(before)
    expect(added.count("\n") == 2, "added:", added)


@check("another user may not own the daemon's name")
def ownership():
    result = machine.ask_bus("RequestName", f"string:{machine.NAME}", "uint32:3", user=machine.USER)
    expect(result.status == 1 and REFUSED in result.output, result)
