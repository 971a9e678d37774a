# SPDX-License-Identifier: MIT
# test_stress_order.py: what was accepted takes effect, in the order of acceptance, whatever fails on the way.
import os
import re

from support.machine import SANITIZER
from support.place import LOG
from stress import (GROUPS, chance, is_32_bit, make_stations, report, size, start_call, start_in_storm, stop_call,
                    time_limit, wait_count)

pytestmark = time_limit
NOT_RUNNING = "{DM} sub process is not running\n"
STOPPED = re.compile(r"proc_method_stop: DEBUG: (proc_method_stop: child_pid \d+|\{DM\} sub process is not running)\n")
THREAD_END = "Exit from the current thread\n"


def assert_no_actor_outlived_its_stop(machine, pairs):
    try:
        wait_count(machine, THREAD_END, pairs)
    finally:
        log = machine.log_text()
        report(f"{pairs} pairs", launched=log.count(", child="), alive=len(machine.children()),
               stops_that_found_nothing=log.count(NOT_RUNNING))
    assert machine.children() == []
    assert log.count(", child=") == pairs
    assert NOT_RUNNING not in log and "is already running" not in log
    assert all(line.level != "ERROR" for line in machine.log())


def test_a_thousand_stops_in_one_burst_find_the_children_of_their_starts(machine):
    caller = machine.caller()
    make_stations(caller, 16)
    pairs = size(300, 1000)
    calls = []
    for number in range(pairs):
        calls += [start_call(number % 16, "xhotkey"), stop_call(number % 16, "xhotkey")]
    assert caller.burst(calls) == len(calls) * [(True,)]
    assert_no_actor_outlived_its_stop(machine, pairs)


def test_a_thousand_stops_in_one_burst_over_new_stations_find_the_children_of_their_starts(machine):
    caller = machine.caller()
    pairs = size(300, 1000)
    # A worker's stack has 8 MiB under a sanitizer.
    stations = min(pairs, 200) if is_32_bit() and SANITIZER else pairs
    calls = []
    for number in range(pairs):
        actor = list(GROUPS)[number // stations % 3]
        calls += [start_call(number % stations, actor), stop_call(number % stations, actor)]
    assert caller.burst(calls) == len(calls) * [(True,)]
    assert_no_actor_outlived_its_stop(machine, pairs)


def test_of_two_starts_in_one_burst_the_first_ones_child_is_the_only_one(machine):
    caller = machine.caller()
    make_stations(caller, 16)
    rounds = size(200, 1000)
    calls = []
    for number in range(rounds):
        display = number % 16
        calls += [start_call(display, "remote-login"), start_call(display, "local-login"),
                  stop_call(display, "local-login")]
    assert caller.burst(calls) == len(calls) * [(True,)]
    wait_count(machine, THREAD_END, rounds)
    log = machine.log_text()
    report(f"{rounds} double starts", children=log.count(", child="), of_the_first=log.count("actor_code=3, child="))
    assert log.count(", child=") == log.count("actor_code=3, child=") == rounds
    assert log.count("Sub thread of actor group for 1 is already running.\n") == rounds
    assert machine.children() == []


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
