# SPDX-License-Identifier: MIT
# test_completions.py: each shell, set up as Debian does it, finds the completions and offers the right words.
#
# The test calls the function that bash has registered. zsh completes only in its line editor, so it gets a
# terminal and a real tabulator, and a function that records the matches replaces the one that takes them.
import os
import pty
import re
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from conftest import OPTIONS

ASK_BASH = """
source /usr/share/bash-completion/bash_completion
_completion_loader "$1"
registered=$(complete -p "$1")
[ "$registered" = "complete -F _${1//-/_} $1" ] || { echo "$registered"; exit 1; }
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_LINE=${COMP_LINE// : / :} # a colon is a word, without spaces around it
COMP_POINT=${#COMP_LINE}
COMPREPLY=("left by another command")
"_${1//-/_}"
printf '%s\\n' "${COMPREPLY[@]}"
"""

ASK_ZSH = """
autoload -Uz compinit && compinit -u -D
compadd() {
  local -a matches
  if [[ ${@[1,(i)(-|--)]} != *-(O|A|D)\\ * ]]; then
    builtin compadd -A matches "$@"
    print -lr -- $matches >>/run/stage/matches
  fi
  builtin compadd "$@"
}
complete_and_record() { _main_complete; print done >>/run/stage/matches }
zle -C record complete-word complete_and_record
bindkey '^I' record
"""


def bash(*words):
    done = subprocess.run(["bash", "--norc", "-c", ASK_BASH, "bash", *words], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, ""), done
    return sorted(done.stdout.split())


class Terminal:
    """A terminal with zsh in it; what it shows is kept in `shown`."""

    def __init__(self):
        self.end, its_end = pty.openpty()
        streams = dict.fromkeys(("stdin", "stdout", "stderr"), its_end)
        environment = {**os.environ, "TERM": "dumb"}
        self.shell = subprocess.Popen(["zsh", "-f", "-i"], env=environment, start_new_session=True, **streams)
        os.close(its_end)
        self.shown = ""
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        try:
            while piece := os.read(self.end, 4096):
                self.shown += piece.decode(errors="replace")
        except OSError:  # the last process on the terminal has exited
            pass

    def type(self, keys):
        os.write(self.end, keys.encode())

    def close(self):
        self.shell.kill()
        self.shell.wait()
        self.reader.join()
        os.close(self.end)


@pytest.fixture
def zsh(laid_over):
    """Types a command line and a tabulator; returns what zsh offers."""
    Path("/run/stage/setup").write_text(ASK_ZSH)
    terminal = Terminal()

    def ask(line):
        matches = Path("/run/stage/matches")
        matches.write_text("")
        terminal.type(f"\x15{line}\t")  # ^U deletes the previous line
        try:
            laid_over.wait("zsh to complete", lambda: "done\n" in matches.read_text(), seconds=60)
        except AssertionError as error:
            raise AssertionError(terminal.shown) from error
        return sorted(matches.read_text().split()[:-1])

    terminal.type("source /run/stage/setup; print ready >/run/stage/ready\n")
    laid_over.wait("zsh to be ready", lambda: os.path.exists("/run/stage/ready"), seconds=60)
    yield ask
    terminal.close()


COMMANDS = ["actors", "start", "status", "stop", "watch"]
CTL_OPTIONS = ["--bus", "--help", "--json", "--no-wait", "--session", "--verbose", "--version"]
ACTORS = ["click-mouse", "disable-station", "init-station", "local-login", "press-fkey"]
ACTORS += ["remote-login", "xhotkey"]
TYPES = ["COMMON", "PCI", "USB"]


@pytest.fixture
def stations(system_bus):
    """A daemon that has a station on display :12, and an X server's socket for display :97."""
    system_bus.start_daemon()
    assert system_bus.caller().start(":12", "local-login") is True
    system_bus.wait_log("DISPLAY=:12, actor_code=2, child=")
    system_bus.mount("-t", "tmpfs", "tmpfs", "/tmp")  # the host's /tmp stays unchanged
    os.mkdir("/tmp/.X11-unix")
    with socket.socket(socket.AF_UNIX) as server:
        server.bind("/tmp/.X11-unix/X97")
        yield


def test_the_words_offered_for_corvane_ctl_are_those_of_its_help(laid_over):
    usage = subprocess.check_output(["corvane-ctl", "--help"], text=True)
    assert sorted(re.findall(r"^  corvane-ctl (\w+)", usage, re.MULTILINE)) == COMMANDS
    assert sorted(set(re.findall(r"(--[\w-]+)", usage))) == CTL_OPTIONS
    assert "TYPE is PCI, USB or COMMON;" in usage


def test_bash_runs_nothing_that_stands_in_the_name_of_a_socket(stations):
    with socket.socket(socket.AF_UNIX) as server:
        server.bind("/tmp/.X11-unix/X$(echo 66)")
        assert bash("corvane-ctl", "start", "") == [":12", ":97"]


def test_bash_offers_the_options_of_the_daemon(laid_over):
    assert bash("corvane-cs", "") == bash("corvane-cs", "--") == OPTIONS
    assert bash("corvane-cs", "--p") == ["--pid", "--purge"]
    assert bash("corvane-cs", "--start", "--ver") == ["--verbose"]
    assert bash("corvane-cs", "s") == []


def test_zsh_offers_the_options_of_the_daemon(zsh):
    assert zsh("corvane-cs --") == OPTIONS
    assert zsh("corvane-cs --p") == ["--pid", "--purge"]
    assert zsh("corvane-cs --start --ver") == ["--verbose"]
    assert zsh("corvane-cs s") == []


def test_no_shell_offers_anything_after_an_option_that_ends_the_daemons_program(zsh):
    assert bash("corvane-cs", "--pid", "") == bash("corvane-cs", "--verbose", "--stop", "--") == []
    assert zsh("corvane-cs --pid --") == zsh("corvane-cs --verbose --stop --") == []


def test_bash_offers_the_words_of_corvane_ctl(stations):
    assert bash("corvane-ctl", "") == COMMANDS
    assert bash("corvane-ctl", "--json", "sta") == ["start", "status"]
    assert bash("corvane-ctl", "--") == CTL_OPTIONS
    assert {":12", ":97"} <= set(bash("corvane-ctl", "start", ""))
    assert bash("corvane-ctl", "status", ":", "97") == ["97"]  # bash makes a word of the colon
    assert bash("corvane-ctl", "watch", ":", "12") == ["12"]
    assert bash("corvane-ctl", "start", ":", "1", "") == ACTORS
    assert bash("corvane-ctl", "stop", "--bus", "unix:path=/x", ":", "1", "local") == ["local-login"]
    assert bash("corvane-ctl", "start", ":", "1", "xhotkey", "") == TYPES
    for words in (["actors", ""], ["stop", ":", "1", "xhotkey", ""], ["status", "--bus", ""]):
        assert bash("corvane-ctl", *words) == []


def test_zsh_offers_the_words_of_corvane_ctl(stations, zsh):
    assert zsh("corvane-ctl ") == COMMANDS
    assert zsh("corvane-ctl --json sta") == ["start", "status"]
    assert zsh("corvane-ctl start --n") == ["--no-wait"]
    assert zsh("corvane-ctl status :9") == [":97"]
    assert zsh("corvane-ctl watch :12") == [":12"]
    assert zsh("corvane-ctl start :1 ") == ACTORS
    assert zsh("corvane-ctl stop :1 local") == ["local-login"]
    assert zsh("corvane-ctl start :1 xhotkey ") == TYPES
    assert zsh("corvane-ctl actors ") == []
