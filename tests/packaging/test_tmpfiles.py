# SPDX-License-Identifier: MIT
# test_tmpfiles.py: the directory of the pid file, as a start of the machine makes it.
import shutil
import stat
import subprocess


def create(root):
    done = subprocess.run(["systemd-tmpfiles", "--create", f"--root={root}", "corvane-cs.conf"],
                          capture_output=True, text=True, timeout=30)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    directory = (root / "run/corvane").stat()
    return stat.filemode(directory.st_mode), directory.st_uid, directory.st_gid


def test_the_directory_is_made_for_root_to_write_in(installed, tmp_path):
    (tmp_path / "usr/lib/tmpfiles.d").mkdir(parents=True)
    shutil.copy(installed / "usr/lib/tmpfiles.d/corvane-cs.conf", tmp_path / "usr/lib/tmpfiles.d")

    assert create(tmp_path) == ("drwxr-xr-x", 0, 0)

    (tmp_path / "run/corvane").chmod(0o777)
    (tmp_path / "run/corvane/corvane-cs.pid").write_text("1")
    assert create(tmp_path) == ("drwxr-xr-x", 0, 0)
    assert (tmp_path / "run/corvane/corvane-cs.pid").read_text() == "1"
