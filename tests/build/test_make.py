# SPDX-License-Identifier: MIT
# test_make.py: the Makefile's commands that build and install the daemon, and do nothing else.
#
# They get the directory in which the daemon is already built.
import os

from conftest import SOURCES, install, installed_files, run


def make(directory, *words):
    return run("make", "-C", SOURCES, f"built={directory}", *words)


def test_make_alone_builds_the_daemon_and_reports_where_it_is_and_what_to_do_next(plain):
    plain.daemon.unlink()
    done = make(plain.directory)
    assert done.returncode == 0, done.stdout
    *_, where, following = [line for line in done.stdout.splitlines() if not line.startswith("make")]
    assert str(plain.daemon) in where
    assert os.access(plain.daemon, os.X_OK)
    assert "make install" in following and "make help" in following


def test_make_install_takes_a_prefix_and_a_destdir(plain, tmp_path):
    done = make(plain.directory, "install", "prefix=/opt/some-prefix", f"DESTDIR={tmp_path}/root")
    assert done.returncode == 0, done.stdout
    install(plain.directory, tmp_path / "expected", "/opt/some-prefix")
    assert installed_files(tmp_path / "root") == installed_files(tmp_path / "expected")


def test_make_install_builds_nothing(tmp_path):
    done = make(f"{tmp_path}/none", "install", f"DESTDIR={tmp_path}/root")
    assert done.returncode != 0
    assert "nothing is built yet: run make first" in done.stdout
    assert list(tmp_path.iterdir()) == []
