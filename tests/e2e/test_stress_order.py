# SPDX-License-Identifier: MIT
# test_stress_order.py: what was accepted takes effect, in the order of acceptance, whatever fails on the way.
import os
import re

from support.place import LOG
from stress import (GROUPS, chance, is_32_bit, make_stations, report, size, start_call, start_in_storm, stop_call,
                    time_limit, wait_count)

pytestmark = time_limit
NOT_RUNNING = "{DM} sub process is not running\n"
STOPPED = re.compile(r"proc_method_stop: DEBUG: (proc_method_stop: child_pid \d+|\{DM\} sub process is not running)\n")
THREAD_END = "Exit from the current thread\n"


def test_a_launch_that_fails_anywhere_lets_the_next_request_go_on(bare):
    start_in_storm(bare, delays=5, faults=100)
    caller = bare.caller()
    make_stations(caller, 16)
    choice = chance()
    pairs = size(500, 5000)
    calls = []
    for _ in range(pairs):
        display, actor = choice.randrange(16), choice.choice(list(GROUPS))
        calls += [start_call(display, actor), stop_call(display, actor)]
    assert caller.burst(calls) == len(calls) * [(True,)]
    wait_count(bare, "proc_method_stop: DEBUG: proc_method_stop\n", pairs)
    bare.wait("the last stop's second line", lambda: len(STOPPED.findall(bare.log_text())) == pairs)
    log = bare.log_text()
    launched = log.count(", child=")
    no_thread = "{DM} Unable to start thread for event:"
    failed = {"process": log.count("Unable to create child process."),
              "thread": log.count(no_thread) - log.count(f"{no_thread}1\n"),  # without those of init-station
              "memory": log.count("method_start_thread: DEBUG: {DM} Unable to allocate memory\n")}
    report(f"{pairs} pairs", launched=launched, **{f"without_{what}": count for what, count in failed.items()})
    assert all(failed.values())
    assert launched + sum(failed.values()) == pairs
    assert log.count("proc_method_stop: child_pid ") == launched
    assert log.count(NOT_RUNNING) == sum(failed.values())
    wait_count(bare, THREAD_END, launched)
    assert bare.children() == []


def test_no_request_sleeps_in_a_queue_when_all_callers_fall_silent(bare):
    start_in_storm(bare, delays=300)
    callers = [bare.caller() for _ in range(4)]
    make_stations(callers[0], 16)
    ran = "No action needed for INIT_STATION."
    wait_count(bare, ran, 16)
    choice = chance()
    rounds = size(25, 700 if is_32_bit() else 1500)  # each request keeps 64 KiB of addresses
    for _ in range(rounds):
        os.truncate(LOG, 0)
        calls = [[start_call(choice.randrange(16), "init-station") for _ in range(12)] for _ in callers]
        sent = [caller.send_all(part) for caller, part in zip(callers, calls)]
        for caller, serials in zip(callers, sent):
            assert caller.replies(serials) == 12 * [(True,)]
        wait_count(bare, ran, 48)
    report(f"{rounds} silences", requests=48 * rounds)
