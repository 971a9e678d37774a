# SPDX-License-Identifier: MIT
# test_install_packages.py: what counts as missing, and what is said before anything is downloaded.
#
# dpkg reads a database of the test's, and commands of the test's stand for those that would change the
# machine.
import re
import subprocess

import pytest
from conftest import TOOLS, environment, run

GROUPS = re.findall(r"^  \[([\w-]+)\]=", (TOOLS / "install-packages").read_text(), re.M)
NATIVE = subprocess.check_output(["dpkg", "--print-architecture"], text=True).strip()
FOREIGN = "i386" if NATIVE == "amd64" else "amd64"


@pytest.fixture
def machine(tmp_path):
    """A machine without packages, without root, and without a way out; its commands can be replaced."""
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
        multi_arch = "Multi-Arch: same\n"
        (self.directory / "dpkg/status").write_text("".join(
            f"Package: {name}\nStatus: install ok installed\nArchitecture: {architecture}\nVersion: 1\n"
            f"Maintainer: one <one@localhost>\nDescription: one\n{'' if architecture == 'all' else multi_arch}\n"
            for name, architecture in packages))

    def command(self, name, script):
        path = self.directory / "bin" / name
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def ask(self, *groups, path="/usr/bin:/bin"):
        return run(TOOLS / "install-packages", *groups, env=environment(
            DPKG_ADMINDIR=str(self.directory / "dpkg"), PATH=f"{self.directory}/bin:{path}"))

    def missing(self):
        """What is missing of the group build."""
        output = self.ask("build").stdout
        return output.partition("Installing for build: ")[2].split("\n")[0].split()


def packages_of(group):
    text = (TOOLS / "install-packages").read_text()
    return re.search(rf'^  \[{group}\]="([^"]*)"', text, re.M)[1].split()


def test_everything_of_a_group_is_missing_on_a_machine_without_packages(machine):
    assert machine.missing() == packages_of("build")


def test_nothing_is_said_or_done_when_nothing_is_missing(machine):
    machine.command("apt-get", "echo apt-get was called; exit 1")
    machine.install(*((name, NATIVE) for name in packages_of("build")))
    done = machine.ask("build")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_a_package_of_two_architectures_is_installed(machine):
    machine.install(*((name, of) for name in packages_of("build") for of in (NATIVE, FOREIGN)))
    assert machine.missing() == []


def test_a_package_of_another_architecture_alone_is_missing(machine):
    machine.install(*((name, FOREIGN if name == "libdbus-1-dev" else NATIVE) for name in packages_of("build")))
    assert machine.missing() == ["libdbus-1-dev"]


def test_a_package_for_all_architectures_is_installed(machine):
    machine.install(*((name, "all" if name == "cmake" else NATIVE) for name in packages_of("build")))
    assert machine.missing() == []


def test_a_package_whose_name_is_the_end_of_an_installed_one_is_missing(machine):
    machine.install(*((f"x-{name}" if name == "make" else name, NATIVE) for name in packages_of("build")))
    assert machine.missing() == ["make"]


def test_a_user_who_may_not_install_is_told_so_before_the_lists_are_read(machine):
    machine.command("apt-get", "echo apt-get was called")
    machine.command("sudo", "exit 1")
    done = machine.ask("build")
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("install-packages: packages have to be installed; run this command as root ")


def test_a_full_disk_is_named_before_the_lists_are_read(machine):
    machine.command("df", "printf 'Avail\\n1499\\n'")
    done = machine.ask("build")
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.startswith("install-packages: /usr has 1499 MiB free; the packages need up to 1500 ")


def test_a_source_that_cannot_be_reached_is_named_before_anything_is_installed(machine):
    machine.command("apt-get", 'if [ "$1" = indextargets ]; then echo http://127.0.0.1:9/InRelease; fi')
    done = machine.ask("build")
    assert done.returncode == 1 and done.stdout == ""
    assert len(done.stderr.splitlines()) == 1
    assert done.stderr.startswith("install-packages: the source of Debian's packages does not answer: ")
    assert "127.0.0.1" in done.stderr


def test_the_progress_is_one_line_for_each_tenth_of_the_way(machine):
    machine.command("apt-get", """
        if [ "$1" = indextargets ]; then exit 0; fi
        echo noise
        case "$*" in *update*) exit 0;; esac
        for n in 0 4 9 10 55 59 100; do echo "pmstatus:make:$n.5:Unpacking make (amd64)" >&3; done""")
    done = machine.ask("build")
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines()[1:] == [
        "  installing    0 %: Unpacking make (amd64)", "  installing   10 %: Unpacking make (amd64)",
        "  installing   55 %: Unpacking make (amd64)", "  installing  100 %: Unpacking make (amd64)"]


def test_a_failed_installation_fails_the_command(machine):
    machine.command("apt-get", 'case "$*" in *install*) exit 100;; esac')
    assert machine.ask("build").returncode == 100


@pytest.mark.parametrize("group", GROUPS)
def test_each_group_names_packages(group):
    assert packages_of(group)
