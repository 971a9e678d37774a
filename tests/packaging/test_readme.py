# SPDX-License-Identifier: MIT
# test_readme.py: the README's commands and the installed example programs work as they are printed.
#
# Root runs them against a daemon on the system bus. The command that compiles or runs a program is the one
# that its own first comment gives.
import re
import shutil
import subprocess
import textwrap
from pathlib import Path

import pytest

SOURCES = Path(__file__).resolve().parent.parent.parent
README = SOURCES / "README.md"
DOCUMENTS = [README, SOURCES / "CONTRIBUTING.md", SOURCES / "docs/architecture.md"]
PRINTED = {"busctl": "b true\n", "start.c": "queued\n", "start.py": "queued\n"}


def blocks_of_the_section_for_callers():
    """The indented lines after the paragraphs about corvane-ctl and about busctl."""
    section = re.search(r"^## Call it\n(.*?)^## ", README.read_text(), re.DOTALL | re.MULTILINE)[1]
    blocks = re.findall(r"^\n((?:^ {4}.*\n)+)", section, re.MULTILINE)
    assert len(blocks) == 2
    return [textwrap.dedent(block) for block in blocks]


@pytest.fixture
def ctl_commands():
    commands = blocks_of_the_section_for_callers()[0].splitlines()
    assert len(commands) == 3
    return commands


@pytest.fixture
def example(request, installed, tmp_path):
    """The shell command that runs the example of this name, in tmp_path."""
    if request.param == "busctl":
        return blocks_of_the_section_for_callers()[1]
    program = Path(shutil.copy(installed / "usr/share/doc/corvane-cs/examples" / request.param, tmp_path))
    [command] = re.findall(r"^ ?[*#] {5}(\S.*)$", program.read_text(), re.MULTILINE)
    return f"{command} && ./start" if request.param == "start.c" else command


def run(command, folder):
    done = subprocess.run(["sh", "-e", "-c", command], cwd=folder, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


def succeed(command, folder):
    status, output, errors = run(command, folder)
    assert (status, errors) == (0, "")
    return output


@pytest.mark.parametrize("example, printed", PRINTED.items(), indirect=["example"])
def test_each_example_starts_the_login_window(system_bus, example, tmp_path, printed):
    system_bus.start_daemon()

    assert succeed(example, tmp_path) == printed
    system_bus.wait_log("DISPLAY=:1, actor_code=2, child=")


@pytest.mark.parametrize("example", PRINTED, indirect=True)
def test_each_example_fails_without_a_daemon(system_bus, example, tmp_path):
    status, output, errors = run(example, tmp_path)

    assert (status, output) == (1, "")
    assert "com.corvane.ControlServer" in errors


def test_the_commands_report_what_the_daemon_does(lasting_actors, ctl_commands, tmp_path):
    lasting_actors.start_daemon()
    start, status, stop = ctl_commands

    assert re.fullmatch(r":1 local-login runs, process \d+\n", succeed(start, tmp_path))
    assert re.search(r"^:1 +local-login +runs +\d+ ", succeed(status, tmp_path), re.MULTILINE)
    assert re.fullmatch(r":1 ends, process \d+, \d\.\d s\n", succeed(stop, tmp_path))


def test_the_commands_fail_without_a_daemon(system_bus, ctl_commands, tmp_path):
    for command in ctl_commands:
        status, output, errors = run(command, tmp_path)
        assert (status, output) == (3, "")
        assert errors.startswith("corvane-ctl: corvane-cs does not run; start it")


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda document: document.name)
def test_each_link_leads_to_a_file(document):
    targets = re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", document.read_text())
    assert targets
    for target in targets:
        assert (document.parent / target).exists(), target
