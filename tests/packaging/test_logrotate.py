# SPDX-License-Identifier: MIT
# test_logrotate.py: the log is cut while the daemon writes to it, and nothing is missing.
#
# A caller floods the daemon with numbered calls that it refuses, two lines each. Whatever order the rotations
# and the calls come in, the pieces laid one behind the other must hold every number twice, in the calls'
# order.
import gzip
import os
import re
import subprocess
import threading
from pathlib import Path

import pytest
from jeepney import MessageFlag

from support.callers import plugin_call
from support.place import LOG
from support.processes import process_state

ROTATIONS = 10
NUMBER = re.compile(r"(?:dbus_dm_start\(\): display=|Invalid DISPLAY value : )n(\d+)")

# Between the copy and the truncation is a moment in which logrotate alone would lose what is written. It is
# made long enough to be hit each time, and each time is noted. The second name is that of 64-bit sizes on
# 32-bit machines.
SLOW_TRUNCATIONS = Path("/run/stage/slow-truncations")
SLOW_TRUNCATION = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>
static void wait_and_note(void) {
  usleep(20000);
  int notes = open("/run/stage/slow-truncations", O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (write(notes, ".", 1) != 1) _exit(99);
  close(notes);
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
def slow_truncation(tmp_path):
    """The environment of a logrotate that takes 20 ms before it truncates."""
    library = tmp_path / "slow.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library],
                   input=SLOW_TRUNCATION, text=True, check=True)
    return {**os.environ, "LD_PRELOAD": str(library)}


def logrotate(installed, *options, environment=None):
    """Runs logrotate with the installed snippet alone; a completed process."""
    return subprocess.run(["/usr/sbin/logrotate", "--state", "/run/stage/logrotate.state", *options,
                           str(installed / "etc/logrotate.d/corvane-cs")],
                          env=environment, capture_output=True, text=True, timeout=60)


def assert_silent(done):
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def pieces():
    """The names of the log and of what was cut off it, without the path."""
    return sorted(name for name in os.listdir("/var/log"))


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


def test_rotations_under_load_lose_no_line_and_leave_no_zero_byte(machine, installed, slow_truncation):
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

    assert SLOW_TRUNCATIONS.read_text() == "." * ROTATIONS
    text = b"".join(pieces)
    assert b"\0" not in text
    numbers = [int(number) for number in NUMBER.findall(text.decode())]
    lost = 2 * sent - len(numbers)
    assert lost == 0, f"{lost} of {2 * sent} lines are missing"
    assert numbers == [number for number in range(sent) for _ in range(2)]


def test_a_rotation_that_fails_does_not_leave_the_daemon_stopped(laid_over, installed):
    laid_over.mount("-t", "tmpfs", "-o", "size=64k,mode=755", "tmpfs", "/var/log")
    laid_over.start_bus()
    daemon = laid_over.start_daemon()
    with open(LOG, "a") as log:
        log.write("x" * 40000 + "\n")
    done = logrotate(installed, "--force")

    assert done.returncode == 1 and "No space left on device" in done.stderr, done
    assert process_state(daemon.pid) == "T", "the failure left nothing to mend"
    assert laid_over.caller().ask(plugin_call("Dummy", "HelloWorld"), timeout=30) == ("How are you?",)


def test_four_old_logs_are_kept(machine, installed):
    for _ in range(6):
        machine.caller().hello()
        assert_silent(logrotate(installed, "--force"))
    assert pieces() == ["corvane-cs.log", *(f"corvane-cs.log.{n}.gz" for n in (1, 2, 3, 4))]


def test_a_log_is_cut_before_its_week_is_over_when_it_is_large(machine, installed):
    assert_silent(logrotate(installed))  # the first time that it sees the log, from which it counts the week
    with open(LOG, "a") as log:
        log.write("x" * 9_000_000 + "\n")
    assert_silent(logrotate(installed))
    assert pieces() == ["corvane-cs.log"]

    with open(LOG, "a") as log:
        log.write("x" * 2_000_000 + "\n")
    assert_silent(logrotate(installed))
    assert pieces() == ["corvane-cs.log", "corvane-cs.log.1.gz"]


def test_a_log_without_a_daemon_is_cut(laid_over, installed):
    Path(LOG).write_text("the last words\n")
    assert_silent(logrotate(installed, "--force"))
    assert Path(LOG).read_text() == ""
    assert gzip.decompress(Path(f"{LOG}.1.gz").read_bytes()) == b"the last words\n"


def test_nothing_is_made_of_no_log_and_of_an_empty_one(laid_over, installed):
    assert_silent(logrotate(installed, "--force"))
    assert pieces() == []

    Path(LOG).touch()
    assert_silent(logrotate(installed, "--force"))
    assert pieces() == ["corvane-cs.log"]


def test_the_scripts_of_the_snippet_are_clean(installed):
    text = (installed / "etc/logrotate.d/corvane-cs").read_text()
    scripts = re.findall(r"^ *(?:pre|post)rotate\n(.*?)^ *endscript", text, re.DOTALL | re.MULTILINE)
    assert len(scripts) == 2
    for script in scripts:  # its lists of pids and of files are to be split into words
        done = subprocess.run(["shellcheck", "--shell=sh", "--exclude=SC2086", "-"], input=script,
                              capture_output=True, text=True)
        assert (done.returncode, done.stdout) == (0, "")
