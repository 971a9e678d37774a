# SPDX-License-Identifier: MIT
# test_completions.py: each shell, set up as Debian does it, finds the completions and offers what they should.
#
# bash is asked by calling what it registered. zsh completes in its line editor only, so it gets a terminal, a
# real tabulator, and a function in the place of the one that takes the matches, which writes them down.
import os
import pty
import re
import socket
import subprocess
import threading
from pathlib import Path

import pytest

OPTIONS = ["--disable", "--enable", "--pid", "--purge", "--start", "--stop", "--verbose"]

ASK_BASH = """
source /usr/share/bash-completion/bash_completion
_completion_loader "$1"
registered=$(complete -p "$1")
[ "$registered" = "complete -F _${1//-/_} $1" ] || { echo "$registered"; exit 1; }
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_LINE=${COMP_LINE// : / :} # the colon is a word of its own, but nothing stands between
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
complete_and_tell() { _main_complete; print done >>/run/stage/matches }
zle -C tell complete-word complete_and_tell
bindkey '^I' tell
"""


def bash(*words):
    done = subprocess.run(["bash", "--norc", "-c", ASK_BASH, "bash", *words], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, ""), done
    return sorted(done.stdout.split())


class Terminal:
    """A terminal with zsh in it; what it shows is kept in `shown`."""

    def __init__(self):
        self.end, its_end = pty.openpty()
        self.shell = subprocess.Popen(["zsh", "-f", "-i"], stdin=its_end, stdout=its_end, stderr=its_end,
                                      env={**os.environ, "TERM": "dumb"}, start_new_session=True)
        os.close(its_end)
        self.shown = ""
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        try:
            while piece := os.read(self.end, 4096):
                self.shown += piece.decode(errors="replace")
        except OSError:  # the last user of the terminal is gone
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
    """Asks zsh what it offers for a command line that ends where the tabulator is pressed."""
    Path("/run/stage/setup").write_text(ASK_ZSH)
    terminal = Terminal()

    def ask(line):
        matches = Path("/run/stage/matches")
        matches.write_text("")
        terminal.type(f"\x15{line}\t")  # behind what deletes the line before
        try:
            laid_over.wait("zsh to complete", lambda: "done\n" in matches.read_text(), seconds=60)
        except AssertionError as error:
            raise AssertionError(terminal.shown) from error
        return sorted(matches.read_text().split()[:-1])

    terminal.type("source /run/stage/setup; print ready >/run/stage/ready\n")
    laid_over.wait("zsh to be ready", lambda: os.path.exists("/run/stage/ready"), seconds=60)
    yield ask
    terminal.close()


def test_the_options_are_those_of_the_usage_text(laid_over):
    usage = laid_over.run("--help").stderr
    assert sorted(re.findall(r"^\t(--\w+)\t", usage, re.MULTILINE)) == OPTIONS


def test_bash_offers_the_options(laid_over):
    assert bash("corvane-cs", "") == OPTIONS
    assert bash("corvane-cs", "--") == OPTIONS
    assert bash("corvane-cs", "--p") == ["--pid", "--purge"]
    assert bash("corvane-cs", "--sto") == ["--stop"]
    assert bash("corvane-cs", "--start", "--ver") == ["--verbose"]


def test_bash_offers_nothing_where_the_daemon_looks_at_nothing(laid_over):
    assert bash("corvane-cs", "s") == []
    assert bash("corvane-cs", "--pid", "") == []
    assert bash("corvane-cs", "--verbose", "--stop", "--") == []


def test_zsh_offers_the_options(zsh):
    assert zsh("corvane-cs --") == OPTIONS
    assert zsh("corvane-cs --p") == ["--pid", "--purge"]
    assert zsh("corvane-cs --start --ver") == ["--verbose"]


def test_zsh_offers_nothing_where_the_daemon_looks_at_nothing(zsh):
    assert zsh("corvane-cs s") == []
    assert zsh("corvane-cs --pid --") == []
    assert zsh("corvane-cs --verbose --stop --") == []


# ---- corvane-ctl ----

COMMANDS = ["actors", "start", "status", "stop", "watch"]
CTL_OPTIONS = ["--bus", "--help", "--json", "--no-wait", "--session", "--verbose", "--version"]
ACTORS = ["click-mouse", "disable-station", "init-station", "local-login", "press-fkey", "remote-login", "xhotkey"]
TYPES = ["COMMON", "PCI", "USB"]


@pytest.fixture
def stations(system_bus):
    """The installed files, an X server's socket for display :7, and a daemon that has a station on display :12."""
    system_bus.start_daemon()
    assert system_bus.caller().start(":12", "local-login") is True
    system_bus.wait_log("DISPLAY=:12, actor_code=2, child=")
    directory = Path("/tmp/.X11-unix")
    was_there = directory.exists()
    directory.mkdir(exist_ok=True)
    path = directory / "X97"
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(path))
        yield
    path.unlink()
    if not was_there:
        directory.rmdir()


def test_the_words_of_corvane_ctl_are_those_of_its_help(laid_over):
    usage = subprocess.check_output(["corvane-ctl", "--help"], text=True)
    assert sorted(re.findall(r"^  corvane-ctl (\w+)", usage, re.MULTILINE)) == COMMANDS
    assert sorted(set(re.findall(r"(--[\w-]+)", usage))) == CTL_OPTIONS
    assert "TYPE is PCI, USB or COMMON;" in usage


def test_bash_offers_commands_displays_actors_and_types(stations):
    assert bash("corvane-ctl", "") == COMMANDS
    assert bash("corvane-ctl", "--json", "sta") == ["start", "status"]
    assert bash("corvane-ctl", "start", "--n") == ["--no-wait"]
    assert {":12", ":97"} <= set(bash("corvane-ctl", "start", ""))
    assert bash("corvane-ctl", "status", ":", "97") == ["97"]  # as bash splits a word at its colon
    assert bash("corvane-ctl", "watch", ":", "12") == ["12"]
    assert bash("corvane-ctl", "start", ":", "1", "") == ACTORS
    assert bash("corvane-ctl", "stop", "--bus", "unix:path=/x", ":", "1", "local") == ["local-login"]
    assert bash("corvane-ctl", "start", ":", "1", "xhotkey", "") == TYPES


def test_bash_offers_nothing_where_corvane_ctl_takes_nothing(stations):
    assert bash("corvane-ctl", "actors", "") == []
    assert bash("corvane-ctl", "stop", ":", "1", "xhotkey", "") == []
    assert bash("corvane-ctl", "status", "--bus", "") == []


def test_zsh_offers_commands_displays_actors_and_types(stations, zsh):
    assert zsh("corvane-ctl ") == COMMANDS
    assert zsh("corvane-ctl --json sta") == ["start", "status"]
    assert zsh("corvane-ctl start --n") == ["--no-wait"]
    assert zsh("corvane-ctl status :9") == [":97"]
    assert zsh("corvane-ctl watch :12") == [":12"]
    assert zsh("corvane-ctl start :1 ") == ACTORS
    assert zsh("corvane-ctl stop :1 local") == ["local-login"]
    assert zsh("corvane-ctl start :1 xhotkey ") == TYPES
    assert zsh("corvane-ctl actors ") == []
