# SPDX-License-Identifier: MIT
# test_readme.py: the examples of the README work as they stand there.
#
# They are taken from its section for callers, the command that compiles the C one included, and run by root
# against a daemon on the system bus.
import re
import subprocess
import textwrap
from pathlib import Path

import pytest

README = Path(__file__).resolve().parent.parent.parent / "README.md"


@pytest.fixture
def section():
    return re.search(r"^## Call it\n(.*?)^## ", README.read_text(), re.DOTALL | re.MULTILINE)[1]


def example(section, introduction):
    """The indented lines behind the paragraph that contains these words, and the paragraph."""
    found = re.findall(r"((?:^\S.*\n)+)\n((?:^(?: {4}.*)?\n)+)", section, re.MULTILINE)
    assert len(found) == 4, "another number of examples"
    [(paragraph, block)] = [pair for pair in found if introduction in pair[0]]
    return paragraph, textwrap.dedent(block)


def run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


def programs(section, folder):
    """The commands that run the examples, by language."""
    _, shell = example(section, "From a shell")
    _, python = example(section, "In Python")
    paragraph, c = example(section, "In C")
    (folder / "start.py").write_text(python)
    (folder / "start.c").write_text(c)
    compilation = re.search(r"`(cc start\.c .*?)`", paragraph)[1]
    return {"shell": ["sh", "-e", "-c", shell], "Python": ["/usr/bin/python3", "start.py"],
            "C": ["sh", "-e", "-c", f"{compilation}; ./a.out"]}


@pytest.mark.parametrize("language, output",
                         [("shell", "b true\n"), ("Python", "queued\n"), ("C", "queued\n")])
def test_each_example_works(system_bus, section, tmp_path, language, output):
    system_bus.start_daemon()

    assert run(programs(section, tmp_path)[language], tmp_path) == (0, output, "")
    system_bus.wait_log("DISPLAY=:1, actor_code=2, child=")


@pytest.mark.parametrize("language", ["shell", "Python", "C"])
def test_each_example_says_when_the_daemon_does_not_serve(system_bus, section, tmp_path, language):
    status, output, errors = run(programs(section, tmp_path)[language], tmp_path)

    assert (status, output) == (1, "")
    assert "com.corvane.ControlServer" in errors


def test_the_commands_say_what_comes_of_them(lasting_actors, section, tmp_path):
    lasting_actors.start_daemon()
    _, block = example(section, "An administrator")
    start, status, stop = block.split("\n")[:3]

    assert re.fullmatch(r":1 local-login runs, process \d+\n", succeed(start, tmp_path))
    assert re.search(r"^:1 +local-login +runs +\d+ ", succeed(status, tmp_path), re.MULTILINE)
    assert re.fullmatch(r":1 ends, process \d+, \d\.\d s\n", succeed(stop, tmp_path))


def succeed(command, folder):
    status, output, errors = run(["sh", "-e", "-c", command], folder)
    assert (status, errors) == (0, "")
    return output


def test_the_commands_say_when_the_daemon_does_not_serve(system_bus, section, tmp_path):
    _, block = example(section, "An administrator")
    for command in block.split("\n")[:3]:
        status, output, errors = run(["sh", "-e", "-c", command], tmp_path)
        assert (status, output) == (3, "")
        assert errors.startswith("corvane-ctl: corvane-cs does not run; start it")
