# SPDX-License-Identifier: MIT
# test_daemon_life.py: a daemon is started, found, refused a second time and stopped through its pid file.
#
# A process that reads the pid file waits 2 seconds first. To save time, some stories let two processes wait.
import contextlib
import ctypes
import os
import re
import shutil
import signal
import stat
import subprocess
import time

import pytest

from support.log import texts_of
from support.machine import DAEMON, not_under_a_sanitizer
from support.place import LOG, PID_FILE
from support.processes import WITHOUT_SIGTERM, process_state

PR_SET_CHILD_SUBREAPER = 36


@pytest.fixture
def adopted():
    """The test runner adopts orphans. adopted() waits for one of them and returns its exit status."""
    with contextlib.suppress(ChildProcessError):
        while True:  # the clean-up of an earlier story has killed these
            os.waitpid(-1, 0)
    libc = ctypes.CDLL(None)
    assert libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0

    def status(pid=-1):
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])

    yield status
    assert libc.prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0) == 0


@pytest.fixture
def daemon(bare):
    """The pid of a background daemon."""
    bare.start_bus()
    assert bare.daemonise("--start").returncode == 0
    bare.wait_log(r"Start mainloop")
    return int(bare.pid_file())


def ask(machine, *options):
    """Runs options that read the pid file; asserts that this takes 2 seconds or little more."""
    begin = time.monotonic()
    answer = machine.run(*options)
    assert 2 <= time.monotonic() - begin < 8
    return answer


def has_opened_the_pid_file(process):
    try:
        opened = [os.readlink(link.path) for link in os.scandir(f"/proc/{process.pid}/fd")]
    except FileNotFoundError:  # the process closed a descriptor in the meantime
        return False
    return os.path.realpath(PID_FILE) in opened


def status_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file)


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


# ---- start ----


def test_start_leaves_a_background_daemon(bare):
    bare.start_bus()
    os.makedirs("/run/stage/elsewhere")
    assert bare.daemonise("--start", cwd="/run/stage/elsewhere", umask=0o077).returncode == 0
    bare.wait_log(r"Start mainloop")
    assert re.fullmatch(r"[1-9]\d*", bare.pid_file())
    pid = int(bare.pid_file())
    assert bare.caller().hello() == "How are you?"
    # The intermediate process may still run.
    bare.wait("daemon that is a child of the runner", lambda: int(status_of(pid)["PPid"]) == os.getpid())
    status = status_of(pid)
    assert os.getsid(pid) not in (os.getsid(0), pid)
    assert os.getpgid(pid) == os.getsid(pid)
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert status["Umask"] == "0000"
    assert (mode(LOG), mode(PID_FILE)) == (0o666, 0o666)
    kept = [os.readlink(f"/proc/{pid}/fd/{descriptor}") for descriptor in range(3)]
    assert kept == ["/dev/null", "/run/stage/terminal", "/run/stage/terminal"]
    assert bare.terminal() == ""


def test_a_foreground_daemon_keeps_its_session_and_directory_and_leaves_the_pid_file_alone(bare):
    bare.start_bus()
    os.makedirs("/run/stage/elsewhere")
    bare.write_pid_file("77")
    pid = bare.start_daemon(cwd="/run/stage/elsewhere", umask=0o027).pid
    assert bare.caller().hello() == "How are you?"
    assert os.getsid(pid) == os.getsid(0)
    assert os.readlink(f"/proc/{pid}/cwd") == "/run/stage/elsewhere"
    assert mode(LOG) == 0o640
    assert bare.pid_file() == "77"


def test_the_intermediate_processes_of_a_start_exit_with_0(bare, adopted):
    bare.start_bus()
    assert bare.daemonise("--start").returncode == 0
    assert adopted(os.getsid(int(bare.wait("pid file", bare.pid_file)))) == 0


def test_a_second_start_is_refused_on_the_terminal_while_the_shell_sees_0(bare, adopted):
    bare.start_bus()
    bare.daemonise("--start")
    bare.wait_log(r"Start mainloop")
    first = bare.pid_file()
    assert adopted(os.getsid(int(first))) == 0
    log = bare.log_text()
    begin = time.monotonic()
    assert bare.daemonise("--start").returncode == 0
    assert time.monotonic() - begin < 2
    assert sorted([adopted(), adopted()]) == [0, 1]
    assert 2 <= time.monotonic() - begin < 8
    assert texts_of(bare.terminal()) == ["already running"]
    assert (bare.pid_file(), bare.log_text()) == (first, log)
    assert bare.caller().hello() == "How are you?"


def test_a_start_that_cannot_write_the_pid_file_exits_with_1_while_the_shell_sees_0(bare, adopted):
    bare.start_bus()
    shutil.rmtree("/run/corvane")
    assert bare.daemonise("--start").returncode == 0
    assert sorted([adopted(), adopted()]) == [0, 1]
    assert texts_of(bare.terminal()) == [f"unable to open pid file: {PID_FILE} for writing"]
    assert bare.logs() == []


@pytest.mark.parametrize("options", [["--start", "--verbose"], ["--verbose", "--start"], ["--start", "-v"]])
def test_a_background_daemon_can_be_verbose(bare, options):
    bare.start_bus()
    assert bare.daemonise(*options).returncode == 0
    bare.wait_log(r"Start mainloop")
    assert bare.caller().start(":4", "init-station") is True
    assert "#1 station: display_num=4, type=1" in bare.texts()


@pytest.mark.parametrize(
    "options, complaint",
    [
        (["--start", "start"], ""),
        (["--start", "--bogus"], "corvane-cs: unknown command line option: --bogus\n"),
    ],
)
def test_start_takes_effect_before_a_later_argument_is_refused(bare, adopted, options, complaint):
    bare.start_bus()
    assert bare.daemonise(*options).returncode == 0
    assert sorted([adopted(), adopted()]) == [0, 1]
    assert bare.terminal().startswith(f"{complaint}\ncorvane-cs: Corvane Control Server\n")
    assert bare.pid_file()
    assert bare.logs() == []


def test_start_and_pid_in_one_command_print_the_pid_of_the_new_process(bare, adopted):
    assert bare.daemonise("--start", "--pid").returncode == 0
    assert [adopted(), adopted()] == [0, 0]
    assert bare.terminal() == f"{bare.pid_file()}\n"
    assert bare.logs() == []


def test_start_and_stop_in_one_command_leave_no_process(bare, adopted):
    begin = time.monotonic()
    assert bare.daemonise("--start", "--stop").returncode == 0
    assert sorted([adopted(), adopted()]) == [-signal.SIGTERM, 0]
    assert 2 <= time.monotonic() - begin < 8
    assert bare.terminal() == ""
    assert bare.logs() == []


# ---- pid and stop ----


def test_pid_prints_the_running_daemon_after_two_seconds(bare, daemon):
    answer = ask(bare, "--pid", "--bogus")
    assert (answer.returncode, answer.stdout, answer.stderr) == (0, f"{daemon}\n", "")
    assert process_state(daemon)


def test_stop_terminates_the_daemon_with_sigterm_and_another_one_can_start(bare, adopted):
    bare.start_bus()
    bare.daemonise("--start")
    bare.wait_log(r"Start mainloop")
    daemon = int(bare.pid_file())
    adopted(os.getsid(daemon))
    answer = ask(bare, "--stop", "--bogus")
    assert (answer.returncode, answer.stdout, answer.stderr) == (0, "", "")
    assert adopted(daemon) == -signal.SIGTERM
    assert bare.pid_file() is None
    assert "Finalize" not in bare.log_text()
    assert bare.daemonise("--start").returncode == 0
    bare.wait("new pid file", bare.pid_file)
    bare.wait_log(r"Start mainloop")
    assert bare.caller().hello() == "How are you?"


@pytest.mark.parametrize("how", WITHOUT_SIGTERM)
def test_stop_terminates_a_daemon_that_started_with_sigterm_ignored_or_blocked(bare, adopted, how):
    bare.start_bus()
    bare.daemonise("--start", preexec_fn=WITHOUT_SIGTERM[how])
    bare.wait_log(r"Start mainloop")
    daemon = int(bare.pid_file())
    adopted(os.getsid(daemon))
    assert ask(bare, "--stop").returncode == 0
    assert adopted(daemon) == -signal.SIGTERM


def test_a_daemon_that_was_killed_still_counts_as_running_until_it_is_stopped(bare, daemon):
    os.kill(daemon, signal.SIGKILL)
    bare.wait_gone(daemon)
    asking = bare.launch("--pid")
    assert bare.daemonise("--start").returncode == 0
    stdout, stderr = asking.communicate(timeout=10)
    assert (asking.returncode, stdout) == (0, f"{daemon}\n")
    assert texts_of(stderr) == ["cannot readlink"]
    bare.wait("refusal", bare.terminal)
    assert texts_of(bare.terminal()) == ["already running"]
    assert bare.pid_file() == str(daemon)
    answer = ask(bare, "--stop")
    assert (answer.returncode, answer.stdout) == (0, "")
    assert texts_of(answer.stderr) == ["cannot readlink"]
    assert bare.pid_file() is None


def test_a_process_of_another_program_is_not_the_daemon_and_is_not_signalled(bare):
    bare.start_bus()
    bare.write_pid_file(bare.bus.pid)
    asking = bare.launch("--pid")
    stopping = bare.launch("--stop")
    bare.wait(
        "two processes that read the pid file",
        lambda: has_opened_the_pid_file(asking) and has_opened_the_pid_file(stopping),
    )
    assert (*asking.communicate(timeout=10), asking.returncode) == ("0\n", "", 0)
    assert (*stopping.communicate(timeout=10), stopping.returncode) == ("", "", 0)
    assert bare.pid_file() is None
    assert bare.bus.poll() is None
    bare.write_pid_file(bare.bus.pid)
    bare.daemonise("--start")
    bare.wait_log(r"Start mainloop")
    assert int(bare.pid_file()) != bare.bus.pid
    assert bare.terminal() == ""


def test_the_pid_file_is_read_after_the_wait_so_a_daemon_that_is_just_starting_is_found(bare):
    bare.write_pid_file("")
    asking = bare.launch("--pid")
    bare.wait("open pid file", lambda: has_opened_the_pid_file(asking))
    bare.write_pid_file(asking.pid)
    assert asking.communicate(timeout=10) == (f"{asking.pid}\n", "")


# ---- the running daemon ----


def test_a_running_daemon_handles_only_sigsegv(machine):
    status = status_of(machine.daemon.pid)
    crash = 1 << (signal.SIGSEGV - 1)
    assert int(status["SigCgt"], 16) == crash
    assert int(status["SigBlk"], 16) == 0


def test_a_daemon_started_with_sigchld_ignored_supervises_actors_that_ignore_it(bare):
    bare.start_bus()
    bare.behave("corvane-xh", "exit 0")
    bare.start_daemon(preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    status = status_of(bare.daemon.pid)
    assert not int(status["SigIgn"], 16) & 1 << (signal.SIGCHLD - 1)
    assert bare.caller().start(":1", "xhotkey") is True
    first, second = bare.wait_records(2)
    assert 2 <= second.started - first.started < 8
    assert f"Child process died: {first.pid}" in bare.texts()
    assert signal.SIGCHLD in first.ignored


@not_under_a_sanitizer("its own libraries are mapped, too")
def test_only_the_executable_libdbus_and_the_c_runtime_are_mapped(machine):
    def library(path):
        return os.path.basename(path).split(".so")[0]

    with open(f"/proc/{machine.daemon.pid}/maps") as file:
        mapped = {line.split()[-1] for line in file if "/" in line}
    (libdbus,) = [path for path in mapped if library(path) == "libdbus-1"]
    needed = subprocess.run(["ldd", libdbus], capture_output=True, text=True, check=True).stdout
    of_libdbus = {library(line.split()[0]) for line in needed.splitlines()}
    own = {library(path) for path in mapped if path != os.path.realpath(DAEMON)} - of_libdbus
    assert own == {"libdbus-1", "libgcc_s"}


@not_under_a_sanitizer("it has its own heap")
def test_all_threads_share_one_heap(machine):
    caller = machine.caller()
    for display in range(1, 9):
        assert caller.start(f":{display}", "xhotkey") is True
    machine.wait_records(8)
    machine.wait_log("child=", 8)
    with open(f"/proc/{machine.daemon.pid}/maps") as file:
        unreachable = [line.split()[0].split("-") for line in file if line.split()[1] == "---p"]
    # The C library reserves at least a mebibyte of address space for each further heap.
    sizes = [int(end, 16) - int(begin, 16) for begin, end in unreachable]
    assert [size for size in sizes if size > 256 * 1024] == []


def guards_need_no_mapping():
    """Since Linux 6.13."""
    return [int(number) for number in os.uname().release.split("-")[0].split(".")[:2]] >= [6, 13]


@not_under_a_sanitizer("its threads keep the stacks of the C library")
@pytest.mark.skipif(not guards_need_no_mapping(), reason="each guard is a mapping")
def test_the_stacks_of_many_workers_are_few_mappings(machine):
    def mappings():
        with open(f"/proc/{machine.daemon.pid}/maps") as file:
            return len(file.readlines())

    caller = machine.caller()
    assert caller.start(":0", "init-station") is True
    machine.wait_log("No action needed")
    before = mappings()
    for display in range(1, 101):
        assert caller.start(f":{display}", "init-station") is True
    machine.wait_log("No action needed", 101)
    assert mappings() <= before + 10
