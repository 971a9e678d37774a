# SPDX-License-Identifier: MIT
# test_install.py: each file is installed inside the prefix, and those that name a place name the real one.
#
# The prefix is given when the files are installed, after the configuration with another one.
import re

import pytest
from conftest import NO_GTEST, configure, install, installed_files, run, succeed

PREFIX = "/opt/some-prefix"
UNIT = "lib/systemd/system/corvane-cs.service"

# Below the prefix; with the prefix /usr, /etc and the system's directory of units are elsewhere.
SHARED = sorted([
    "bin/corvane-ctl",
    "lib/tmpfiles.d/corvane-cs.conf",
    "sbin/corvane-cs",
    "share/bash-completion/completions/corvane-cs",
    "share/bash-completion/completions/corvane-ctl",
    "share/dbus-1/interfaces/com.corvane.ControlServer.DisplayManager.xml",
    "share/dbus-1/interfaces/com.corvane.ControlServer.Dummy.xml",
    "share/dbus-1/system.d/com.corvane.ControlServer.DisplayManager.conf",
    "share/dbus-1/system.d/com.corvane.ControlServer.Dummy.conf",
    "share/dbus-1/system.d/com.corvane.ControlServer.conf",
    "share/doc/corvane-cs/examples/stricter.conf",
    "share/man/man5/com.corvane.ControlServer.DisplayManager.5",
    "share/man/man5/com.corvane.ControlServer.Dummy.5",
    "share/man/man7/corvane-actors.7",
    "share/man/man8/corvane-cs.8",
    "share/man/man8/corvane-ctl.8",
    "share/zsh/vendor-completions/_corvane-cs",
    "share/zsh/vendor-completions/_corvane-ctl",
])
OTHERS = ["etc/init.d/corvane-cs", "etc/logrotate.d/corvane-cs", UNIT]


@pytest.fixture(scope="module")
def root(plain, tmp_path_factory):
    """The directory that stands for /, with everything installed below PREFIX."""
    directory = tmp_path_factory.mktemp("root")
    install(plain.directory, directory, PREFIX)
    return directory


def mode(path):
    return oct(path.stat().st_mode & 0o7777)


def pages(directory):
    return sorted((directory / "share/man").glob("man*/*"))


def test_every_file_is_inside_the_prefix(root):
    assert installed_files(root) == sorted(f"{PREFIX}/{path}" for path in SHARED + OTHERS)


def test_the_unit_names_the_daemon_where_it_is(root):
    text = (root / PREFIX[1:] / UNIT).read_text()
    assert re.findall(r"^ExecStart=(.*)", text, re.MULTILINE) == [f"{PREFIX}/sbin/corvane-cs"]
    assert f" {PREFIX}/share/doc/corvane-cs/examples/stricter.conf" in text


def test_the_init_script_names_the_daemon_where_it_is(root):
    text = (root / PREFIX[1:] / "etc/init.d/corvane-cs").read_text()
    assert re.findall(r"^daemon=(.*)", text, re.MULTILINE) == [f"{PREFIX}/sbin/corvane-cs"]


def test_the_manual_pages_name_the_installed_files_where_they_are(root):
    named = [path for page in pages(root / PREFIX[1:])
             for path in re.findall(r"^\.It Pa (\S+)$", page.read_text(), re.MULTILINE)
             if not path.startswith(("/var/", "/usr/share/corvane/"))]  # of the daemon at work, of the actors
    assert len(named) > 10
    for path in named:
        assert path.startswith(f"{PREFIX}/"), path
        assert list(root.glob(path[1:])), path


def test_no_installed_file_keeps_a_mark_to_be_replaced(root):
    for path in installed_files(root):
        if not path.endswith(("/sbin/corvane-cs", "/bin/corvane-ctl")):
            assert re.findall(r"@\w+@", (root / path[1:]).read_text()) == [], path


def test_what_is_no_program_cannot_be_run(root):
    """Under the umask of this test, too."""
    programs = [path for path in installed_files(root) if mode(root / path[1:]) != "0o644"]
    assert programs == [f"{PREFIX}/bin/corvane-ctl", f"{PREFIX}/etc/init.d/corvane-cs", f"{PREFIX}/sbin/corvane-cs"]
    assert {mode(root / path[1:]) for path in programs} == {"0o755"}


def test_nothing_is_warned_of(plain, tmp_path):
    assert "Warning" not in plain.output
    said = succeed("cmake", "--install", plain.directory, "--prefix", PREFIX, DESTDIR=str(tmp_path))
    assert "Warning" not in said


def test_the_caller_is_told_that_the_bus_does_not_read_another_prefix(plain, tmp_path):
    said = succeed("cmake", "--install", plain.directory, "--prefix", PREFIX, DESTDIR=str(tmp_path))
    assert f"the bus reads no policy in {PREFIX}/share/dbus-1/system.d" in said
    said = succeed("cmake", "--install", plain.directory, "--prefix", "/usr", DESTDIR=str(tmp_path))
    assert "the bus reads" not in said


def test_with_the_prefix_usr_files_go_where_the_system_looks(plain, tmp_path):
    asked = run("pkg-config", "--variable=systemdsystemunitdir", "systemd")
    units = asked.stdout.strip() if asked.returncode == 0 else "/lib/systemd/system"
    assert install(plain.directory, tmp_path, "/usr") == sorted(
        [f"/usr/{path}" for path in SHARED]
        + ["/etc/init.d/corvane-cs", "/etc/logrotate.d/corvane-cs", f"{units}/corvane-cs.service"])
    assert "\nExecStart=/usr/sbin/corvane-cs\n" in (tmp_path / units[1:] / "corvane-cs.service").read_text()
    page = (tmp_path / "usr/share/man/man8/corvane-cs.8").read_text()
    assert f"\n.It Pa {units}/corvane-cs.service\n" in page


def test_a_prefix_without_its_beginning_is_that_below_the_working_directory(plain, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    install(plain.directory, tmp_path / "root", "here")
    unit = tmp_path / "root" / str(tmp_path)[1:] / "here" / UNIT
    assert f"\nExecStart={tmp_path}/here/sbin/corvane-cs\n" in unit.read_text()


def test_each_place_can_be_chosen(plain, tmp_path):
    places = {"CORVANE_UNIT_DIR": "/units", "CORVANE_INIT_DIR": "/init", "CORVANE_TMPFILES_DIR": "/tmpfiles",
              "CORVANE_LOGROTATE_DIR": "share/rotation", "CMAKE_INSTALL_SBINDIR": "bin"}
    configure(plain.directory, NO_GTEST, *[f"-D{name}={place}" for name, place in places.items()])
    try:
        files = install(plain.directory, tmp_path, PREFIX)
    finally:
        configure(plain.directory, NO_GTEST, *[f"-U{name}" for name in places])
    assert {"/units/corvane-cs.service", "/init/corvane-cs", f"{PREFIX}/share/rotation/corvane-cs",
            "/tmpfiles/corvane-cs.conf", f"{PREFIX}/bin/corvane-cs"} <= set(files)
    assert f"\nExecStart={PREFIX}/bin/corvane-cs\n" in (tmp_path / "units/corvane-cs.service").read_text()
    page = (tmp_path / PREFIX[1:] / "share/man/man8/corvane-cs.8").read_text()
    assert "\n.It Pa /tmpfiles/corvane-cs.conf\n" in page
