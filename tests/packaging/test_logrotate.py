# SPDX-License-Identifier: MIT
# test_logrotate.py: logrotate cuts the logs while the daemon writes.
#
# A line may be lost if the daemon writes it between the copy and the truncation. All other lines are in the
# pieces, whole and in order.
import gzip
import os
import re
import subprocess
import threading
import time
from pathlib import Path

import pytest
from jeepney import MessageFlag

from support.callers import plugin_call
from support.log import Line
from support.place import LOG
from support.processes import process_state

OLD_LOG = f"{LOG}.old"
ROTATIONS = 10
NUMBER = re.compile(r"(?:dbus_dm_start\(\): display=|Invalid DISPLAY value : )n(\d+)")


@pytest.fixture
def served(laid_over):
    """A machine with the installed daemon on a private bus."""
    laid_over.start_bus()
    laid_over.start_daemon()
    return laid_over


@pytest.fixture
def rotate(bare, installed):
    """Runs logrotate with the installed snippet alone; it must succeed and print nothing."""
    snippet = installed / "etc/logrotate.d/corvane-cs"

    def run(*options):
        command = ["/usr/sbin/logrotate", "--state", "/run/stage/logrotate.state", *options, snippet]
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")

    return run


def append(path, text):
    with open(path, "a") as file:
        file.write(text + "\n")


class Flood:
    """A thread that sends numbered calls without waiting; the daemon refuses each one with two lines."""

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


def test_rotations_under_load_leave_whole_lines_in_their_order(served, rotate):
    pieces = []
    flood = Flood(served.caller())
    try:
        for _ in range(ROTATIONS):
            served.wait("a log to rotate", lambda: os.path.getsize(LOG) > 100000)
            rotate("--force")
            pieces.append(gzip.decompress(Path(f"{LOG}.1.gz").read_bytes()))
    finally:
        sent = flood.stop()
    served.caller().hello()  # answered after all calls of the flood
    pieces.append(Path(LOG).read_bytes())

    text = b"".join(pieces)
    assert b"\0" not in text
    numbers = [int(number) for number in NUMBER.findall(text.decode())]
    assert numbers and numbers == sorted(numbers)
    for piece in pieces[1:]:
        Line(piece.decode().splitlines()[0])  # fails for a part of a line
    lost = 2 * sent - len(numbers)
    print(f"{lost} of {2 * sent} lines were lost in {ROTATIONS} rotations")


def test_a_rotation_runs_no_command_that_could_halt_the_daemon(installed):
    text = (installed / "etc/logrotate.d/corvane-cs").read_text()
    assert not re.search(r"^\s*(prerotate|postrotate|firstaction|lastaction|preremove)\b", text, re.MULTILINE)


def test_a_held_process_of_the_daemons_name_does_not_delay_a_rotation(served, rotate, held):
    started = time.monotonic()
    for _ in range(6):
        rotate("--force")
        assert served.caller().hello() == "How are you?"
    assert time.monotonic() - started < 5
    assert process_state(held) == "t"


@pytest.mark.parametrize("log", [LOG, OLD_LOG])
def test_four_pieces_of_either_log_are_kept(rotate, log):
    for _ in range(6):
        append(log, "a line")
        rotate("--force")
    assert Path(log).read_text() == ""
    name = os.path.basename(log)
    assert sorted(os.listdir("/var/log")) == [name, *(f"{name}.{n}.gz" for n in (1, 2, 3, 4))]


def test_a_daemon_whose_log_was_moved_aside_writes_on_after_the_cut(served, rotate):
    os.rename(LOG, OLD_LOG)  # as a second daemon does when it starts
    rotate("--force")
    assert Path(OLD_LOG).read_text() == ""
    served.caller().hello()
    assert "HelloWorld" in Path(OLD_LOG).read_text()


@pytest.mark.parametrize("log", [LOG, OLD_LOG])
def test_a_large_log_is_cut_before_its_week_is_over(rotate, log):
    Path(log).touch()
    rotate()  # logrotate counts the week from the first time that it sees the log
    append(log, "x" * 9_000_000)
    rotate()
    assert os.listdir("/var/log") == [os.path.basename(log)]
    append(log, "x" * 2_000_000)
    rotate()
    assert sorted(os.listdir("/var/log")) == [os.path.basename(log), f"{os.path.basename(log)}.1.gz"]


def test_a_missing_log_and_an_empty_one_are_left_alone(rotate):
    rotate("--force")
    assert os.listdir("/var/log") == []
    Path(LOG).touch()
    rotate("--force")
    assert os.listdir("/var/log") == ["corvane-cs.log"]
