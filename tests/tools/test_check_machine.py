# SPDX-License-Identifier: MIT
# test_check_machine.py: each command reports in one sentence, and first of all, what the machine lacks.
import os

import pytest
from conftest import OTHER_USER, TOOLS, in_container, lines_of, needs_namespaces, run

CHECK = TOOLS / "check-machine"
as_other_user = ("setpriv", f"--reuid={OTHER_USER}", f"--regid={OTHER_USER}", "--clear-groups")
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
def test_a_container_with_traces_of_its_own_daemon_is_refused(trace):
    done = in_container("sh", "-c", f"mkdir -p /run/corvane; touch {trace}; {CHECK} stories")
    assert done.returncode == 1
    (sentence,) = lines_of(done)
    assert sentence.startswith(f"This container has or had its own daemon: {trace} exists.")


@needs_namespaces
def test_a_container_in_which_the_daemon_runs_is_refused():
    script = "cp /bin/sleep /run/corvane-cs; /run/corvane-cs 60 & "
    script += 'until grep -qsx corvane-cs /proc/$!/comm; do :; done; "$0" stories'
    done = in_container("sh", "-c", script, CHECK)
    assert done.returncode == 1
    assert lines_of(done)[0].startswith("A corvane-cs runs in this container.")


@needs_namespaces
def test_the_files_of_an_interrupted_story_are_no_obstacle():
    traces = "mkdir -p /run/corvane /run/stage; touch /var/log/corvane-cs.log"
    done = in_container("sh", "-c", f"{traces}; {CHECK} --kind")
    assert done.stdout == "container\n", done.stderr


@needs_namespaces
@needs_root
@pytest.mark.parametrize("command", ["check", "demo", "soak", "bench", "check-asan"])
def test_a_user_who_may_not_make_namespaces_learns_it_first(command):
    done = in_container(*as_other_user, "make", command)
    assert done.returncode == 2 and done.stdout == ""
    sentence, *rest = lines_of(done)
    assert sentence.startswith("The daemon runs in private namespaces here, and this user may not make them")
    assert [line.split(":")[0] for line in rest] == ["make"]


@needs_namespaces
@pytest.mark.parametrize("command", ["check-packaging", "check-installed"])
def test_the_packaging_is_not_checked_in_a_container(command):
    done = in_container("make", command)
    assert done.returncode == 2 and done.stdout == ""
    assert lines_of(done)[0].startswith("This command mounts in private namespaces, and this machine refuses")


@needs_root
@pytest.mark.parametrize("command", ["check-packaging", "check-installed", "check-i386", "deb-i386"])
def test_a_user_learns_first_that_a_command_needs_root(command):
    done = run(*as_other_user, "make", command)
    assert done.returncode == 2
    assert "Installing" not in done.stdout and "cmake" not in done.stdout
    assert lines_of(done)[0].startswith("This command needs root:")
