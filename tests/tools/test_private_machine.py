# SPDX-License-Identifier: MIT
# test_private_machine.py: a story finds the same machine for every caller, and leaves nothing.
import os
import resource
import signal
import subprocess

import pytest
from conftest import SOURCES, TOOLS, in_container, needs_namespaces, run

PRIVATE = TOOLS / "private-machine"
KIND = run(TOOLS / "check-machine", "--kind").stdout.strip()
LIBC_SIGNALS = 0b11 << 31  # 32 and 33: ignored below a posix_spawn(3), and no program can change them
PYTEST = ["/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider"]
ODD_ENVIRONMENT = {
    "LC_ALL": "tr_TR.UTF-8",
    "LANGUAGE": "de",
    "TZ": "Pacific/Chatham",
    "PYTHONWARNINGS": "error",
    "PYTHONSAFEPATH": "1",
    "PYTEST_ADDOPTS": "--nonsense",
    "TMPDIR": "/nonexistent",
    "DISPLAY": ":77",
    "DBUS_SESSION_BUS_ADDRESS": "unix:path=/nowhere",
    "MALLOC_PERTURB_": "7",
    "HOME": "/nonexistent",
}


def test_the_environment_is_the_same_for_every_caller():
    given = {"PATH": "/usr/bin:/bin", "CORVANE_BIN": "the daemon"}
    lines = run(PRIVATE, "env", env={**given, **ODD_ENVIRONMENT}).stdout.splitlines()
    expected = ["CORVANE_BIN=the daemon", f"CORVANE_MACHINE={KIND}", "HOME=/", "LANG=C.UTF-8", "TERM=dumb"]
    expected += ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"]
    expected += [f"PYTHONPATH={SOURCES}/tests", "PYTHONDONTWRITEBYTECODE=1"]
    assert sorted(line for line in lines if not line.startswith("PWD=")) == sorted(expected)  # bwrap sets PWD


def test_umask_limits_and_signals_are_the_same_for_every_caller():
    def be_odd():
        os.umask(0o077)
        for limit in (resource.RLIMIT_STACK, resource.RLIMIT_FSIZE):
            resource.setrlimit(limit, (1 << 20, resource.getrlimit(limit)[1]))
        for number in (signal.SIGPIPE, signal.SIGHUP, signal.SIGTERM, signal.SIGCHLD):
            signal.signal(number, signal.SIG_IGN)

    script = "umask; ulimit -s; ulimit -f; grep SigIgn /proc/self/status"
    seen = run(PRIVATE, "sh", "-c", script, preexec_fn=be_odd).stdout.split()
    assert seen[:3] == ["0022", "8192", "unlimited"]
    assert int(seen[-1], 16) & ~LIBC_SIGNALS == 0


def test_a_closed_standard_input_is_replaced():
    done = run(PRIVATE, "readlink", "/proc/self/fd/0", stdin=None, preexec_fn=lambda: os.close(0))
    assert done.stdout == "/dev/null\n"


@needs_namespaces
def test_stories_in_a_container_leave_its_files_and_other_processes_alone():
    script = """
        mkdir /var/log/apt; echo kept >/var/log/apt/history; echo kept >/run/other
        sleep 600 & other=$!
        "$@" || exit 3
        kill -0 $other && cat /var/log/apt/history /run/other && ls /run /var/log"""
    done = in_container("sh", "-c", script, "sh", PRIVATE, *PYTEST, SOURCES / "tests/e2e/test_machine.py")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.split()[-7:] == ["kept", "kept", "/run:", "corvane-turn", "other", "/var/log:", "apt"]


@needs_namespaces
def test_a_story_in_a_container_waits_for_the_one_before_it():
    script = '"$0" sh -c "touch /run/first; sleep 1; touch /run/done" & '
    script += 'until [ -e /run/first ]; do :; done; "$0" ls /run/done; wait'
    done = in_container("sh", "-c", script, PRIVATE)
    assert done.stdout == "/run/done\n", done.stderr


@needs_namespaces
def test_all_processes_of_a_private_machine_end_with_its_runner():
    # bwrap's process 1 binds itself to the runner while the command already runs, and then waits.
    waits = "until grep -q '^State:.S' /proc/1/status; do true; done"
    command = [PRIVATE, "sh", "-c", f"{waits}; sleep 4321 & echo started; wait"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as machine:
        assert machine.stdout.readline() == "started\n"
        machine.kill()
        assert machine.stdout.read() == ""  # the end of the pipe: no process holds it


def test_an_unknown_option_is_answered_with_the_usage():
    done = run(PRIVATE, "--nonsense", "true")
    assert done.returncode == 2 and done.stderr.startswith("usage: private-machine ")


WITHOUT_SESSION = [
    (None, "no graphical session to show windows in: DISPLAY is not set"),
    ("elsewhere:0", "DISPLAY=elsewhere:0 is no display of this machine"),
    (":4321", "DISPLAY=:4321 has no X server: /tmp/.X11-unix/X4321 does not exist"),
]


@pytest.mark.parametrize("display, reason", WITHOUT_SESSION)
def test_a_missing_session_is_reported(display, reason):
    environment = {"PATH": "/usr/bin:/bin", **({"DISPLAY": display} if display else {})}
    done = run(PRIVATE, "--displays", ".", "--session", "true", env=environment)
    assert (done.returncode, done.stderr) == (1, f"private-machine: {reason}\n")
