# SPDX-License-Identifier: MIT
# conftest.py: configures, builds and installs the project in scratch directories, with plain CMake.
#
# The daemon is built once for all tests of this folder, on a machine that seems to lack GoogleTest. It is
# installed below a DESTDIR, so that a file that is put outside of the prefix is found there and not in /.
import os
import subprocess
from pathlib import Path
from types import SimpleNamespace

import pytest

SOURCES = Path(__file__).resolve().parent.parent.parent
NO_GTEST = "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"

# What the caller's own build or make left in the environment would decide here, too.
FOREIGN = ("CFLAGS", "CXXFLAGS", "LDFLAGS", "DESTDIR", "MAKEFLAGS", "MFLAGS", "MAKELEVEL", "VERBOSE")


def run(*command, **environment):
    """Runs a command; a completed process with standard output and standard error as one text."""
    clean = {name: text for name, text in os.environ.items()
             if name not in FOREIGN and not name.startswith(("CMAKE_", "CTEST_"))}
    return subprocess.run([str(word) for word in command], env={**clean, "LC_ALL": "C", **environment},
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True)


def succeed(*command, **environment):
    """Runs a command that must succeed; its output."""
    done = run(*command, **environment)
    assert done.returncode == 0, done.stdout
    return done.stdout


def configure(directory, *options, sources=SOURCES):
    return succeed("cmake", "-S", sources, "-B", directory, "-G", "Ninja", *options)


def build(directory, *targets):
    """Builds targets, or all without one; a completed process."""
    return run("cmake", "--build", directory, "--parallel", "2", *(["--target", *targets] if targets else []))


def install(directory, root, prefix):
    """Installs below root; the paths of the installed files without it."""
    succeed("cmake", "--install", directory, "--prefix", prefix, DESTDIR=str(root))
    return installed_files(root)


def installed_files(root):
    return sorted(f"/{path.relative_to(root)}" for path in Path(root).rglob("*") if path.is_file())


def listed_tests(directory):
    """What `ctest -N` lists."""
    return succeed("ctest", "--test-dir", directory, "-N")


@pytest.fixture(scope="session")
def plain(tmp_path_factory):
    """A build directory with everything built, without GoogleTest; and what the configuration printed."""
    directory = tmp_path_factory.mktemp("plain")
    output = configure(directory, NO_GTEST)
    built = build(directory)
    assert built.returncode == 0, built.stdout
    return SimpleNamespace(directory=directory, output=output, daemon=directory / "cs/corvane-cs")
