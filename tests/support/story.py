# SPDX-License-Identifier: MIT
# story.py: shows the main job of the daemon on three stations, from the first login window to the end.
#
# Each chapter does something, checks everything that its text says, and returns the title and text of a
# stage. The demonstration shows the stages; an end-to-end test runs through them.
import os
import signal
import time
from pathlib import Path

from support.displays import BUNDLE, PATIENCE
from support.processes import process_state

RESTART_PAUSE = 2.0  # seconds


def start_of(pid):
    """The start time of a process, in seconds since boot."""
    ticks = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[19]
    return int(ticks) / os.sysconf("SC_CLK_TCK")


class Story:
    def __init__(self, stations):
        self.stations = stations
        a, b, c = self.numbers = list(stations.screens)
        # The windows of each station: (title, command line of the process).
        self.login = {
            a: ("Login", f"corvane-ls :{a}"),
            b: ("Login", f"corvane-ls :{b}"),
            c: ("Login on localhost", f"corvane-ls :{c} -query localhost"),
        }
        self.watcher = {number: ("Hot key", f"corvane-xh -display :{number}") for number in self.numbers}

    def stages(self):
        chapters = "wait log_in type_hot_key inject disable enable kill_login restart_login stop"
        for chapter in chapters.split():
            title, text = getattr(self, chapter)()
            yield self.stations.stage(title, text)

    def expect_logins_and_watchers(self):
        """Returns the pids of the logins."""
        return {
            number: self.stations.expect(number, self.watcher[number], self.login[number])[1]
            for number in self.numbers
        }

    def wait(self):
        self.stations.serve()
        self.daemon = int(self.stations.pid_file())
        assert self.stations.ask("--pid") == f"{self.daemon}\n" and process_state(self.daemon)
        for number in self.numbers:
            self.stations.expect(number)
        return "The daemon waits", (
            f"Three stations, each with its own display. The daemon is process {self.daemon}. It has "
            "received no calls yet, and nothing runs on the displays."
        )

    def log_in(self):
        a, b, c = self.numbers
        self.stations.start(a, "local-login", "PCI")
        self.stations.start(b, "local-login", "USB")
        self.stations.start(c, "remote-login", "COMMON")
        self.logins = {number: self.stations.expect(number, self.login[number])[0] for number in self.numbers}
        return "Login windows", (
            f"Each station has its login window. :{a} and :{b} have the local one. :{c} has the remote one, "
            "for a login on the host that the daemon names."
        )

    def type_hot_key(self):
        a, b, c = self.numbers
        for number in self.numbers:
            self.stations.start(number, "xhotkey", "COMMON")
        assert self.expect_logins_and_watchers() == self.logins
        self.stations.press(b, "F12")
        self.watcher[b] = "Hot key, seen 1", self.watcher[b][1]
        assert self.expect_logins_and_watchers() == self.logins
        return "A hot key", (
            f"Each station has a hot-key watcher. A user types F12 on :{b}. Only the watcher of :{b} sees "
            "the key, and no login window receives it."
        )

    def inject(self):
        a, b, c = self.numbers
        self.stations.start(a, "press-fkey", "PCI")
        self.stations.start(c, "click-mouse", "COMMON")
        self.login[a] = "Login, key F1", self.login[a][1]
        self.login[c] = "Login, click", self.login[c][1]
        assert self.expect_logins_and_watchers() == self.logins
        for number, option, action in ((a, "", "pressed F1"), (c, "--mouse ", "clicked")):
            log = f"/var/log/corvane-pfk{number}.log"
            command = f"corvane-pfk -display :{number} {option}--verbose --logfile {log}"
            assert command in self.stations.actors().values(), f"not running: {command}"
            line = f"{action} on :{number}\n"
            self.stations.wait(f"{line!r} in {log}", lambda: Path(log).read_text() == line, PATIENCE)
        return "Keys and clicks from a program", (
            f"One injector presses F1 on :{a}, another one clicks on :{c}. The login windows there receive "
            f"the key and the click. The login window of :{b} receives nothing."
        )

    def disable(self):
        b = self.numbers[1]
        image = "Image disabled", f"corvane-x11-put-image :{b} {BUNDLE} disabled"
        self.stations.start(b, "disable-station", "USB")
        self.stations.expect(b, image, self.watcher[b], self.login[b])
        return "A station is disabled", (
            f"An image covers the whole screen of :{b}. Its login window and its watcher still run."
        )

    def enable(self):
        b = self.numbers[1]
        self.stations.stop(b, "disable-station")
        assert self.expect_logins_and_watchers() == self.logins
        return "And enabled again", (
            f"The image of :{b} is stopped. The login and the watcher are the same processes as before."
        )

    def kill_login(self):
        a = self.numbers[0]
        self.killed = time.clock_gettime(time.CLOCK_BOOTTIME)
        os.kill(self.logins[a], signal.SIGKILL)
        self.stations.calls.append(f"process {self.logins[a]} is killed")
        self.stations.expect(a, self.watcher[a])
        return "A login is killed", (
            f"The login window of :{a}, process {self.logins[a]}, is gone. Its watcher and the other "
            "stations are unaffected."
        )

    def restart_login(self):
        a = self.numbers[0]
        self.login[a] = "Login", self.login[a][1]
        before, self.logins = self.logins, self.expect_logins_and_watchers()
        assert [number for number in self.numbers if self.logins[number] != before[number]] == [a]
        away = start_of(self.logins[a]) - self.killed
        assert RESTART_PAUSE - 0.1 < away < RESTART_PAUSE + 2, f"the login was relaunched after {away:.2f} s"
        return "And is back two seconds later", (
            f"The daemon has relaunched it as process {self.logins[a]}, {away:.1f} s after process "
            f"{before[a]} exited."
        )

    def stop(self):
        a, b, c = self.numbers
        for number, actors in (
            (a, ("local-login", "press-fkey", "xhotkey")),
            (b, ("local-login", "xhotkey")),
            (c, ("remote-login", "click-mouse", "xhotkey")),
        ):
            for actor in actors:
                self.stations.stop(number, actor)
        for number in self.numbers:
            self.stations.expect(number)
        self.stations.wait("end of all actors", lambda: not self.stations.actors(), PATIENCE)
        self.stations.ask("--stop")
        self.stations.wait_gone(self.daemon, PATIENCE)
        assert self.stations.pid_file() is None
        return "Everything is stopped", (
            "All actors are stopped, and then the daemon. No window, actor, daemon or pid file is left."
        )
