# SPDX-License-Identifier: MIT
# test_stress_replies.py: every reply comes at once, whatever the actors of sixteen stations do, and whatever one
# caller sends in a burst.
#
# Four callers start and stop without pause, four stations each, and time every reply. In turn with each call they
# ask the bus itself, which has nothing to do with actors: what its replies take is what the machine adds.
import contextlib
import os
import pickle
import random
import signal
import statistics
import time

from jeepney import DBusAddress, new_method_call

from support.callers import Caller
from support.machine import STAND_IN
from support.place import PROGRAMS
from support.processes import descendants
from stress import GROUPS, SEED, chance, make_stations, report, size, start_call, stop_call, time_limit

pytestmark = time_limit
STATIONS = 16
CALLERS = 4
SECONDS_OF_A_SLICE = 1
MOST_SECONDS = size(0.25, 0.05)  # more than the bus takes; a short run shares its machine with others
SECONDS_OF_AN_ACTOR = 2  # that nothing else ends
BEHAVIOURS = ("stay", "ignore-term", "stop-self", "grandchild", "daemonise", "exit 0", "missing")
PING = new_method_call(DBusAddress("/org/freedesktop/DBus", bus_name="org.freedesktop.DBus",
                                   interface="org.freedesktop.DBus.Peer"), "Ping")


def seconds(caller, call):
    begin = time.monotonic()
    assert caller.ask(call, timeout=60) in ((True,), ())
    return time.monotonic() - begin


def start_and_stop_without_pause(address, displays, seed, until):
    """Returns the times of the replies of daemon and bus, as (moment, seconds)."""
    caller, choice = Caller(address), random.Random(seed)
    replies, pings = [], []
    while time.monotonic() < until:
        display, actor = choice.choice(displays), choice.choice(list(GROUPS))
        for call in (start_call(display, actor), stop_call(display, actor)):
            replies.append((time.monotonic(), seconds(caller, call)))
            pings.append((time.monotonic(), seconds(caller, PING)))
            if choice.random() < 0.1:
                time.sleep(0.003)  # long enough for an actor to show its nature before it is stopped
    return replies, pings


class Helper:
    """A child of the runner's that does some work and hands its result back."""

    def __init__(self, work, *arguments):
        reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            status = 1
            try:
                os.close(reader)
                with os.fdopen(writer, "wb") as out:
                    pickle.dump(work(*arguments), out)
                status = 0
            finally:
                os._exit(status)
        os.close(writer)
        self.reader = os.fdopen(reader, "rb")

    def result(self):
        with self.reader:
            result = pickle.load(self.reader)
        os.waitpid(self.pid, 0)
        return result


def misbehave(machine, program, behaviour):
    path = f"/run/stage/actors/bin/{program}"
    if behaviour == "missing":
        if os.path.lexists(path):
            machine.remove(program)
        return
    machine.behave(program, behaviour)
    if not os.path.lexists(path):
        machine.install(program)


def end_actors():
    """Ends all actors and their offspring: those that nothing else ends would fill the machine."""
    for pid in descendants():
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{pid}/exe") == STAND_IN:
                os.kill(pid, signal.SIGKILL)


def figures(times):
    times = sorted(taken for _, taken in times)

    def at(share):
        return f"{1000 * times[min(len(times) - 1, int(share * len(times)))]:.1f}"

    return f"{len(times)} replies, ms at 50/99/99.9/100 %: {at(0.5)}/{at(0.99)}/{at(0.999)}/{at(1)}"


def maxima(times):
    """The slowest reply of each slice of time."""
    slices = {}
    for moment, taken in times:
        key = int(moment / SECONDS_OF_A_SLICE)
        slices[key] = max(slices.get(key, 0), taken)
    return list(slices.values())


def test_no_reply_waits_for_an_actor_while_sixteen_stations_start_and_stop_without_pause(machine):
    make_stations(machine.caller(), STATIONS)
    choice = chance()
    length = size(5, 60)
    until = time.monotonic() + length
    helpers = [Helper(start_and_stop_without_pause, machine.address, range(number, STATIONS, CALLERS), SEED + number,
                      until) for number in range(CALLERS)]
    last_end = time.monotonic()
    while time.monotonic() < until:
        for program in PROGRAMS:
            misbehave(machine, program, choice.choice(BEHAVIOURS))
        time.sleep(0.25)
        if time.monotonic() - last_end > SECONDS_OF_AN_ACTOR:
            end_actors()
            last_end = time.monotonic()
    end_actors()
    replies, pings = [], []
    for helper in helpers:
        of_daemon, of_bus = helper.result()
        replies += of_daemon
        pings += of_bus
    slowest = {}
    for who, times in (("daemon", replies), ("bus", pings)):
        slowest[who] = statistics.median(maxima(times))
        report(who, replies=figures(times), median_of_the_maxima_ms=f"{1000 * slowest[who]:.1f}")
    assert slowest["daemon"] - slowest["bus"] < MOST_SECONDS
    assert len(replies) > 50 * length, "the callers did not call without pause"
    log = machine.log_text()
    assert log.count(", child=") > 10 * length and log.count("proc_method_stop: child_pid ") > 10 * length


# Of what a burst asks of one station, that much may be queued at a time: on a busy machine one more for each ten
# milliseconds in which the worker gets no processor.
MOST_QUEUED = 20


def queued_at_most(machine):
    """Requests that were queued and not yet begun: the largest number at any time, by the order of the log."""
    waiting = most = 0
    for text in machine.texts():
        if text.startswith(("Start requested actor code: ", "display_num=")):
            waiting += 1
        elif text.startswith("group:") or text == "proc_method_stop":
            waiting -= 1
        most = max(most, waiting)
    return most


def test_a_burst_for_one_station_does_not_fill_its_queue_and_so_keeps_nobody_waiting(machine):
    caller = machine.caller()
    make_stations(caller, 1)
    pairs = size(150, 1000)
    calls = [start_call(0, "xhotkey"), stop_call(0, "xhotkey")] * pairs
    caller.burst(calls)
    machine.wait_log("proc_method_stop$", pairs, seconds=120)
    most = queued_at_most(machine)
    report("burst", requests=len(calls), queued_at_most=most)
    assert most <= MOST_QUEUED
