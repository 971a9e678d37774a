# SPDX-License-Identifier: MIT
# test_stress_replies.py: every reply comes at once, whatever the actors of sixteen stations do.
#
# Four callers start and stop the actors of four stations each without a pause, and time every reply. After
# each call they also call the bus itself, which knows no actors: its times are what the machine adds.
import contextlib
import multiprocessing
import os
import random
import signal
import statistics
import time

from jeepney import DBusAddress, new_method_call

from stress import GROUPS, SEED, chance, make_stations, report, size, time_limit
from support.callers import Caller, start_call, stop_call
from support.machine import STAND_IN
from support.place import PROGRAMS
from support.processes import descendants

pytestmark = time_limit
STATIONS = 16
CALLERS = 4
MOST_SECONDS = size(0.25, 0.05)  # more than the bus takes; a short run has few samples
SECONDS_OF_AN_ACTOR = 2  # after this time the test kills the actors that nothing else ends
BEHAVIOURS = ("stay", "ignore-term", "stop-self", "grandchild", "daemonise", "exit 0", "missing")
BUS = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus.Peer")


def timed(caller, call):
    """Returns when the call was sent, and the seconds until the reply."""
    begin = time.monotonic()
    assert caller.ask(call, timeout=60) in ((True,), ())
    return begin, time.monotonic() - begin


def start_and_stop_without_pause(pipe, address, displays, seed, until):
    """Sends the times of all replies of the daemon and of the bus through the pipe."""
    caller, choice = Caller(address), random.Random(seed)
    replies, pings = [], []
    while time.monotonic() < until:
        display, actor = f":{choice.choice(displays)}", choice.choice(list(GROUPS))
        for call in (start_call(display, actor), stop_call(display, actor)):
            replies.append(timed(caller, call))
            pings.append(timed(caller, new_method_call(BUS, "Ping")))
            if choice.random() < 0.1:
                time.sleep(0.003)  # lets an actor reach its behaviour before the stop
    pipe.send((replies, pings))


class Helper:
    """A child of the runner that calls the daemon."""

    def __init__(self, *arguments):
        context = multiprocessing.get_context("fork")
        self.reader, writer = context.Pipe(duplex=False)
        self.process = context.Process(target=start_and_stop_without_pause, args=(writer, *arguments))
        self.process.start()
        writer.close()

    def result(self):
        result = self.reader.recv()
        self.process.join()
        return result


def set_behaviour(machine, program, behaviour):
    is_installed = os.path.lexists(f"/run/stage/actors/bin/{program}")
    if behaviour != "missing":
        machine.behave(program, behaviour)
        if not is_installed:
            machine.install(program)
    elif is_installed:
        machine.remove(program)


def kill_actors():
    for pid in descendants():
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{pid}/exe") == STAND_IN:
                os.kill(pid, signal.SIGKILL)


def median_of_maxima(who, times):
    """The median of the slowest replies of all seconds."""
    slowest = {}
    for moment, taken in times:
        slowest[int(moment)] = max(slowest.get(int(moment), 0), taken)
    median = statistics.median(slowest.values())
    typical = statistics.median(taken for _, taken in times)
    report(
        who, replies=len(times), median_ms=f"{1000 * typical:.1f}", median_of_maxima_ms=f"{1000 * median:.1f}"
    )
    return median


def test_no_reply_waits_for_an_actor_while_sixteen_stations_start_and_stop_without_pause(machine):
    make_stations(machine.caller(), STATIONS)
    choice = chance()
    length = size(5, 60)
    until = time.monotonic() + length
    helpers = [
        Helper(machine.address, range(number, STATIONS, CALLERS), SEED + number, until)
        for number in range(CALLERS)
    ]
    last_kill = time.monotonic()
    while time.monotonic() < until:
        for program in PROGRAMS:
            set_behaviour(machine, program, choice.choice(BEHAVIOURS))
        time.sleep(0.25)
        if time.monotonic() - last_kill > SECONDS_OF_AN_ACTOR:
            kill_actors()
            last_kill = time.monotonic()
    kill_actors()
    replies, pings = [], []
    for helper in helpers:
        of_daemon, of_bus = helper.result()
        replies += of_daemon
        pings += of_bus
    assert median_of_maxima("daemon", replies) - median_of_maxima("bus", pings) < MOST_SECONDS
    assert len(replies) > 50 * length, "the callers made pauses"
    log = machine.log_text()
    assert log.count(", child=") > 10 * length and log.count("proc_method_stop: child_pid ") > 10 * length
