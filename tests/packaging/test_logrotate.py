# SPDX-License-Identifier: MIT
# test_logrotate.py: the logs are cut while the daemon writes, and the daemon is never halted for it.
#
# A caller floods the daemon with numbered calls that it refuses, two lines each. A line that is written
# between the copy and the truncation may be lost. All others are in the pieces, whole and in the calls' order.
import gzip
import os
import re
import subprocess
import threading
from pathlib import Path

import pytest
from jeepney import MessageFlag

from support.callers import plugin_call
from support.log import Line
from support.place import LOG
from support.processes import process_state

ROTATIONS = 10
NUMBER = re.compile(r"(?:dbus_dm_start\(\): display=|Invalid DISPLAY value : )n(\d+)")

# The moment between the copy and the truncation is made long enough for the daemon to write in it. The state
# of the daemon at that moment is noted. The second name is that of 64-bit sizes on 32-bit machines.
STATES = Path("/run/stage/states")
SLOW_TRUNCATION = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>
static void wait_and_note(void) {
  usleep(20000);
  char line[4096];
  FILE* status = fopen(getenv("DAEMON_STATUS"), "r");
  FILE* states = fopen("/run/stage/states", "a");
  if (!status || !states) _exit(99);
  while (fgets(line, sizeof line, status))
    if (strncmp(line, "State:", 6) == 0) fputs(line, states);
  fclose(states);
  fclose(status);
}
int ftruncate(int file, off_t size) {
  wait_and_note();
  return ((int (*)(int, off_t))dlsym(RTLD_NEXT, "ftruncate"))(file, size);
}
int ftruncate64(int file, off64_t size) {
  wait_and_note();
  return ((int (*)(int, off64_t))dlsym(RTLD_NEXT, "ftruncate64"))(file, size);
}
"""


@pytest.fixture
def machine(laid_over):
    """A machine with the installed daemon, on a bus of its own."""
    laid_over.start_bus()
    laid_over.start_daemon()
    return laid_over


@pytest.fixture
def slow_truncation(machine, tmp_path):
    """The environment of a logrotate that waits 20 ms before it truncates, and notes the daemon's state."""
    library = tmp_path / "slow.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library],
                   input=SLOW_TRUNCATION, text=True, check=True)
    return {**os.environ, "LD_PRELOAD": str(library), "DAEMON_STATUS": f"/proc/{machine.daemon.pid}/status"}


def logrotate(installed, *options, environment=None):
    """Runs logrotate with the installed snippet alone; a completed process."""
    return subprocess.run(["/usr/sbin/logrotate", "--state", "/run/stage/logrotate.state", *options,
                           str(installed / "etc/logrotate.d/corvane-cs")],
                          env=environment, capture_output=True, text=True, timeout=60)


def assert_silent(done):
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def pieces():
    """The names of the log and of what was cut off it, without the path."""
    return sorted(os.listdir("/var/log"))


class Flood:
    """A thread that sends numbered calls, which want no reply, until it is told to stop."""

    def __init__(self, caller):
        self.caller = caller
        self.sent = 0
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.is_over.is_set():
            call = plugin_call("DisplayManager", "Start", "sss", f"n{self.sent}", "local-login", "PCI")
            call.header.flags |= MessageFlag.no_reply_expected
            self.caller.send(call)
            self.sent += 1

    def stop(self):
        self.is_over.set()
        self.thread.join()
        return self.sent


def test_rotations_under_load_halt_nothing_and_leave_whole_lines(machine, installed, slow_truncation):
    pieces = []
    flood = Flood(machine.caller())
    try:
        for _ in range(ROTATIONS):
            machine.wait("a log to rotate", lambda: os.path.getsize(LOG) > 100000)
            assert_silent(logrotate(installed, "--force", environment=slow_truncation))
            pieces.append(gzip.decompress(Path(f"{LOG}.1.gz").read_bytes()))
    finally:
        sent = flood.stop()
    machine.caller().hello()  # answered after all that was sent before
    pieces.append(Path(LOG).read_bytes())

    states = STATES.read_text().splitlines()
    assert len(states) == ROTATIONS
    assert not [state for state in states if "stop" in state]
    text = b"".join(pieces)
    assert b"\0" not in text
    numbers = [int(number) for number in NUMBER.findall(text.decode())]
    assert numbers == sorted(numbers)
    for piece in pieces[1:]:
        Line(piece.decode().splitlines()[0])  # is a whole one
    lost = 2 * sent - len(numbers)
    print(f"{lost} of {2 * sent} lines were lost in {ROTATIONS} rotations of 20 ms")


def test_a_rotation_that_fails_leaves_the_daemon_and_its_log_alone(laid_over, installed):
    laid_over.mount("-t", "tmpfs", "-o", "size=64k,mode=755", "tmpfs", "/var/log")
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    with open(LOG, "a") as log:
        log.write("x" * 40000 + "\n")
    before = laid_over.log_text()
    done = logrotate(installed, "--force")

    assert done.returncode == 1 and "No space left on device" in done.stderr, done
    assert process_state(daemon.pid) == "S"
    assert laid_over.log_text() == before
    assert laid_over.caller().hello() == "How are you?"


@pytest.mark.parametrize("log", [LOG, f"{LOG}.old"])
def test_four_pieces_are_kept_of_either_log(machine, installed, log):
    for _ in range(6):
        with open(log, "a") as file:
            file.write("a line\n")
        assert_silent(logrotate(installed, "--force"))
    name = os.path.basename(log)
    assert [piece for piece in pieces() if re.fullmatch(rf"{re.escape(name)}(\.\d\.gz)?", piece)] == [
        name, *(f"{name}.{n}.gz" for n in (1, 2, 3, 4))]


def test_a_daemon_whose_log_was_moved_aside_writes_on_after_the_cut(machine, installed):
    os.rename(LOG, f"{LOG}.old")  # as a second daemon does when it starts
    assert_silent(logrotate(installed, "--force"))
    assert Path(f"{LOG}.old").read_text() == ""
    machine.caller().hello()
    assert "HelloWorld" in Path(f"{LOG}.old").read_text()


@pytest.mark.parametrize("path", [LOG, f"{LOG}.old"])
def test_a_log_is_cut_before_its_week_is_over_when_it_is_large(bare, installed, path):
    Path(path).touch()
    assert_silent(logrotate(installed))  # the first time that it sees the log, from which it counts the week
    with open(path, "a") as log:
        log.write("x" * 9_000_000 + "\n")
    assert_silent(logrotate(installed))
    assert pieces() == [os.path.basename(path)]

    with open(path, "a") as log:
        log.write("x" * 2_000_000 + "\n")
    assert_silent(logrotate(installed))
    assert pieces() == [os.path.basename(path), f"{os.path.basename(path)}.1.gz"]


def test_a_log_without_a_daemon_is_cut(bare, installed):
    Path(LOG).write_text("the last words\n")
    assert_silent(logrotate(installed, "--force"))
    assert Path(LOG).read_text() == ""
    assert gzip.decompress(Path(f"{LOG}.1.gz").read_bytes()) == b"the last words\n"


def test_nothing_is_made_of_no_log_and_of_an_empty_one(bare, installed):
    assert_silent(logrotate(installed, "--force"))
    assert pieces() == []

    Path(LOG).touch()
    assert_silent(logrotate(installed, "--force"))
    assert pieces() == ["corvane-cs.log"]
