# SPDX-License-Identifier: MIT
# test_configure.py: what the switches of CMake do here, and what a machine may lack.
import os
import re

import pytest
from conftest import NO_GTEST, SOURCES, build, configure, succeed, listed_tests

# A line that g++ and clang warn of with the project's own options, and with no other.
WARNED = "inline int warned(int of_no_use) { return 0; }\n"


def test_without_googletest_the_daemon_is_built_all_the_same(plain):
    assert os.access(plain.daemon, os.X_OK)


def test_a_message_says_that_the_unit_tests_are_left_out_and_what_brings_them(plain):
    [line] = [line for line in plain.output.splitlines() if "GoogleTest" in line]
    assert "unit tests are left out" in line
    assert "libgtest-dev" in line


def test_without_googletest_the_other_tests_stay(plain):
    listed = listed_tests(plain.directory)
    assert "e2e.calls" in listed
    assert "Logger" not in listed and "unit-tests" not in listed


def test_without_build_testing_there_is_no_test(tmp_path):
    configure(tmp_path, "-DBUILD_TESTING=OFF")
    assert "Total Tests: 0" in listed_tests(tmp_path)
    assert "stand-in" not in succeed("cmake", "--build", tmp_path, "--target", "help")


def test_a_parent_project_gets_the_daemon_without_its_tests(tmp_path):
    """Although the tests of the parent are wanted."""
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\n"
        "project(parent LANGUAGES C CXX)\n"
        "include(CTest)\n"
        "add_test(NAME parents-own COMMAND true)\n"
        f"add_subdirectory({SOURCES} corvane)\n")
    directory = tmp_path / "build"
    configure(directory, NO_GTEST, sources=tmp_path)
    assert re.findall(r"Test +#\d+: (.*)", listed_tests(directory)) == ["parents-own"]
    targets = succeed("cmake", "--build", directory, "--target", "help")
    assert "corvane-cs" in targets
    assert "stand-in" not in targets


def test_the_tests_of_a_parent_project_stay_on_by_default(tmp_path):
    """It may ask CTest for its own switch after it has added this project."""
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\n"
        "project(parent LANGUAGES C CXX)\n"
        f"add_subdirectory({SOURCES} corvane)\n"
        "include(CTest)\n"
        "if(BUILD_TESTING)\n"
        "  add_test(NAME parents-own COMMAND true)\n"
        "endif()\n")
    directory = tmp_path / "build"
    configure(directory, NO_GTEST, sources=tmp_path)
    assert "parents-own" in listed_tests(directory)


def test_there_is_no_switch_of_our_own_where_cmake_has_one(plain):
    cache = (plain.directory / "CMakeCache.txt").read_text()
    switches = re.findall(r"^(CORVANE_\w+):BOOL=", cache, re.MULTILINE)
    assert sorted(switches) == ["CORVANE_BENCH", "CORVANE_COVERAGE", "CORVANE_DEMO", "CORVANE_FUZZ"]


@pytest.mark.parametrize("switch, is_built", [("ON", False), ("OFF", True)])
def test_a_warning_is_an_error_where_cmake_is_asked_for_it(tmp_path, switch, is_built):
    (tmp_path / "warned.h").write_text(WARNED)
    configure(tmp_path, NO_GTEST, f"-DCMAKE_COMPILE_WARNING_AS_ERROR={switch}",
              f"-DCMAKE_CXX_FLAGS=-include {tmp_path}/warned.h")
    done = build(tmp_path, "common/CMakeFiles/corvane-common.dir/text.cpp.o")
    assert "of_no_use" in done.stdout
    assert (done.returncode == 0) is is_built, done.stdout


def test_the_presets_make_warnings_errors(tmp_path):
    succeed("cmake", "-S", SOURCES, "--preset", "release", "-B", tmp_path, NO_GTEST, "-DCORVANE_DEMO=OFF")
    assert re.search(r"^  FLAGS = .* -Werror$", (tmp_path / "build.ninja").read_text(), re.MULTILINE)
    assert "CMAKE_COMPILE_WARNING_AS_ERROR" in (tmp_path / "CMakeCache.txt").read_text()


def test_a_compiler_that_has_no_option_of_x86_builds_the_code(tmp_path):
    compiler = tmp_path / "compiler"
    real = os.environ.get("CXX", "c++")
    compiler.write_text(
        "#!/bin/sh\n"
        "for word; do\n"
        '  case $word in -fcf-protection*) echo "$word: not for this machine" >&2; exit 1 ;; esac\n'
        "done\n"
        f'exec {real} "$@"\n')
    compiler.chmod(0o755)
    configure(tmp_path, NO_GTEST, f"-DCMAKE_CXX_COMPILER={compiler}")
    done = build(tmp_path, "common/CMakeFiles/corvane-common.dir/text.cpp.o")
    assert done.returncode == 0, done.stdout


def test_on_x86_a_release_marks_where_a_jump_may_land(plain):
    if os.uname().machine not in ("x86_64", "i686"):
        pytest.skip("another architecture")
    assert " -fcf-protection " in (plain.directory / "build.ninja").read_text()
