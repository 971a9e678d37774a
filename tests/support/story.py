# SPDX-License-Identifier: MIT
# story.py: the main job of the daemon, told on three stations, from the first login window to the end.
#
# Each chapter does something, waits until all that it tells has been seen, and hands out the stage that the
# story has come to. The demonstration shows the stages, an end-to-end test goes through them.
import os
import signal
import time
from pathlib import Path

from support.displays import BUNDLE, PATIENCE
from support.processes import process_state

RESTART_PAUSE = 2.0  # seconds


def start_of(pid):
    """When a process was started: seconds since the system was."""
    ticks = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[19]
    return int(ticks) / os.sysconf("SC_CLK_TCK")


class Story:
    def __init__(self, stations):
        self.stations = stations
        a, b, c = self.numbers = list(stations.screens)
        # What each station shows: (title of the window, command line of its process).
        self.login = {a: ("Login", f"corvane-ls :{a}"), b: ("Login", f"corvane-ls :{b}"),
                      c: ("Login on localhost", f"corvane-ls :{c} -query localhost")}
        self.watcher = {number: ("Hot key", f"corvane-xh -display :{number}") for number in self.numbers}

    def stages(self):
        for chapter in (self.wait, self.log_in, self.type_hot_key, self.inject, self.disable, self.enable,
                        self.kill_login, self.restart_login, self.stop):
            title, text = chapter()
            yield self.stations.stage(title, text)

    def expect_logins_and_watchers(self):
        """Returns the processes of the logins."""
        return {number: self.stations.expect(number, self.watcher[number], self.login[number])[1]
                for number in self.numbers}

    def wait(self):
        self.stations.serve()
        self.daemon = int(self.stations.pid_file())
        assert self.stations.ask("--pid") == f"{self.daemon}\n" and process_state(self.daemon)
        for number in self.numbers:
            self.stations.expect(number)
        return "The daemon waits", (
            f"Three stations, each with a display of its own. The daemon is process {self.daemon}; nobody "
            "has asked it for anything, and nothing runs on the displays.")

    def log_in(self):
        a, b, c = self.numbers
        self.stations.start(a, "local-login", "PCI")
        self.stations.start(b, "local-login", "USB")
        self.stations.start(c, "remote-login", "COMMON")
        self.logins = {number: self.stations.expect(number, self.login[number])[0] for number in self.numbers}
        return "Login windows", (
            f"Each station has got its login window: :{a} and :{b} the local one, :{c} the remote one, to "
            "log in on the host that the daemon names.")

    def type_hot_key(self):
        a, b, c = self.numbers
        for number in self.numbers:
            self.stations.start(number, "xhotkey", "COMMON")
        assert self.expect_logins_and_watchers() == self.logins
        self.stations.press(b, "F12")
        self.watcher[b] = "Hot key, seen 1", self.watcher[b][1]
        assert self.expect_logins_and_watchers() == self.logins
        return "A hot key", (
            f"Each station has a hot-key watcher. Somebody types F12 on :{b}: the watcher there has seen it, "
            f"those of :{a} and :{c} have not, and no login window has got it.")

    def inject(self):
        a, b, c = self.numbers
        self.stations.start(a, "press-fkey", "PCI")
        self.stations.start(c, "click-mouse", "COMMON")
        self.login[a] = "Login, key F1", self.login[a][1]
        self.login[c] = "Login, click", self.login[c][1]
        assert self.expect_logins_and_watchers() == self.logins
        for number, option, told in ((a, "", "pressed F1"), (c, "--mouse ", "clicked")):
            log = f"/var/log/corvane-pfk{number}.log"
            command = f"corvane-pfk -display :{number} {option}--verbose --logfile {log}"
            assert command in self.stations.actors().values(), f"not running: {command}"
            line = f"{told} on :{number}\n"
            self.stations.wait(f"{line!r} in {log}", lambda: Path(log).read_text() == line, PATIENCE)
        return "Keys and clicks from a program", (
            f"An injector presses F1 on :{a}, another one clicks on :{c}. The login windows there have got "
            f"the key and the click, the one of :{b} nothing.")

    def disable(self):
        b = self.numbers[1]
        image = "Image disabled", f"corvane-x11-put-image :{b} {BUNDLE} disabled"
        self.stations.start(b, "disable-station", "USB")
        self.stations.expect(b, image, self.watcher[b], self.login[b])
        return "A station is disabled", (
            f"An image covers all of :{b}. Its login window and its watcher are still there, behind it.")

    def enable(self):
        b = self.numbers[1]
        self.stations.stop(b, "disable-station")
        assert self.expect_logins_and_watchers() == self.logins
        return "And enabled again", (
            f"The image of :{b} is stopped. What it covered is the same process as before.")

    def kill_login(self):
        a = self.numbers[0]
        self.killed = time.clock_gettime(time.CLOCK_BOOTTIME)
        os.kill(self.logins[a], signal.SIGKILL)
        self.stations.calls.append(f"process {self.logins[a]} is killed")
        self.stations.expect(a, self.watcher[a])
        return "A login is killed", (
            f"The login window of :{a}, process {self.logins[a]}, is gone. Its watcher and the other "
            "stations have lost nothing.")

    def restart_login(self):
        a = self.numbers[0]
        self.login[a] = "Login", self.login[a][1]
        before, self.logins = self.logins, self.expect_logins_and_watchers()
        assert [number for number in self.numbers if self.logins[number] != before[number]] == [a]
        away = start_of(self.logins[a]) - self.killed
        assert RESTART_PAUSE - 0.1 < away < RESTART_PAUSE + 2, f"the login came back after {away:.2f} s"
        return "And is back two seconds later", (
            f"The daemon has started it again as process {self.logins[a]}, {away:.1f} s after process "
            f"{before[a]} ended.")

    def stop(self):
        a, b, c = self.numbers
        for number, actors in ((a, ("local-login", "press-fkey", "xhotkey")), (b, ("local-login", "xhotkey")),
                               (c, ("remote-login", "click-mouse", "xhotkey"))):
            for actor in actors:
                self.stations.stop(number, actor)
        for number in self.numbers:
            self.stations.expect(number)
        self.stations.wait("the end of all actors", lambda: not self.stations.actors(), PATIENCE)
        self.stations.ask("--stop")
        self.stations.wait_gone(self.daemon, PATIENCE)
        assert self.stations.pid_file() is None
        return "Everything is stopped", (
            "All actors are stopped, at last the daemon. No window, actor, daemon or pid file is left.")
