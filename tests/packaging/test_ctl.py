# SPDX-License-Identifier: MIT
# test_ctl.py: the installed corvane-ctl on a system bus with the installed policy, for root and for others.
import json
import subprocess

NOBODY = 65534


def ctl(*words, user=0):
    """Runs corvane-ctl as a user: its status, output and errors."""
    done = subprocess.run(["corvane-ctl", *words], user=user, group=user, extra_groups=[], capture_output=True,
                          text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


def test_root_starts_and_stops(lasting_actors):
    lasting_actors.start_daemon()
    status, output, errors = ctl("start", ":1", "local-login")
    (pid,) = lasting_actors.children()
    assert (status, output, errors) == (0, f":1 local-login runs, process {pid}\n", "")
    assert ctl("stop", ":1", "local-login")[0] == 0


def test_another_user_may_not_start_or_stop_and_reads_who_may(lasting_actors):
    lasting_actors.start_daemon()
    for command in ("start", "stop"):
        status, output, errors = ctl(command, ":1", "local-login", user=NOBODY)
        assert (status, output) == (4, "")
        assert errors == "corvane-ctl: only root may start and stop actors; call it as root\n"
    assert lasting_actors.children() == []


def test_another_user_gets_the_status(lasting_actors):
    lasting_actors.start_daemon()
    ctl("start", ":1", "local-login")
    (pid,) = lasting_actors.children()
    status, output, errors = ctl("status", "--json", user=NOBODY)
    assert (status, errors) == (0, "")
    daemon, row = (json.loads(line) for line in output.splitlines())
    assert daemon["daemon"] == lasting_actors.daemon.pid
    assert (row["actor"], row["state"], row["process"], row["starts"]) == ("local-login", "runs", pid, 1)


def test_another_user_who_may_not_read_the_log_sees_what_runs_and_reads_so_once(lasting_actors):
    lasting_actors.start_daemon()
    ctl("start", ":1", "local-login")
    subprocess.run(["chmod", "0600", "/var/log/corvane-cs.log"], check=True)
    status, output, errors = ctl("status", user=NOBODY)
    assert status == 0
    assert errors == "corvane-ctl: the log is empty or not readable: only what runs is shown\n"
    assert output.splitlines()[-1].split()[:3] == [":1", "local-login", "runs"]
