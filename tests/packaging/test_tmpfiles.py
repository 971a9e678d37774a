# SPDX-License-Identifier: MIT
# test_tmpfiles.py: the boot makes the directory of the pid file so that only root may write in it.
import shutil
import subprocess


def test_only_root_may_write_in_the_directory_of_the_pid_file(installed, tmp_path):
    (tmp_path / "usr/lib/tmpfiles.d").mkdir(parents=True)
    shutil.copy(installed / "usr/lib/tmpfiles.d/corvane-cs.conf", tmp_path / "usr/lib/tmpfiles.d")
    directory = tmp_path / "run/corvane"
    for _ in range(2):
        command = ["systemd-tmpfiles", "--create", f"--root={tmp_path}", "corvane-cs.conf"]
        done = subprocess.run(command, capture_output=True, text=True, timeout=30)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        found = directory.stat()
        assert (oct(found.st_mode), found.st_uid, found.st_gid) == ("0o40755", 0, 0)
        directory.chmod(0o777)  # which the second turn must undo, and it must leave the pid file
        (directory / "corvane-cs.pid").write_text("1")
    assert (directory / "corvane-cs.pid").read_text() == "1"
