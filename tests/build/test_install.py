# SPDX-License-Identifier: MIT
# test_install.py: every file is installed below the prefix, and the files name each other's real places.
#
# Each test gives the prefix when it installs, after a configuration with another one.
import re

import pytest
from conftest import NO_GTEST, configure, install, installed_files, run, succeed

PREFIX = "/opt/some-prefix"
UNIT = "lib/systemd/system/corvane-cs.service"

# Below the prefix; with the prefix /usr, /etc and the system's directory of units are elsewhere.
SHARED = [
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
    "share/doc/corvane-cs/examples/start.c",
    "share/doc/corvane-cs/examples/start.py",
    "share/doc/corvane-cs/examples/stricter.conf",
    "share/man/man5/com.corvane.ControlServer.DisplayManager.5",
    "share/man/man5/com.corvane.ControlServer.Dummy.5",
    "share/man/man7/corvane-actors.7",
    "share/man/man8/corvane-cs.8",
    "share/man/man8/corvane-ctl.8",
    "share/zsh/vendor-completions/_corvane-cs",
    "share/zsh/vendor-completions/_corvane-ctl",
]
OTHERS = ["etc/init.d/corvane-cs", "etc/logrotate.d/corvane-cs", UNIT]
PROGRAMS = [f"{PREFIX}/{path}" for path in ("bin/corvane-ctl", "etc/init.d/corvane-cs", "sbin/corvane-cs")]


@pytest.fixture(scope="module")
def root(plain, tmp_path_factory):
    """The directory that stands for /, with everything installed below PREFIX."""
    directory = tmp_path_factory.mktemp("root")
    install(plain.directory, directory, PREFIX)
    return directory


def page_of(root, prefix):
    return (root / prefix[1:] / "share/man/man8/corvane-cs.8").read_text()


def test_every_file_is_below_the_prefix_and_only_programs_can_be_run(root):
    assert installed_files(root) == sorted(f"{PREFIX}/{path}" for path in SHARED + OTHERS)
    modes = {path: oct((root / path[1:]).stat().st_mode & 0o7777) for path in installed_files(root)}
    assert modes == {path: "0o755" if path in PROGRAMS else "0o644" for path in modes}


def test_the_unit_and_the_init_script_name_the_daemon_where_it_is(root):
    unit = (root / PREFIX[1:] / UNIT).read_text()
    assert re.findall(r"^ExecStart=(.*)", unit, re.MULTILINE) == [f"{PREFIX}/sbin/corvane-cs"]
    assert f" {PREFIX}/share/doc/corvane-cs/examples/stricter.conf" in unit
    script = (root / PREFIX[1:] / "etc/init.d/corvane-cs").read_text()
    assert re.findall(r"^daemon=(.*)", script, re.MULTILINE) == [f"{PREFIX}/sbin/corvane-cs"]


def test_the_manual_pages_name_every_installed_file_where_it_is(root):
    named = set()
    pages = [page.read_text() for page in (root / PREFIX[1:] / "share/man").glob("man*/*")]
    for path in re.findall(r"^\.It Pa (\S+)$", "\n".join(pages), re.MULTILINE):
        if path.startswith(("/var/", "/usr/share/corvane/")):  # the running daemon or the actors make these
            continue
        found = [f"/{file.relative_to(root)}" for file in root.glob(path[1:])]
        assert path.startswith(f"{PREFIX}/") and found, path
        named.update(found)
    unnamed = {path for path in installed_files(root) if "/share/man/" not in path} - named
    assert unnamed == {f"{PREFIX}/bin/corvane-ctl", f"{PREFIX}/sbin/corvane-cs"}


def test_no_installed_file_keeps_a_mark_to_be_replaced(root):
    for path in installed_files(root):
        if not path.endswith(("/sbin/corvane-cs", "/bin/corvane-ctl")):
            assert re.findall(r"@\w+@", (root / path[1:]).read_text()) == [], path


def test_a_note_says_that_the_bus_does_not_read_another_prefix_and_nothing_warns(plain, tmp_path):
    assert "Warning" not in plain.output
    for prefix, is_noted in ((PREFIX, True), ("/usr", False)):
        printed = succeed("cmake", "--install", plain.directory, "--prefix", prefix, DESTDIR=str(tmp_path))
        assert (f"the bus reads no policy in {prefix}/share/dbus-1/system.d" in printed) is is_noted
        assert "Warning" not in printed


def test_with_the_prefix_usr_files_go_where_the_system_looks(plain, tmp_path):
    asked = run("pkg-config", "--variable=systemdsystemunitdir", "systemd")
    units = asked.stdout.strip() if asked.returncode == 0 else "/lib/systemd/system"
    elsewhere = ["/etc/init.d/corvane-cs", "/etc/logrotate.d/corvane-cs", f"{units}/corvane-cs.service"]
    expected = sorted([f"/usr/{path}" for path in SHARED] + elsewhere)
    assert install(plain.directory, tmp_path, "/usr") == expected
    assert "\nExecStart=/usr/sbin/corvane-cs\n" in (tmp_path / units[1:] / "corvane-cs.service").read_text()
    assert f"\n.It Pa {units}/corvane-cs.service\n" in page_of(tmp_path, "/usr")


def test_a_relative_prefix_is_below_the_working_directory(plain, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    install(plain.directory, tmp_path / "root", "here")
    unit = tmp_path / "root" / str(tmp_path)[1:] / "here" / UNIT
    assert f"\nExecStart={tmp_path}/here/sbin/corvane-cs\n" in unit.read_text()


def test_each_place_can_be_chosen(plain, tmp_path):
    places = {
        "CORVANE_UNIT_DIR": "/units",
        "CORVANE_INIT_DIR": "/init",
        "CORVANE_TMPFILES_DIR": "/tmpfiles",
        "CORVANE_LOGROTATE_DIR": "share/rotation",
        "CMAKE_INSTALL_SBINDIR": "bin",
    }
    configure(plain.directory, NO_GTEST, *[f"-D{name}={place}" for name, place in places.items()])
    try:
        files = install(plain.directory, tmp_path, PREFIX)
    finally:
        configure(plain.directory, NO_GTEST, *[f"-U{name}" for name in places])
    chosen = ["/units/corvane-cs.service", "/init/corvane-cs", "/tmpfiles/corvane-cs.conf"]
    chosen += [f"{PREFIX}/share/rotation/corvane-cs", f"{PREFIX}/bin/corvane-cs"]
    assert set(chosen) <= set(files)
    assert f"\nExecStart={PREFIX}/bin/corvane-cs\n" in (tmp_path / "units/corvane-cs.service").read_text()
    assert "\n.It Pa /tmpfiles/corvane-cs.conf\n" in page_of(tmp_path, PREFIX)
