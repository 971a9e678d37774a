# SPDX-License-Identifier: MIT
# conftest.py: configures, builds and installs the project in scratch directories, with plain CMake.
#
# The tests of this folder share one build, as on a machine without GoogleTest. They install below a DESTDIR,
# so that a file outside of the prefix is found there and not in /.
import os
import subprocess
from pathlib import Path
from types import SimpleNamespace

import pytest

SOURCES = Path(__file__).resolve().parent.parent.parent
NO_GTEST = "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"

# These variables of the caller's own build or make would change the results.
FOREIGN = ("CFLAGS", "CXXFLAGS", "LDFLAGS", "DESTDIR", "MAKEFLAGS", "MFLAGS", "MAKELEVEL", "VERBOSE")


def run(*command, **environment):
    """Runs a command; a completed process with standard output and standard error as one text."""
    inherited = {name: text for name, text in os.environ.items() if name not in FOREIGN}
    clean = {name: text for name, text in inherited.items() if not name.startswith(("CMAKE_", "CTEST_"))}
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
    words = [str(word) for word in command]
    return subprocess.run(words, env={**clean, "LC_ALL": "C", **environment}, text=True, **streams)


def succeed(*command, **environment):
    """Runs a command that must succeed; its output."""
    done = run(*command, **environment)
    assert done.returncode == 0, done.stdout
    return done.stdout


def configure(directory, *options, sources=SOURCES):
    return succeed("cmake", "-S", sources, "-B", directory, "-G", "Ninja", *options)


def build(directory, *targets):
    """Builds the targets, or everything; a completed process."""
    target_options = ["--target", *targets] if targets else []
    return run("cmake", "--build", directory, "--parallel", "2", *target_options)


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
    """A directory with everything built, without GoogleTest, and the output of the configuration."""
    directory = tmp_path_factory.mktemp("plain")
    output = configure(directory, NO_GTEST)
    built = build(directory)
    assert built.returncode == 0, built.stdout
    return SimpleNamespace(directory=directory, output=output, daemon=directory / "cs/corvane-cs")
