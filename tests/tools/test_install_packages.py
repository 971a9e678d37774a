# SPDX-License-Identifier: MIT
# test_install_packages.py: which packages are missing, and what is reported before anything is downloaded.
#
# dpkg reads a database of the test, and the test replaces the commands that would change the machine.
import re
import subprocess

import pytest
from conftest import TOOLS, environment, run

NATIVE = subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip()
FOREIGN = "i386" if NATIVE == "amd64" else "amd64"


@pytest.fixture
def machine(tmp_path):
    """A machine without packages, root rights and network; a test can replace its commands."""
    for directory in ("bin", "dpkg/info", "dpkg/updates"):
        (tmp_path / directory).mkdir(parents=True)
    machine = Machine(tmp_path)
    machine.command("id", "echo 1000")
    machine.command("sudo", '[ "$1" = -n ] || exec "$@"')
    machine.command("apt-get", "exit 0")
    machine.command("df", "printf 'Avail\\n9999\\n'")
    return machine


class Machine:
    def __init__(self, directory):
        self.directory = directory
        self.install()

    def install(self, *packages):
        """Sets the whole list of installed packages: (name, architecture)."""
        status = "Status: install ok installed\nVersion: 1\nMaintainer: x <x@localhost>\nDescription: x\n"
        text = ""
        for name, architecture in packages:
            multi_arch = "" if architecture == "all" else "Multi-Arch: same\n"
            text += f"Package: {name}\nArchitecture: {architecture}\n{status}{multi_arch}\n"
        (self.directory / "dpkg/status").write_text(text)

    def command(self, name, script):
        path = self.directory / "bin" / name
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def ask(self):
        """Runs install-packages for the group build."""
        variables = {"DPKG_ADMINDIR": f"{self.directory}/dpkg", "PATH": f"{self.directory}/bin:/usr/bin:/bin"}
        return run(TOOLS / "install-packages", "build", env=environment(**variables))

    def missing(self):
        return self.ask().stdout.partition("Installing for build: ")[2].split("\n")[0].split()


TEXT = (TOOLS / "install-packages").read_text()
WANTED = re.search(r'^  \[build\]="([^"]*)"', TEXT, re.M)[1].split()
CASES = [
    ("make", [], True),
    ("make", [("make", NATIVE)], False),
    ("make", [("x-make", NATIVE)], True),
    ("cmake", [("cmake", "all")], False),
    ("libdbus-1-dev", [("libdbus-1-dev", NATIVE), ("libdbus-1-dev", FOREIGN)], False),
    ("libdbus-1-dev", [("libdbus-1-dev", FOREIGN)], True),
]


@pytest.mark.parametrize("package, installed, is_missing", CASES)
def test_a_package_counts_only_for_this_architecture_or_for_all(machine, package, installed, is_missing):
    machine.install(*((name, NATIVE) for name in WANTED if name != package), *installed)
    assert machine.missing() == ([package] if is_missing else [])


def test_nothing_is_printed_or_done_when_nothing_is_missing(machine):
    machine.command("apt-get", "echo apt-get was called; exit 1")
    machine.install(*((name, NATIVE) for name in WANTED))
    done = machine.ask()
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_a_user_who_may_not_install_learns_it_before_the_lists_are_read(machine):
    machine.command("apt-get", "echo apt-get was called")
    machine.command("sudo", "exit 1")
    done = machine.ask()
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("install-packages: packages must be installed; run this command as root ")


def test_a_full_disk_is_reported_before_the_lists_are_read(machine):
    machine.command("df", "printf 'Avail\\n1499\\n'")
    done = machine.ask()
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("install-packages: /usr has 1499 MiB free; the packages need up to 1500 ")


def test_an_unreachable_source_of_packages_is_reported_before_anything_is_installed(machine):
    machine.command("apt-get", 'if [ "$1" = indextargets ]; then echo http://127.0.0.1:9/InRelease; fi')
    done = machine.ask()
    assert done.returncode == 1 and done.stdout == ""
    assert len(done.stderr.splitlines()) == 1
    assert done.stderr.startswith("install-packages: the source of Debian's packages does not answer: ")
    assert "127.0.0.1" in done.stderr


def test_the_progress_has_one_line_for_each_tenth(machine):
    script = """
        if [ "$1" = indextargets ]; then exit 0; fi
        echo noise
        case "$*" in *update*) exit 0;; esac
        for n in 0 4 9 10 55 59 100; do echo "pmstatus:make:$n.5:Unpacking make (amd64)" >&3; done"""
    machine.command("apt-get", script)
    done = machine.ask()
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines()[1:] == [
        "  installing    0 %: Unpacking make (amd64)",
        "  installing   10 %: Unpacking make (amd64)",
        "  installing   55 %: Unpacking make (amd64)",
        "  installing  100 %: Unpacking make (amd64)",
    ]


def test_a_failed_installation_fails_the_command(machine):
    machine.command("apt-get", 'case "$*" in *install*) exit 100;; esac')
    assert machine.ask().returncode == 100


def test_two_installations_take_turns(machine):
    database = machine.directory / "dpkg"
    machine.command("apt-get", f'[ "$1" = indextargets ] || ! flock --nonblock {database} true')
    assert machine.ask().returncode == 0
