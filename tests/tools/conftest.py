# SPDX-License-Identifier: MIT
# conftest.py: runs the project's commands as other users and on other machines than this one.
import os
import subprocess
from pathlib import Path

import pytest

SOURCES = Path(__file__).resolve().parent.parent.parent
TOOLS = SOURCES / "tools"
NOBODY = 65534
HAS_NAMESPACES = subprocess.run([TOOLS / "check-machine", "namespaces"], stderr=subprocess.DEVNULL)

needs_namespaces = pytest.mark.skipif(HAS_NAMESPACES.returncode != 0,
                                      reason="needs namespaces, which a container refuses")


def run(*command, **options):
    """Runs a command from the sources; a completed process with text."""
    options = {"stdin": subprocess.DEVNULL, "env": environment(), **options}
    words = [str(word) for word in command]
    return subprocess.run(words, cwd=SOURCES, capture_output=True, text=True, **options)


def environment(**more):
    """The caller's, without what a make that runs these tests hands to a make that they run."""
    return {**{name: text for name, text in os.environ.items() if not name.startswith(("MAKE", "MFLAGS"))},
            "HOME": "/", **more}


def in_container(*command, mounts=(), **options):
    """Runs a command as root of a container that has this machine's files, and an empty /run and /var/log."""
    as_root = () if os.getuid() == 0 else ("--unshare-user", "--uid", "0", "--gid", "0")
    return run(TOOLS / "as-container", *as_root, "--dev-bind", "/", "/", "--proc", "/proc", "--tmpfs", "/run",
               "--tmpfs", "/var/log", *mounts, "--", *command, **options)


def lines_of(process):
    """What a command said on standard error."""
    return process.stderr.splitlines()
