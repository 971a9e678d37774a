# SPDX-License-Identifier: MIT
# test_ctl.py: corvane-ctl with a real daemon.
import json
import os
import pty
import re
import resource
import signal
import subprocess
import time
from pathlib import Path

import pytest
from jeepney import DBusAddress, MessageType, new_error, new_method_call

from support.callers import start_call
from support.machine import not_under_a_sanitizer
from support.place import LOG, NAME, STAGE
from support.processes import wait_for

CTL = os.environ["CORVANE_CTL"]
VERSION = os.environ["CORVANE_VERSION"]
HEAD = "DISPLAY ACTOR           STATE                      PROCESS SINCE          STARTS"
ADVICE = "corvane-ctl: "
NOT_FOUND = ":1 xhotkey: corvane-xh was not found; the daemon tries again every 2 s"


class Done:
    """A finished run of corvane-ctl: its exit status, its output and its error lines."""

    def __init__(self, machine, *words, **popen):
        bus = ["--bus", machine.address] if machine.address else []
        done = subprocess.run([CTL, *bus, *words], capture_output=True, timeout=60, **popen)
        self.status, self.raw = done.returncode, done.stdout.decode()
        self.lines = self.raw.splitlines()
        self.errors = done.stderr.decode().splitlines()
        assert len(self.errors) == (1 if self.status else len(self.errors)), self.errors
        assert all(line.startswith(ADVICE) for line in self.errors), self.errors

    def __repr__(self):
        return f"{self.status} {self.lines} {self.errors}"

    def expect(self, status, line, advice=None):
        """Asserts the exit status, the only line of output and the advice after an error."""
        assert (self.status, self.lines) == (status, [line]), self
        if advice or status == 0:
            assert self.errors == ([ADVICE + advice] if advice else []), self


@pytest.fixture
def ctl(machine):
    return lambda *words, **popen: Done(machine, *words, **popen)


def plain(line):
    """A line with P in place of each pid."""
    return re.sub(r"process \d+", "process P", line)


def row(line):
    """A row of the table: display, actor, state, whether it has a process, starts."""
    display, actor, state, process, starts = (
        line[begin:end].strip() for begin, end in ((0, 7), (8, 23), (24, 50), (51, 58), (74, 80))
    )
    state = state.replace("again, 3 s", "again, 2 s")  # the log has whole seconds
    return display, actor, state, process != "-", starts


def rows(done):
    """The rows of the table, and the lines below them unchanged."""
    head = done.lines.index(HEAD)
    return [line.strip() if line.startswith("  ") else row(line) for line in done.lines[head:][1:]]


def objects(done):
    """The output of --json: the daemon and the rows."""
    daemon, *found = (json.loads(line) for line in done.lines)
    return daemon, found


def fail_again_and_again(machine):
    """Starts xhotkey without its program on :1, and waits for the pause after its third launch."""
    machine.remove("corvane-xh")
    assert machine.caller().start(":1", "xhotkey") is True
    machine.wait_log("Child process died", 3)


def restart(machine, **launch):
    """Kills the daemon and starts another one."""
    machine.daemon.kill()
    machine.daemon.wait()
    os.rename(LOG, f"{LOG}.kept")  # start_daemon() waits for a new log
    machine.start_daemon(**launch)


# ---- start and stop ----


def test_start_reports_the_pid_of_the_actor(machine, ctl):
    done = ctl("start", ":1", "local-login")
    (record,) = machine.wait_records(1)
    assert record.argv == ["corvane-ls", ":1"]
    done.expect(0, f":1 local-login runs, process {record.pid}")


def test_start_stop_and_status_wait_for_an_actor_that_is_being_launched(machine, ctl):
    # The child looks for its program in 20,000 directories, so the exec comes some time after the fork.
    restart(machine, environment={"PATH": "/:" * 20000 + machine.environment()["PATH"]})
    assert ctl("start", ":1", "local-login", "--no-wait").status == 0
    (line,) = rows(ctl("status"))
    assert line[2] == "runs"
    done = ctl("start", ":2", "local-login")
    assert (done.status, plain(done.lines[0])) == (0, ":2 local-login runs, process P")
    ctl("stop", ":1", "local-login")
    ctl("start", ":1", "local-login", "--no-wait")
    assert ctl("stop", ":1", "local-login").status == 0


def test_the_station_type_is_common_unless_another_one_is_given(machine, ctl):
    assert ctl("start", ":1", "local-login").status == 0
    assert ctl("start", ":2", "local-login", "USB").status == 0
    types = [text.rpartition("=")[2] for text in machine.texts() if text.startswith("dbus_dm_start")]
    assert types == ["COMMON", "USB"]


def test_a_start_of_a_running_actor_changes_nothing_and_says_so(machine, ctl):
    ctl("start", ":1", "local-login")
    (record,) = machine.wait_records(1)
    done = ctl("start", ":1.0", "local-login")
    done.expect(
        1,
        f":1 local-login was already running, process {record.pid}: nothing changed",
        "to end that: corvane-ctl stop :1 local-login",
    )
    assert machine.children() == [record.pid]


def test_a_start_in_a_busy_group_names_its_actor(machine, ctl):
    ctl("start", ":1", "click-mouse")
    (record,) = machine.wait_records(1)
    done = ctl("start", ":1", "press-fkey")
    done.expect(
        1,
        f":1 press-fkey: its group was taken by click-mouse (process {record.pid})",
        "to end that: corvane-ctl stop :1 click-mouse",
    )


def test_start_names_a_missing_program(machine, ctl):
    machine.remove("corvane-xh")
    done = ctl("start", ":1", "xhotkey")
    done.expect(1, NOT_FOUND, "to end that: corvane-ctl stop :1 xhotkey")


def test_start_reports_a_program_that_exits_at_once(machine, ctl):
    machine.behave("corvane-xh", "exit 1")
    done = ctl("start", ":1", "xhotkey")
    done.expect(1, ":1 xhotkey: corvane-xh has ended; the daemon tries again every 2 s")


def test_a_start_in_the_pause_changes_nothing_and_gives_the_reason(machine, ctl):
    fail_again_and_again(machine)
    done = ctl("start", ":1", "xhotkey")
    done.expect(1, NOT_FOUND)
    assert machine.texts().count("Start method_start_thread for actor:7") == 1


def test_init_station_runs_no_process(ctl):
    done = ctl("start", ":1", "init-station")
    done.expect(0, ":1 init-station is ready; it runs no process")


def test_stop_reports_the_pid_and_the_time_until_the_exit(machine, ctl):
    ctl("start", ":1", "local-login")
    (record,) = machine.wait_records(1)
    done = ctl("stop", ":1", "local-login")
    assert done.status == 0 and not done.errors
    assert re.fullmatch(rf":1 ends, process {record.pid}, \d\.\d s", *done.lines)
    assert machine.children() == []


def test_stop_reports_an_actor_that_ignores_sigterm(machine, ctl):
    machine.behave("corvane-ls", "ignore-term")
    ctl("start", ":1", "local-login")
    (record,) = machine.wait_records(1)
    machine.wait_deaf(record)
    done = ctl("stop", ":1", "local-login")
    done.expect(1, ":1 local-login still runs: it ignores signal 15", "see: corvane-ctl status")
    assert rows(ctl("status")) == [(":1", "local-login", "runs", True, "1"), "was stopped, and still runs"]


def test_a_stop_of_an_idle_actor_changes_nothing_and_says_so(machine, ctl):
    ctl("start", ":1", "local-login")
    ctl("stop", ":1", "local-login")
    done = ctl("stop", ":1", "local-login")
    done.expect(1, ":1 local-login does not run: nothing changed")


def test_a_stop_in_the_pause_says_that_one_more_launch_will_come(machine, ctl):
    fail_again_and_again(machine)
    done = ctl("stop", ":1", "xhotkey")
    done.expect(
        1,
        ":1 xhotkey: the stop came in the pause before a restart, which still comes",
        "in 2 s, again: corvane-ctl stop :1 xhotkey",
    )


def test_a_refused_stop_gives_the_reason_from_the_log(ctl):
    done = ctl("stop", ":7", "local-login")
    done.expect(
        1,
        ":7 local-login: refused: Unable to find station entry for display 7",
        "see: corvane-ctl status",
    )


def test_no_wait_reports_only_the_reply(machine, ctl):
    machine.remove("corvane-xh")
    done = ctl("start", "--no-wait", ":1", "xhotkey")
    done.expect(0, ":1 xhotkey: queued")


def test_an_invalid_argument_is_not_sent_to_the_daemon(machine, ctl):
    before = machine.texts()
    done = ctl("start", ":1", "local-logn")
    assert (done.status, done.lines) == (2, [])
    assert done.errors == [
        ADVICE + "no such actor: local-logn; there are init-station local-login remote-login press-fkey "
        "click-mouse disable-station xhotkey; did you mean local-login?"
    ]
    for words in (["start", "1", "local-login"], ["start", ":1", "local-login", "pci"], ["starr", ":1"], []):
        assert ctl(*words).status == 2
    assert machine.texts() == before


# ---- status ----


def test_status_shows_the_daemon_and_each_group_that_ever_had_an_actor(machine, ctl):
    empty = ctl("status")
    process = rf"process {machine.daemon.pid}, since {time.strftime('%F')} [\d:]+"
    assert re.fullmatch(rf"corvane-cs {VERSION} runs, {process}", empty.lines[0])
    assert empty.lines[1:] == ["", HEAD]
    machine.behave("corvane-pfk", "exit 0")
    caller = machine.caller()
    for start in (":2 local-login", ":10 xhotkey", ":2 press-fkey", ":1 init-station"):
        assert caller.start(*start.split()) is True
    assert ctl("start", ":3", "remote-login").status == ctl("stop", ":3", "remote-login").status == 0
    machine.wait_log("Child process died", 4)  # three of press-fkey: its fourth start comes two seconds later
    done = ctl("status", "-v")
    assert rows(done) == [
        (":1", "init-station", "ready", False, "0"),
        (":2", "local-login", "runs", True, "1"),
        "corvane-ls :2",
        (":2", "press-fkey", "fails again and again, 2 s", False, "3"),
        "corvane-pfk has ended",
        (":3", "remote-login", "stopped", False, "1"),
        (":10", "xhotkey", "runs", True, "1"),
        "corvane-xh -display :10",
    ]
    assert rows(ctl("status", ":3")) == [(":3", "remote-login", "stopped", False, "1")]
    assert all(len(line) <= 80 for line in done.lines)


def test_status_counts_down_to_the_relaunch(machine, ctl):
    ctl("start", ":1", "local-login")
    (record,) = machine.wait_records(1)
    os.kill(record.pid, signal.SIGKILL)
    machine.wait_log(f"Child process died: {record.pid}$")
    (*actor, state, has_process, starts), reason = rows(ctl("status"))
    assert (*actor, has_process, starts) == (":1", "local-login", False, "1")
    assert reason == "corvane-ls has ended"
    assert state in ("restarting in 2 s", "restarting in 1 s", "restarting in 0 s")
    machine.wait_records(2)
    machine.wait_log("DISPLAY=:1, actor_code=2, child=", 2)
    assert rows(ctl("status")) == [(":1", "local-login", "runs", True, "2")]


def test_status_shows_a_background_daemon(bare):
    bare.start_bus()
    bare.daemonise("--start")
    bare.wait_log(r"Start mainloop \.\.\.")
    assert bare.caller().start(":1", "local-login") is True
    bare.wait_log("DISPLAY=:1, actor_code=2, child=")
    bare.wait_records(1)
    done = Done(bare, "status")
    assert f" process {bare.pid_file().strip()}, " in done.lines[0]
    assert rows(done) == [(":1", "local-login", "runs", True, "1")]


def test_status_shows_only_the_current_daemon(machine, ctl):
    ctl("start", ":1", "local-login")
    ctl("start", ":2", "xhotkey")
    machine.daemon.kill()
    machine.daemon.wait()
    done = ctl("status")
    assert (done.status, done.lines) == (3, [])
    assert done.errors == [ADVICE + "corvane-cs does not run; start it: service corvane-cs start"]
    os.rename(LOG, f"{LOG}.kept")
    machine.start_daemon()
    assert rows(ctl("status")) == []
    assert ctl("start", ":2", "local-login").status == 0
    assert rows(ctl("status")) == [(":2", "local-login", "runs", True, "1")]


def test_with_two_daemons_status_reads_the_log_of_the_owner_of_the_name(machine, ctl):
    ctl("start", ":1", "local-login")
    second = machine.launch()  # moves the log of the first daemon
    machine.wait("a moved log", lambda: os.path.exists(f"{LOG}.old"))
    machine.wait("second daemon", lambda: "Start mainloop" in machine.log_text())
    daemon, found = objects(ctl("status", "--json"))
    assert (daemon["daemon"], [row["starts"] for row in found]) == (machine.daemon.pid, [1])
    second.kill()
    second.communicate()
    assert rows(ctl("status")) == [(":1", "local-login", "runs", True, "1")]


def test_after_a_truncation_of_the_log_status_still_shows_what_runs(machine, ctl):
    ctl("start", ":1", "local-login")
    ctl("start", ":2", "local-login")
    ctl("stop", ":2", "local-login")
    os.truncate(LOG, 0)
    assert rows(ctl("status")) == [(":1", "local-login", "runs", True, "0+")]
    done = ctl("start", ":1", "local-login")
    assert plain(*done.lines) == ":1 local-login was already running, process P: nothing changed"


def test_status_reads_only_the_end_of_a_long_log(machine, ctl):
    ctl("start", ":1", "local-login")
    with open(LOG, "a") as log:
        log.write(("." * 99 + "\n") * 20000)
    ctl("start", ":2", "local-login")
    assert rows(ctl("status")) == [
        (":1", "local-login", "runs", True, "0+"),
        (":2", "local-login", "runs", True, "1+"),
    ]


def test_without_a_log_status_shows_what_runs_and_one_warning(machine, ctl):
    machine.daemon.kill()
    machine.daemon.wait()
    os.unlink(LOG)
    os.mkdir(LOG)
    machine.daemon = machine.launch()
    machine.wait("daemon", lambda: ctl("status").status == 0)
    assert plain(*ctl("start", ":1", "local-login").lines) == ":1 local-login runs, process P"
    machine.remove("corvane-xh")
    done = ctl("start", ":1", "xhotkey")
    done.expect(1, ":1 xhotkey: no start was seen within 1 s")
    done = ctl("status")
    assert done.status == 0
    assert done.errors == [ADVICE + "the log is empty or not readable: only what runs is shown"]
    assert rows(done) == [(":1", "local-login", "runs", True, "0+")]
    os.rmdir(LOG)


def test_json_has_everything_in_the_table(machine, ctl):
    ctl("start", ":1", "local-login")
    machine.remove("corvane-xh")
    ctl("start", ":1", "xhotkey")
    (record,) = machine.wait_records(1)
    daemon, (login, watcher) = objects(ctl("status", "--json"))
    moment = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    assert all(re.fullmatch(moment, each.pop("since")) for each in (daemon, login, watcher))
    assert daemon == {"daemon": machine.daemon.pid, "version": VERSION}
    assert login == {
        "display": ":1",
        "actor": "local-login",
        "state": "runs",
        "process": record.pid,
        "starts": 1,
        "reason": "",
        "command": "corvane-ls :1",
    }
    assert watcher.pop("state") == "restarting"
    assert watcher == {
        "display": ":1",
        "actor": "xhotkey",
        "process": 0,
        "starts": 1,
        "reason": "corvane-xh was not found",
        "command": "",
    }


@not_under_a_sanitizer("it takes more time")
def test_status_of_400_stations_takes_less_than_50_ms_of_processor_time(machine, ctl):
    caller = machine.caller()
    assert caller.burst([start_call(f":{n}", "local-login") for n in range(400)]) == 400 * [(True,)]
    machine.wait_log("DISPLAY=:[0-9]+, actor_code=2", 400, seconds=60)
    machine.wait_records(400, seconds=60)

    def processor_time():
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        assert len(rows(ctl("status"))) == 400
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime

    assert min(processor_time() for _ in range(10)) < 0.05


# ---- watch ----


class Watcher:
    """A running corvane-ctl watch and its output."""

    def __init__(self, machine, *words):
        self.machine = machine
        self.path = f"{STAGE}/watched"
        with open(self.path, "w") as output:
            command = [CTL, "--bus", machine.address, "watch", *words]
            self.process = subprocess.Popen(command, stdout=output, stderr=subprocess.PIPE, text=True)

    def lines(self):
        return [line for line in Path(self.path).read_text().splitlines() if line]

    def states(self):
        return [row(line)[:3] for line in self.lines() if line.startswith(":")]

    def wait(self, *states):
        """Waits until the last rows with one of these states are exactly these, in this order."""

        def have_come():
            first = -len(states)
            return [state for state in self.states() if state in states][first:] == list(states)

        wait_for(f"{states} in {self.path}", have_come, explain=lambda: f": {self.lines()}")


LOGIN_RUNS = (":1", "local-login", "runs")


def test_watch_prints_a_line_for_each_change(machine, ctl):
    ctl("start", ":1", "local-login")
    watcher = Watcher(machine, ":1")
    watcher.wait(LOGIN_RUNS)
    ctl("start", ":2", "local-login")  # of another display
    (record, _) = machine.wait_records(2)
    os.kill(record.pid, signal.SIGKILL)
    machine.wait("pause", lambda: any("restarting in" in line for line in watcher.lines()))
    watcher.wait(LOGIN_RUNS, LOGIN_RUNS)
    ctl("stop", ":1", "local-login")
    watcher.wait((":1", "local-login", "stopped"))
    assert len(watcher.states()) == 4, watcher.lines()
    assert {state[0] for state in watcher.states()} == {":1"}
    watcher.process.send_signal(signal.SIGINT)
    assert watcher.process.wait(10) == -signal.SIGINT


def test_watch_continues_after_a_restart_of_the_daemon_and_exits_with_the_bus(machine, ctl):
    watcher = Watcher(machine)
    ctl("start", ":1", "local-login")
    watcher.wait(LOGIN_RUNS)
    restart(machine)
    assert ctl("start", ":3", "xhotkey").status == 0
    watcher.wait((":3", "xhotkey", "runs"))
    assert f"process {machine.daemon.pid}," in "".join(watcher.lines())
    machine.bus.kill()
    errors = watcher.process.communicate(timeout=10)[1].splitlines()
    assert (watcher.process.returncode, errors[-1]) == (3, ADVICE + "the bus has ended; start it")
    assert set(errors[:-1]) <= {ADVICE + "corvane-cs does not run; start it: service corvane-cs start"}


def test_watch_prints_one_json_object_a_line(machine, ctl):
    watcher = Watcher(machine, "--json")
    ctl("start", ":1", "local-login")
    machine.wait("start", lambda: '"runs"' in "".join(watcher.lines()))
    ctl("stop", ":1", "local-login")
    machine.wait("stop", lambda: '"stopped"' in "".join(watcher.lines()))
    first, *rest = (json.loads(line) for line in watcher.lines())
    assert first["daemon"] == machine.daemon.pid
    assert [row["state"] for row in rest] == ["runs", "stopped"]
    watcher.process.kill()
    watcher.process.wait()


# ---- without a daemon or a bus ----


def test_without_a_daemon_the_exit_status_is_3(bare):
    bare.start_bus()
    for words in (["status"], ["start", ":1", "local-login"], ["stop", ":1", "local-login"], ["watch"]):
        done = Done(bare, *words)
        assert (done.status, done.lines) == (3, []), words


def test_without_a_bus_the_exit_status_is_3(bare):
    done = Done(bare, "status", "--bus", f"unix:path={STAGE}/none")
    assert (done.status, done.lines) == (3, [])
    assert done.errors[0].startswith(ADVICE + "no bus; start it, or give --bus ADDRESS: ")
    nowhere = {**os.environ, "DBUS_SESSION_BUS_ADDRESS": "unix:path=/none"}
    assert Done(bare, "status", "--session", env=nowhere).status == 3


def test_a_call_that_fails_although_the_daemon_runs_gives_its_error(bare):
    bare.start_bus()
    daemon = bare.caller().connection
    bus = DBusAddress(
        "/org/freedesktop/DBus", bus_name="org.freedesktop.DBus", interface="org.freedesktop.DBus"
    )
    daemon.send_and_get_reply(new_method_call(bus, "RequestName", "su", (NAME, 0)), timeout=10)
    command = [CTL, "--bus", bare.address, "start", ":1", "local-login"]
    ctl = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    call = daemon.receive(timeout=10)
    while call.header.message_type != MessageType.method_call:
        call = daemon.receive(timeout=10)
    daemon.send(new_error(call, "org.freedesktop.DBus.Error.LimitsExceeded", "s", ("Too\nmany",)))
    assert ctl.communicate(timeout=10) == ("", ADVICE + ":1 local-login: the call failed: Too\\x0amany\n")
    assert ctl.returncode == 3


def test_the_session_option_selects_the_session_bus(machine):
    environment = {**os.environ, "DBUS_SESSION_BUS_ADDRESS": machine.address}
    done = subprocess.run([CTL, "status", "--session"], capture_output=True, text=True, env=environment)
    assert (done.returncode, done.stderr) == (0, "")


def test_help_and_version_need_no_bus_and_help_fits_a_terminal(bare):
    done = Done(bare, "--help")
    assert done.status == 0 and "corvane-ctl start DISPLAY ACTOR" in done.raw
    assert [line for line in done.lines if len(line) > 80] == []
    assert (Done(bare, "--version").status, Done(bare, "--version").lines) == (0, [f"corvane-ctl {VERSION}"])


def test_the_actors_are_listed_without_a_bus(bare):
    done = Done(bare, "actors")
    assert done.status == 0
    assert done.lines == [
        "init-station    group 0, no process",
        "local-login     group 1, login",
        "  corvane-ls :1",
        "remote-login    group 1, login",
        "  corvane-ls :1 -query localhost",
        "press-fkey      group 2, injectors and image",
        "  corvane-pfk -display :1 --verbose --logfile /var/log/corvane-pfk1.log",
        "click-mouse     group 2, injectors and image",
        "  corvane-pfk -display :1 --mouse --verbose --logfile /var/log/corvane-pfk1.log",
        "disable-station group 2, injectors and image",
        "  corvane-x11-put-image :1 /usr/share/corvane/images/kva-images.bundle disabled",
        "xhotkey         group 3, hot keys",
        "  corvane-xh -display :1",
    ]


def test_a_closed_pipe_terminates_watch_with_sigpipe(machine, ctl):
    ctl("start", ":1", "local-login")
    watching = subprocess.Popen([CTL, "watch", "--bus", machine.address], stdout=subprocess.PIPE, text=True)
    assert watching.stdout.readline().startswith(f"corvane-cs {VERSION} runs, process ")
    watching.stdout.close()
    ctl("stop", ":1", "local-login")
    assert watching.wait(10) == -signal.SIGPIPE


# ---- colours ----


def on_a_terminal(machine, **environment):
    """The output of corvane-ctl status on a terminal."""
    end, its_end = pty.openpty()
    command = [CTL, "--bus", machine.address, "status"]
    process = subprocess.Popen(command, stdout=its_end, env={**os.environ, **environment})
    os.close(its_end)
    text = b""
    try:
        while piece := os.read(end, 4096):
            text += piece
    except OSError:  # the last process with the terminal has exited
        pass
    os.close(end)
    assert process.wait(10) == 0
    return text.decode()


def test_colours_are_used_only_on_a_terminal_without_no_color(machine, ctl):
    ctl("start", ":1", "local-login")
    assert "\033[32mruns" in on_a_terminal(machine, NO_COLOR="")
    assert "\033" not in on_a_terminal(machine, NO_COLOR="1")
    assert "\033" not in ctl("status").raw
