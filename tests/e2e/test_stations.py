# SPDX-License-Identifier: MIT
# test_stations.py: each display has one worker, and the log shows a request from its arrival to its effect.
import pytest

from support.callers import start_call, stop_call
from support.processes import process_state
from transcript import START, STOP, begun, launch, now, transcript


# ---- transcripts ----


def test_the_first_start_on_a_display_creates_the_station_and_launches_the_actor(machine):
    since = now(machine)
    assert machine.caller().start("host:4.1", "xhotkey", "USB") is True
    (record,) = machine.wait_records(1)
    machine.wait_log("child=")
    lines = transcript(machine, since)
    worker_began = lines.index(begun(4))
    assert worker_began in (3, 4)
    lines.pop(worker_began)
    assert lines == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=host:4.1, actor=xhotkey, stationtype=USB"),
        ("dm_start_station_thread", "Start a new station thread for :4"),
        ("dbus_dm_start", "Start requested actor code: 7 on display :4"),
        ("proc_method_start", "group:3, is_running:0"),
        ("proc_method_start", "Start method_start_thread for actor:7"),
        ("method_start_thread", "method_start_thread() for actor_code:7, display_num:4"),
        *launch(7, 4, record.pid, "corvane-xh", "-display", ":4"),
    ]


def test_a_second_start_on_a_display_uses_the_same_station(machine):
    caller = machine.caller()
    assert caller.start(":4", "xhotkey", "USB") is True
    machine.wait_records(1)
    machine.wait_log("child=")
    since = now(machine)
    assert caller.start("other:4.0", "local-login", "PCI") is True
    record = machine.wait_records(2)[1]
    machine.wait_log("child=", 2)
    assert transcript(machine, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=other:4.0, actor=local-login, stationtype=PCI"),
        ("dm_start_station_thread", "station thread for :4 exists."),
        ("dbus_dm_start", "Start requested actor code: 2 on display :4"),
        ("proc_method_start", "group:1, is_running:0"),
        ("proc_method_start", "Start method_start_thread for actor:2"),
        ("method_start_thread", "method_start_thread() for actor_code:2, display_num:4"),
        *launch(2, 4, record.pid, "corvane-ls", ":4"),
    ]


def test_a_start_of_a_running_group_is_dropped(machine):
    caller = machine.caller()
    assert caller.start(":0", "press-fkey") is True
    machine.wait_log("child=")
    since = now(machine)
    assert caller.start(":0", "press-fkey") is True
    machine.wait_log("is already running")
    assert transcript(machine, since) == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:0, actor=press-fkey, stationtype=COMMON"),
        ("dm_start_station_thread", "station thread for :0 exists."),
        ("dbus_dm_start", "Start requested actor code: 4 on display :0"),
        ("proc_method_start", "group:2, is_running:1"),
        ("proc_method_start", "Sub thread of actor group for 2 is already running."),
    ]


def test_a_stop_terminates_the_child_and_ends_its_thread(machine):
    caller = machine.caller()
    assert caller.start(":6", "disable-station") is True
    (record,) = machine.wait_records(1)
    machine.wait_log("child=")
    since = now(machine)
    assert caller.stop(":6", "disable-station") is True
    machine.wait_log("keep_alive")
    assert transcript(machine, since) == [
        STOP,
        ("dbus_dm_stop", "display_num=6, actor_code=6"),
        ("proc_method_stop", "proc_method_stop"),
        ("proc_method_stop", f"proc_method_stop: child_pid {record.pid}"),
        ("method_start_thread", f"Child process died: {record.pid}"),
        ("method_start_thread", "keep_alive field is FALSE. Exit from the current thread"),
    ]
    assert process_state(record.pid) is None


def test_a_stop_of_an_idle_group_is_queued_and_logs_that_nothing_runs(machine):
    caller = machine.caller()
    assert caller.start(":6", "init-station") is True
    machine.wait_log("No action needed")
    since = now(machine)
    assert caller.stop(":6", "remote-login") is True
    machine.wait_log("sub process is not running")
    assert transcript(machine, since) == [
        STOP,
        ("dbus_dm_stop", "display_num=6, actor_code=3"),
        ("proc_method_stop", "proc_method_stop"),
        ("proc_method_stop", "{DM} sub process is not running"),
    ]


def test_a_stop_on_an_unknown_display_fails_and_creates_no_station(machine):
    caller = machine.caller()
    assert caller.start(":1", "init-station") is True
    machine.wait_log("No action needed")
    since = now(machine)
    for _ in range(2):
        assert caller.stop("host:2147483647.3", "xhotkey") is False
    assert transcript(machine, since) == 2 * [
        STOP,
        ("dbus_dm_stop", "display_num=2147483647, actor_code=7"),
        ("add_station_event", "{DM} Unable to find station entry for display 2147483647"),
        ("dbus_dm_stop", "{DM} Unable to add event"),
    ]


def test_init_station_creates_the_station_and_runs_no_process(machine):
    since = now(machine)
    assert machine.caller().start(":4", "init-station", "PCI") is True
    machine.wait_log("No action needed")
    lines = transcript(machine, since)
    lines.remove(begun(4))
    assert lines == [
        START,
        ("dbus_dm_start", "dbus_dm_start(): display=:4, actor=init-station, stationtype=PCI"),
        ("dm_start_station_thread", "Start a new station thread for :4"),
        ("dbus_dm_start", "Start requested actor code: 1 on display :4"),
        ("proc_method_start", "group:0, is_running:0"),
        ("proc_method_start", "Start method_start_thread for actor:1"),
        ("init_group_thread", "init_group_thread() for actor_code:1, display_num:4"),
        ("init_group_thread", "No action needed for INIT_STATION. display_num: 4"),
    ]
    assert machine.children() == [] and machine.records() == []


def test_init_station_never_counts_as_running(machine):
    caller = machine.caller()
    for _ in range(3):
        assert caller.start(":4", "init-station") is True
    assert caller.stop(":4", "init-station") is True
    machine.wait_log("sub process is not running")
    assert machine.texts().count("group:0, is_running:0") == 3
    assert machine.texts().count("No action needed for INIT_STATION. display_num: 4") == 3
    assert machine.texts()[-2:] == ["proc_method_stop", "{DM} sub process is not running"]


# ---- groups ----


GROUPS = {
    1: ["local-login", "remote-login"],
    2: ["press-fkey", "click-mouse", "disable-station"],
    3: ["xhotkey"],
}


@pytest.mark.parametrize("group", GROUPS)
def test_the_actors_of_a_group_exclude_each_other_and_a_stop_of_any_one_stops_the_group(machine, group):
    actors = GROUPS[group]
    caller = machine.caller()
    refused = 0
    for first in actors:
        for second in actors:
            assert caller.start(":1", first) is True
            machine.wait("single child", lambda: len(machine.children()) == 1)
            (child,) = machine.children()
            assert caller.start(":1", second) is True
            refused += 1
            machine.wait_log(f"Sub thread of actor group for {group} is already running", refused)
            assert machine.children() == [child]
            assert caller.stop(":1", second) is True
            machine.wait_log(f"proc_method_stop: child_pid {child}$")
            machine.wait_gone(child)


def test_groups_and_stations_do_not_exclude_each_other(machine):
    caller = machine.caller()
    for display in (":1", ":2"):
        for actor in ("local-login", "click-mouse", "xhotkey"):
            assert caller.start(display, actor) is True
    records = machine.wait_records(6)
    machine.wait_log("child=", 6)
    assert caller.stop(":1", "click-mouse") is True
    machine.wait_log("keep_alive field is FALSE")
    expected = [
        ["corvane-ls", ":1"],
        ["corvane-xh", "-display", ":1"],
        ["corvane-ls", ":2"],
        ["corvane-pfk", "-display", ":2", "--mouse", "--verbose", "--logfile", "/var/log/corvane-pfk2.log"],
        ["corvane-xh", "-display", ":2"],
    ]
    assert sorted(record.argv for record in machine.running()) == sorted(expected)
    assert len(records) == 6 and "is already running" not in machine.log_text()


# ---- the list of stations ----


@pytest.mark.parametrize("option", ["--verbose", "-v"])
def test_a_verbose_daemon_lists_all_stations_after_it_creates_one(bare, option):
    bare.start_bus()
    bare.start_daemon(option)
    caller = bare.caller()

    def listing_of(display, station_type):
        since = now(bare)
        assert caller.start(display, "init-station", station_type) is True
        return [line for line in transcript(bare, since) if line[0] == "dm_start_station_thread"]

    def row(position, display, code):
        return ("dm_start_station_thread", f"#{position} station: display_num={display}, type={code}")

    def made(display):
        return ("dm_start_station_thread", f"Start a new station thread for :{display}")

    assert listing_of(":5", "PCI") == [made(5), row(1, 5, 2)]
    assert listing_of(":2147483647", "USB") == [made(2147483647), row(1, 5, 2), row(2, 2147483647, 3)]
    assert listing_of(":0", "COMMON") == [made(0), row(1, 5, 2), row(2, 2147483647, 3), row(3, 0, 1)]
    assert listing_of(":5", "USB") == [("dm_start_station_thread", "station thread for :5 exists.")]
    listing = [made(1), row(1, 5, 2), row(2, 2147483647, 3), row(3, 0, 1), row(4, 1, 3)]
    assert listing_of(":1", "USB") == listing


def test_without_the_verbose_option_no_station_is_listed(machine):
    caller = machine.caller()
    for display in (":5", ":2", ":5"):
        assert caller.start(display, "init-station") is True
    assert "station: display_num=" not in machine.log_text()


def test_each_display_gets_one_worker_which_never_ends(machine):
    caller = machine.caller()
    threads = len(machine.threads())
    for display in (":3", ":4", ":3", "host:4.0", ":3", ":4"):
        assert caller.start(display, "init-station") is True
    machine.wait_log("No action needed", 6)
    machine.wait("end of the group threads", lambda: len(machine.threads()) == threads + 2)
    started = [text for text in machine.texts() if text.startswith("Thread for Display")]
    assert started == ["Thread for Display 3 started...", "Thread for Display 4 started..."]


# ---- the queue ----


def test_the_requests_of_a_station_run_in_order_of_arrival(machine):
    actors = "local-login press-fkey xhotkey init-station click-mouse remote-login disable-station".split()
    codes = [2, 4, 7, 1, 5, 3, 6]
    calls = [make(":1", actor) for make in (start_call, stop_call) for actor in actors]
    assert machine.caller().burst(calls) == 14 * [(True,)]
    machine.wait_log("^.*: proc_method_stop$", 7)
    groups = [(1, 0), (2, 0), (3, 0), (0, 0), (2, 1), (1, 1), (2, 1)]  # and whether each is running
    assert [text for text in machine.texts() if text.startswith("group:")] == [
        f"group:{group}, is_running:{is_running}" for group, is_running in groups
    ]
    requested = [text for text in machine.texts() if text.startswith(("Start requested", "display_num="))]
    assert requested == (
        [f"Start requested actor code: {code} on display :1" for code in codes]
        + [f"display_num=1, actor_code={code}" for code in codes]
    )
    machine.wait_log("sub process is not running", 4)
    stops = [line.text for line in machine.log() if line.function == "proc_method_stop"]
    stops = [text for text in stops if text != "proc_method_stop"]
    children = [text.rpartition("=")[2] for text in machine.texts() if "child=" in text]
    signalled = [f"proc_method_stop: child_pid {child}" for child in children]
    assert len(children) == 3 and stops == signalled + 4 * ["{DM} sub process is not running"]


def test_all_requests_of_several_bursts_run_although_no_later_request_arrives(machine):
    callers = [machine.caller() for _ in range(4)]
    calls = [start_call(f":{number % 5}", "init-station") for number in range(50)]
    sent = [caller.send_all(calls) for caller in callers]
    for caller, serials in zip(callers, sent):
        assert caller.replies(serials) == 50 * [(True,)]
    machine.wait_log("No action needed", 200)
