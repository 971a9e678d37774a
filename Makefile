# SPDX-License-Identifier: MIT
# Makefile: the commands of every day. The ways to build are in CMakePresets.json, the packages in
# tools/install-packages; each command installs what is missing first.
presets = release clang debug asan tsan coverage fuzz
daemon = build/release/cs/corvane-cs
lints = lint-tidy lint-cppcheck lint-format lint-shell

.PHONY: help demo check check-i386 soak fuzz coverage lint clean \
        $(lints) $(addprefix build-,$(presets)) $(addprefix check-,$(presets))

help:
	@echo 'make demo        shows the daemon at its work, on a private bus'
	@echo 'make check       runs all tests'
	@echo 'make check-i386  runs all tests on a bare 32-bit Debian (as root)'
	@echo 'make soak        runs the stress tests in their long form'
	@echo 'make fuzz        runs every fuzz target for a minute; SECONDS=3600: for an hour'
	@echo 'make coverage    shows what of the daemon the tests reach'
	@echo 'make lint        runs clang-tidy, cppcheck, clang-format and shellcheck'
	@echo 'make clean       removes everything that was built'
	@echo
	@echo 'make build-PRESET, make check-PRESET: $(presets)'

demo:
	@tools/install-packages build test
	@cmake --preset release --log-level=WARNING
	cmake --build --preset release --target corvane-cs
	@tools/private-machine /usr/bin/python3 demo/demo.py $(daemon)

check: check-release

# The very command of the README, where nothing but make is installed yet.
check-i386:
	tools/bare-debian i386 make check

build-clang: groups = clang
build-fuzz: groups = fuzz
$(addprefix build-,$(presets)): build-%:
	@tools/install-packages build test $(groups)
	@cmake --preset $* --log-level=WARNING
	cmake --build --preset $*

$(addprefix check-,$(presets)): check-%: build-%
	ctest --preset $*

# The stress tests are short beside the other tests; here they last until something could wear out.
soak: build-release
	CORVANE_SOAK=1 ctest --preset release -L soak

SECONDS = 60
fuzz:
	@tools/install-packages build fuzz
	tests/fuzz/run $(SECONDS)

# What an earlier run reached does not count. 95 of 100 lines are the least.
coverage:
	@tools/install-packages coverage
	@mkdir -p build/coverage && find build/coverage -name '*.gcda' -delete
	$(MAKE) check-coverage
	gcovr --root . --exclude tools/ --exclude-unreachable-branches --exclude-throw-branches --txt --print-summary \
	  --fail-under-line 95 $(addprefix build/coverage/,cs common plugins)

lint: $(lints)

# One process a file: the analysis of a second file in one process takes every va_list for uninitialised.
lint-tidy: build-clang
	git ls-files -co --exclude-standard 'cs/*.cpp' 'common/*.cpp' 'plugins/*.cpp' | xargs -n 1 -P 2 clang-tidy -p build/clang --quiet

# cppcheck does not know __VA_OPT__, so that it gets the log's macros as functions of a library of its own,
# and it takes a placement new for a read.
lint-cppcheck:
	@tools/install-packages build lint
	cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --inline-suppr --std=c++20 -I . \
	  --library=tools/cppcheck.cfg -Ulog_debug -Ulog_error \
	  --suppress=legacyUninitvar:plugins/display-manager/display-manager.cpp cs common plugins

lint-format:
	@tools/install-packages lint
	git ls-files -co --exclude-standard '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror

lint-shell:
	@tools/install-packages lint
	git grep --untracked -lE '^#!/bin/(ba)?sh$$' | xargs shellcheck

clean:
	rm -rf build
