# SPDX-License-Identifier: MIT
# conftest.py: runs the project's commands as other users and in containers.
import os
import subprocess
from pathlib import Path

import pytest

SOURCES = Path(__file__).resolve().parent.parent.parent
TOOLS = SOURCES / "tools"
OTHER_USER = 65534
NAMESPACES = subprocess.run([TOOLS / "check-machine", "namespaces"], stderr=subprocess.DEVNULL)
REASON = "needs namespaces, which a container refuses"

needs_namespaces = pytest.mark.skipif(NAMESPACES.returncode != 0, reason=REASON)


def run(*command, **options):
    """Runs a command from the sources; a completed process with text."""
    options = {"stdin": subprocess.DEVNULL, "env": environment(), **options}
    words = [str(word) for word in command]
    return subprocess.run(words, cwd=SOURCES, capture_output=True, text=True, **options)


def environment(**more):
    """The caller's environment without the variables that make hands to a make below it."""
    inherited = {name: text for name, text in os.environ.items() if not name.startswith(("MAKE", "MFLAGS"))}
    return {**inherited, "HOME": "/", **more}


def in_container(*command):
    """Runs a command as root of a container that has this machine's files, and an empty /run and /var/log."""
    as_root = [] if os.getuid() == 0 else ["--unshare-user", "--uid", "0", "--gid", "0"]
    mounts = ["--dev-bind", "/", "/", "--proc", "/proc", "--tmpfs", "/run", "--tmpfs", "/var/log"]
    return run(TOOLS / "as-container", *as_root, *mounts, "--", *command)


def lines_of(process):
    """The lines on the standard error of a command."""
    return process.stderr.splitlines()
