# SPDX-License-Identifier: MIT
# test_ctl.py: corvane-ctl on a system bus with the installed policy, for a user who is not root.
import json
import os
import subprocess

import pytest

from conftest import STRANGER
from support.place import LOG


def ctl(*words, user=STRANGER):
    """Runs corvane-ctl as a user: its status, output and errors."""
    identity = {"user": user, "group": user, "extra_groups": []}
    done = subprocess.run(["corvane-ctl", *words], **identity, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def running(lasting_actors):
    """The pid of an actor that root has started."""
    lasting_actors.start_daemon()
    assert ctl("start", ":1", "local-login", user=0)[0] == 0
    [pid] = lasting_actors.children()
    return pid


@pytest.mark.parametrize("command", ["start", "stop"])
def test_another_user_may_not_start_or_stop_and_reads_who_may(running, command):
    errors = "corvane-ctl: only root may start and stop actors; call it as root\n"
    assert ctl(command, ":1", "local-login") == (4, "", errors)


def test_another_user_gets_the_status(running):
    status, output, errors = ctl("status", "--json")
    assert (status, errors) == (0, "")
    _, row = (json.loads(line) for line in output.splitlines())
    assert (row["actor"], row["state"], row["process"], row["starts"]) == ("local-login", "runs", running, 1)


def test_another_user_who_may_not_read_the_log_gets_what_runs_and_one_note(running):
    os.chmod(LOG, 0o600)
    status, output, errors = ctl("status")
    assert status == 0
    assert errors == "corvane-ctl: the log is empty or not readable: only what runs is shown\n"
    assert output.splitlines()[-1].split()[:3] == [":1", "local-login", "runs"]
