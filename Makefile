# SPDX-License-Identifier: MIT
# Makefile: the commands for every day. CMakePresets.json has the ways to build. Each command first installs
# the missing packages of its job; tools/install-packages has the list.
built = build/daemon
prefix = /usr/local
presets = release clang debug asan tsan coverage fuzz
daemon = build/release/cs/corvane-cs
lints = lint-tidy lint-cppcheck lint-format lint-shell lint-python lint-words
# Also in a checkout that belongs to another user.
git = git -c safe.directory='*'

# A command that fails in a pipe must fail the target: a list of files would otherwise be empty.
SHELL = /bin/bash
.SHELLFLAGS = -o pipefail -c

.PHONY: all install help stories whole-machine demo demo-live check check-i386 check-asan-i386 soak \
        soak-i386 check-variants fuzz coverage lint clean bench bench-smoke deb deb-i386 \
        check-installed check-packaging check-packaging-i386 \
        $(lints) $(addprefix build-,$(presets)) $(addprefix check-,$(presets))

# Plain CMake without a preset: the user's compiler, and warnings that do not stop the build.
all:
	@tools/install-packages build
	@cmake -S . -B $(built) -G Ninja --log-level=WARNING
	cmake --build $(built) --target corvane-cs corvane-ctl
	@echo 'The daemon is built: $(built)/cs/corvane-cs'
	@echo 'Next: make demo (see it work), make check (test it), make install (as root), make help (all commands)'

# Installs what `make` has built, so that root compiles nothing. The umask lets every user enter the
# directories.
install:
	@[ -x $(built)/cs/corvane-cs ] && [ -x $(built)/ctl/corvane-ctl ] || { \
	  echo 'make install: nothing is built yet: run make first' >&2; exit 1; }
	umask 022 && DESTDIR='$(DESTDIR)' cmake --install $(built) --prefix '$(prefix)'

help:
	@echo 'make             builds the daemon and corvane-ctl'
	@echo 'make install     installs both (as root); prefix=/usr/local and DESTDIR= are the defaults'
	@echo 'make demo        shows the daemon at work, with pictures of three displays'
	@echo 'make demo-live   shows the same in windows on your screen'
	@echo 'make check       runs all tests'
	@echo 'make check-i386  runs all tests on a bare 32-bit Debian (as root)'
	@echo 'make check-asan-i386, make soak-i386'
	@echo '                 run the tests there under a sanitizer, or the long stress tests'
	@echo 'make deb         makes the Debian packages in build/deb; deb-i386: for 32 bits (as root)'
	@echo 'make check-packaging'
	@echo '                 checks the installed files and the package (as root); check-packaging-i386: 32 bits'
	@echo 'make check-installed'
	@echo '                 checks only the installed files (as root)'
	@echo 'make check-boot  boots virtual machines with the packages, and checks them (as root)'
	@echo 'make soak        runs the long stress tests and the long form of the explorer'
	@echo 'make check-variants'
	@echo '                 removes one mechanism at a time and shows that the explorer of interleavings notices'
	@echo 'make bench       compares the daemon with other programs, in four minutes; bench-smoke: exact counts'
	@echo 'make fuzz        runs each fuzz target for a minute; SECONDS=3600: for an hour'
	@echo 'make coverage    shows which lines of the daemon the tests reach'
	@echo 'make lint        runs all linters: $(lints)'
	@echo 'make clean       removes all built files'
	@echo
	@echo 'make build-PRESET, make check-PRESET: $(presets)'

# The same stages twice: on hidden displays, and in windows on the user's screen.
demo: pictures = build/demo
demo-live: pictures = build/demo-live
demo-live: session = --session
demo demo-live: stories
	@tools/install-packages build test demo
	$(if $(session),@tools/private-machine --displays . $(session) true)
	@cmake --preset release --log-level=WARNING
	cmake --build --preset release --target corvane-cs corvane-ctl demo-actors
	@CORVANE_BIN=$(daemon) CORVANE_CTL=build/release/ctl/corvane-ctl CORVANE_ACTORS=build/release/demo \
	  tools/private-machine --displays . $(session) \
	  /usr/bin/python3 demo/demo.py $(pictures) $(if $(session),$$DISPLAY)

check: check-release

# The commands of the README where only make is installed.
check-i386 check-asan-i386 soak-i386: %-i386:
	tools/bare-debian i386 make $*

build-clang: groups = clang
build-fuzz: groups = fuzz
$(addprefix build-,$(presets)): build-%:
	@tools/install-packages build test demo $(groups)
	@cmake --preset $* --log-level=WARNING
	cmake --build --preset $*

# To CTest the stories of a file are one test, so the last line counts the stories.
$(addprefix check-,$(presets)): check-%: stories build-%
	@rm -rf build/$*/stories && mkdir build/$*/stories
	@ctest --preset $* -j $$(tools/check-machine --jobs); passed=$$?; \
	/usr/bin/python3 tests/support/summary.py build/$*/stories; exit $$passed

# Comes first: whether the daemon can run on this machine.
stories:
	@tools/check-machine stories

whole-machine:
	@tools/check-machine root namespaces

# The stress tests and the explorer of interleavings: `make check` runs them for seconds. Here they last long
# enough to use up a resource.
soak: stories build-release
	@mkdir -p build/release/stories
	CORVANE_SOAK=1 ctest --preset release -L soak
	@cat build/release/stories/interleavings.*.txt

# Prints how many schedules the explorer needs to notice each missing mechanism.
check-variants: build-release
	cmake --build --preset release --target variants
	@ctest --preset release -C variants -R '^variant' -j $$(nproc) -V | \
	  grep -E 'schedule .* fails|^\s+[0-9]+ - |tests (passed|failed)'

# dpkg-buildpackage writes into the sources and beside them, so it gets a copy of the files that are not
# ignored.
architecture = $(shell dpkg --print-architecture)
deb = build/deb/$(architecture)
deb:
	@tools/install-packages build deb
	@rm -rf $(deb) && mkdir -p $(deb)/source
	@$(git) ls-files -z -co --exclude-standard | \
	  tar -c --null --files-from=- --ignore-failed-read | tar -x -C $(deb)/source
	cd $(deb)/source && dpkg-buildpackage -us -uc >../log 2>&1 || { tail -n 20 ../log; exit 1; }
	@rm -r $(deb)/source && ls $(deb)/*.*

deb-i386:
	tools/bare-debian i386 make deb
	@rm -rf build/deb/i386 && mkdir -p build/deb && cp -r build/bare-i386/deb/i386 build/deb/

# First the installed files, then the packages.
check-packaging: whole-machine check-installed deb
	tests/packaging/check-package $(architecture)

check-packaging-i386: deb-i386
	tools/bare-debian i386 make check-installed
	tests/packaging/check-package i386

# Both packages under both inits: four machines, one after the other.
.PHONY: check-boot
check-boot: whole-machine deb deb-i386
	@tools/install-packages boot bare
	tests/boot/run build/deb/amd64/corvane-cs_*_amd64.deb build/deb/i386/corvane-cs_*_i386.deb

# With the umask of a new machine, as in a package: every user can enter the directories.
check-installed: whole-machine build-release
	@tools/install-packages packaging
	@rm -rf build/installed
	umask 022 && DESTDIR=$(CURDIR)/build/installed cmake --install build/release --prefix /usr
	CORVANE_BIN=$(CURDIR)/$(daemon) CORVANE_INSTALLED=$(CURDIR)/build/installed \
	  tools/private-machine /usr/bin/python3 -m pytest -q -p no:cacheprovider --timeout=120 tests/packaging

# A separate build, so that `make check` needs none of the libraries that only the benchmarks use.
bench-smoke: short = --short
bench bench-smoke: stories
	@tools/install-packages build bench
	@cmake --preset release -B build/bench/release --log-level=WARNING \
	  -DCORVANE_BENCH=ON -DBUILD_TESTING=OFF -DCORVANE_DEMO=OFF
	cmake --build build/bench/release
	tools/private-machine /usr/bin/python3 bench/bench.py build/bench/release/cs/corvane-cs \
	  build/bench/release/bench build/bench $(short)

SECONDS = 60
fuzz:
	@tools/install-packages build fuzz
	tests/fuzz/run $(SECONDS)

# Counts only this run, and fails below 95 of 100 lines.
coverage:
	@tools/install-packages coverage
	@mkdir -p build/coverage && find build/coverage -name '*.gcda' -delete
	$(MAKE) check-coverage
	gcovr --root . --exclude tools/ --exclude-unreachable-branches --exclude-throw-branches --txt \
	  --print-summary --fail-under-line 95 $(addprefix build/coverage/,cs common ctl plugins)

lint: $(lints)

# One process for each file: in the second file of a process, the analysis reports every va_list as
# uninitialized.
lint-tidy: build-clang
	@tools/install-packages lint
	$(git) ls-files -co --exclude-standard 'cs/*.cpp' 'common/*.cpp' 'ctl/*.cpp' 'plugins/*.cpp' | \
	  xargs -n 1 -P 2 clang-tidy -p build/clang --quiet

# cppcheck does not know __VA_OPT__, so cppcheck.cfg describes the log's macros as functions. It also takes a
# placement new for a read.
lint-cppcheck:
	@tools/install-packages build lint
	cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --inline-suppr --std=c++20 \
	  -I . --library=tools/cppcheck.cfg -Ulog_debug -Ulog_error \
	  --suppress=legacyUninitvar:plugins/display-manager/display-manager.cpp cs common ctl plugins

lint-format:
	@tools/install-packages lint
	$(git) ls-files -co --exclude-standard '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror

lint-shell:
	@tools/install-packages lint
	files=$$($(git) ls-files -co --exclude-standard '*.bash' && \
	  $(git) grep --untracked -lE '^#!/bin/(ba)?sh$$') && shellcheck $$files

# flake8 disagrees with black about E203, and sees long lines that black leaves alone.
lint-python:
	@tools/install-packages lint
	files=$$($(git) ls-files -co --exclude-standard '*.py' && \
	  $(git) grep --untracked -l '^#!/usr/bin/python3$$') && \
	black --check --quiet --line-length 110 $$files && \
	flake8 --max-line-length 110 --extend-ignore E203 $$files

# The usage and the log have two fixed misspellings, a test makes one, and Nd is a macro of manual pages.
lint-words:
	@tools/install-packages lint
	tools/check-words
	$(git) ls-files -z -co --exclude-standard | xargs -0 codespell \
	  --ignore-words-list assicated,occurrs,strat,nd

clean:
	rm -rf build
