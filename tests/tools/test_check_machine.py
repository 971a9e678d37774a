# SPDX-License-Identifier: MIT
# test_check_machine.py: what a machine can do is known at once, and what it lacks is said in one sentence.
import os

import pytest
from conftest import NOBODY, TOOLS, in_container, lines_of, needs_namespaces, run

CHECK = TOOLS / "check-machine"
as_nobody = ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups")
needs_root = pytest.mark.skipif(os.getuid() != 0, reason="becomes another user, which only root can")


@needs_namespaces
def test_where_namespaces_are_allowed_the_machine_is_private_and_four_stories_run_at_once():
    assert run(CHECK, "--kind").stdout == "private\n"
    assert run(CHECK, "--jobs").stdout == "4\n"


@needs_namespaces
def test_a_container_is_a_machine_for_one_story_at_a_time():
    assert in_container(CHECK, "--kind").stdout == "container\n"
    assert in_container(CHECK, "--jobs").stdout == "1\n"


@needs_namespaces
@pytest.mark.parametrize("trace", ["/run/corvane/corvane-cs.pid", "/var/log/corvane-cs.log"])
def test_a_container_with_a_daemon_of_its_own_is_refused(trace):
    done = in_container("sh", "-c", f"mkdir -p /run/corvane; touch {trace}; {CHECK} stories")
    assert done.returncode == 1
    (sentence,) = lines_of(done)
    assert sentence.startswith(f"This container has a daemon of its own, or had one: {trace} is there.")


@needs_namespaces
def test_a_container_in_which_the_daemon_runs_is_refused():
    done = in_container("sh", "-c", "cp /bin/sleep /run/corvane-cs; /run/corvane-cs 60 & "
                                    'until grep -qsx corvane-cs /proc/$!/comm; do :; done; "$0" stories', CHECK)
    assert done.returncode == 1
    assert lines_of(done)[0].startswith("A corvane-cs runs in this container.")


@needs_namespaces
def test_what_an_interrupted_story_left_is_no_obstacle():
    traces = "mkdir -p /run/corvane /run/stage; touch /var/log/corvane-cs.log"
    done = in_container("sh", "-c", f"{traces}; {CHECK} --kind")
    assert done.stdout == "container\n", done.stderr


@needs_namespaces
@needs_root
@pytest.mark.parametrize("command", ["check", "demo", "soak", "bench", "check-asan"])
def test_a_user_who_may_not_make_namespaces_learns_it_before_anything_else_happens(command):
    done = in_container(*as_nobody, "make", command)
    assert done.returncode == 2 and done.stdout == ""
    sentence, *rest = lines_of(done)
    assert sentence.startswith("The daemon runs here in namespaces of its own, and this user may not")
    assert [line.split(":")[0] for line in rest] == ["make"]


@needs_namespaces
@pytest.mark.parametrize("command", ["check-packaging", "check-installed"])
def test_the_packaging_is_not_checked_in_a_container(command):
    done = in_container("make", command)
    assert done.returncode == 2 and done.stdout == ""
    assert lines_of(done)[0].startswith("This command mounts, in namespaces of its own, and they are refused")


@needs_root
@pytest.mark.parametrize("command", ["check-packaging", "check-installed", "check-i386", "deb-i386"])
def test_a_command_that_needs_root_says_so_to_a_user_before_anything_else_happens(command):
    done = run(*as_nobody, "make", command)
    assert done.returncode == 2
    assert "Installing" not in done.stdout and "cmake" not in done.stdout
    assert lines_of(done)[0].startswith("This command needs root:")
