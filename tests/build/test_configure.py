# SPDX-License-Identifier: MIT
# test_configure.py: the switches of CMake, and machines that lack something.
import os
import re

import pytest
from conftest import NO_GTEST, SOURCES, build, configure, listed_tests, succeed

# g++ and clang warn of this line with the project's own options, and with no other.
WARNED = "inline int warned(int of_no_use) { return 0; }\n"
WITHOUT_OPTION = """#!/bin/sh
for word; do
  case $word in -fcf-protection*) echo "$word: not for this machine" >&2; exit 1 ;; esac
done
exec {} "$@"
"""
OBJECT = "common/CMakeFiles/corvane-common.dir/text.cpp.o"


def test_without_googletest_only_the_unit_tests_are_missing_and_a_message_says_so(plain):
    assert os.access(plain.daemon, os.X_OK)
    [line] = [line for line in plain.output.splitlines() if "GoogleTest" in line]
    assert "unit tests are left out" in line and "libgtest-dev" in line
    listed = listed_tests(plain.directory)
    assert "e2e.calls" in listed
    assert "Logger" not in listed and "unit-tests" not in listed


def test_without_python_the_daemon_is_configured_and_a_message_says_what_is_missing(tmp_path):
    configured = configure(tmp_path, NO_GTEST, "-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON")
    assert "Python is missing: the variants for the explorer are left out" in configured
    assert "corvane-cs" in succeed("cmake", "--build", tmp_path, "--target", "help")


def test_without_build_testing_no_test_exists(tmp_path):
    configure(tmp_path, "-DBUILD_TESTING=OFF")
    assert "Total Tests: 0" in listed_tests(tmp_path)
    assert "stand-in" not in succeed("cmake", "--build", tmp_path, "--target", "help")


@pytest.mark.parametrize("adds_us_first", [False, True])
def test_a_parent_project_keeps_its_tests_and_gets_the_daemon_without_ours(tmp_path, adds_us_first):
    steps = ["include(CTest)", f"add_subdirectory({SOURCES} corvane)"]
    lines = [
        "cmake_minimum_required(VERSION 3.25)",
        "project(parent LANGUAGES C CXX)",
        *(reversed(steps) if adds_us_first else steps),
        "if(BUILD_TESTING)",
        "  add_test(NAME parents-own COMMAND true)",
        "endif()",
    ]
    (tmp_path / "CMakeLists.txt").write_text("\n".join(lines))
    directory = tmp_path / "build"
    configure(directory, NO_GTEST, sources=tmp_path)
    assert re.findall(r"Test +#\d+: (.*)", listed_tests(directory)) == ["parents-own"]
    targets = succeed("cmake", "--build", directory, "--target", "help")
    assert "corvane-cs" in targets and "stand-in" not in targets


@pytest.mark.parametrize("switch, is_built", [("ON", False), ("OFF", True)])
def test_a_warning_is_an_error_where_cmake_is_asked_for_it(tmp_path, switch, is_built):
    (tmp_path / "warned.h").write_text(WARNED)
    include = f"-DCMAKE_CXX_FLAGS=-include {tmp_path}/warned.h"
    configure(tmp_path, NO_GTEST, include, f"-DCMAKE_COMPILE_WARNING_AS_ERROR={switch}")
    done = build(tmp_path, OBJECT)
    assert "of_no_use" in done.stdout
    assert (done.returncode == 0) is is_built, done.stdout


def test_the_presets_make_warnings_errors(tmp_path):
    succeed("cmake", "-S", SOURCES, "--preset", "release", "-B", tmp_path, NO_GTEST, "-DCORVANE_DEMO=OFF")
    assert re.search(r"^  FLAGS = .* -Werror$", (tmp_path / "build.ninja").read_text(), re.MULTILINE)


def test_a_compiler_that_has_no_option_of_x86_builds_the_code(tmp_path):
    compiler = tmp_path / "compiler"
    compiler.write_text(WITHOUT_OPTION.format(os.environ.get("CXX", "c++")))
    compiler.chmod(0o755)
    configure(tmp_path, NO_GTEST, f"-DCMAKE_CXX_COMPILER={compiler}")
    done = build(tmp_path, OBJECT)
    assert done.returncode == 0, done.stdout
