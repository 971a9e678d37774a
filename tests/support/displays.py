# SPDX-License-Identifier: MIT
# displays.py: three stations with their own X servers, for the demonstration and the end-to-end tests.
#
# It checks the windows of each display, the pixels of its screen and the process table, and raises
# AssertionError if one is not as expected. It needs private-machine --displays. The environment names the
# executables of the daemon and of corvane-ctl (CORVANE_BIN and CORVANE_CTL) and the directory of the actors
# (CORVANE_ACTORS).
import io
import os
import re
import subprocess
from pathlib import Path
from typing import NamedTuple

from PIL import Image, ImageDraw, ImageFont
from Xlib import X, XK, Xatom, display, error
from Xlib.ext import xtest

from support.log import Line
from support.machine import Machine
from support.place import IMAGES, PROGRAMS, STAGE
from support.processes import descendants

BUNDLE = f"{IMAGES}/images/kva-images.bundle"
UNITS = (640, 360)  # the actors divide a screen of any size into these units
BLACK, RED, GREEN, INK, PALE = (0, 0, 0), (176, 24, 32), (0, 153, 51), (34, 42, 56), (230, 232, 240)
BACKGROUNDS = {0: (13, 107, 107), 1: (40, 80, 140), 2: (107, 58, 128)}  # logins, by display modulo 3
PATIENCE = 30  # seconds, the longest time for anything on a busy machine


def font(size, style=""):
    return ImageFont.truetype(f"/usr/share/fonts/truetype/dejavu/DejaVuSans{style}.ttf", size)


def make_bundle():
    """Writes the bundle that the daemon names: a line with name and size, then a PNG file, for each image."""
    disabled = Image.new("RGB", (1280, 720), RED)
    draw = ImageDraw.Draw(disabled)
    draw.ellipse((500, 80, 780, 360), "white")
    draw.rectangle((540, 196, 740, 244), RED)
    draw.text((640, 480), "Station disabled", "white", font(100, "-Bold"), "mm")
    draw.text((640, 600), "Please ask the attendant", "white", font(60), "mm")
    assert not os.path.lexists(IMAGES), f"{IMAGES} exists, but the stations need this path"
    os.makedirs(f"{STAGE}/share/images")
    os.symlink(f"{STAGE}/share", IMAGES)
    with open(BUNDLE, "wb") as bundle:
        for name, image in (("blank", Image.new("RGB", (8, 8), "white")), ("disabled", disabled)):
            png = io.BytesIO()
            image.save(png, "PNG")
            bundle.write(b"%s %d\n%s" % (name.encode(), len(png.getvalue()), png.getvalue()))


class Window(NamedTuple):
    title: str
    pid: int


class Screen:
    """A display with its own X server, and a connection to it."""

    def __init__(self, number, command):
        self.number = number
        self.command = command
        self.open()

    def open(self):
        """Starts the server and waits until it writes its display number, which means that it is ready."""
        ready, tell = os.pipe()
        self.server = subprocess.Popen(
            [*self.command, f":{self.number}", "-displayfd", str(tell)],
            pass_fds=[tell],
            stdin=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        os.close(tell)
        with os.fdopen(ready) as text:
            assert text.readline() == f"{self.number}\n", f"no X server for display :{self.number}"
        self.display = display.Display(f":{self.number}")
        self.root = self.display.screen().root

    def close(self):
        self.server.terminate()
        self.server.wait()

    def windows(self):
        """The visible windows, the topmost first; None if one has just been closed."""
        pid = self.display.get_atom("_NET_WM_PID")
        try:
            shown = [
                window
                for window in reversed(self.root.query_tree().children)
                if window.get_attributes().map_state == X.IsViewable
            ]
            return [
                Window(window.get_wm_name(), window.get_full_property(pid, Xatom.CARDINAL).value[0])
                for window in shown
            ]
        except error.BadWindow:
            return None

    def picture(self):
        size = self.root.get_geometry()
        image = self.root.get_image(0, 0, size.width, size.height, X.ZPixmap, 0xFFFFFFFF)
        return Image.frombytes("RGB", (size.width, size.height), image.data, "raw", "BGRX")

    def press(self, key):
        """Presses and releases a key of the station."""
        code = self.display.keysym_to_keycode(XK.string_to_keysym(key))
        for event in (X.KeyPress, X.KeyRelease):
            xtest.fake_input(self.display, event, code)
        self.display.sync()


def pixels(number, titles):
    """The expected colours of a display with these windows: (x, y) in units -> colour."""
    if "Image disabled" in titles[:1]:
        return {(10, 10): RED, (320, 350): RED, (320, 60): (255, 255, 255)}
    login = next((title for title in titles if title.startswith("Login")), None)
    watcher = next((title for title in titles if title.startswith("Hot key")), None)
    background = BACKGROUNDS[number % 3] if login else BLACK
    field = (GREEN if "," in login else PALE) if login else BLACK
    badge = (GREEN if "," in watcher else INK) if watcher else background
    return {(10, 10): background, (630, 350): background, (190, 178): field, (130, 305): badge}


def colours(picture, places):
    return {
        (x, y): picture.getpixel((x * picture.width // UNITS[0], y * picture.height // UNITS[1]))
        for x, y in places
    }


class Stage(NamedTuple):
    """One stage of the story. Everything in it has been checked."""

    title: str
    text: str
    calls: list  # the calls to the daemon, as text
    pictures: dict  # display -> its screen
    log: list  # the lines that the daemon logged since the last stage
    status: list  # the output of corvane-ctl status


class Stations(Machine):
    """A machine with three displays, the actors of the demonstration and the image bundle."""

    def __init__(self, session=None):
        """`session` is the name of a display. If it is given, the stations are windows there."""
        super().__init__()
        make_bundle()
        self.calls = []
        self.end_of_stage = 0  # the size of the log at the last stage
        self.titles = {}  # display -> the windows that it was last expected to have
        taken = int(re.match(r".*:(\d+)", session)[1]) if session else 0
        numbers = [number for number in (1, 2, 3, 4) if number != taken][:3]
        self.screens = {number: Screen(number, self.server(number, session)) for number in numbers}

    def install(self, program):
        os.symlink(Path(os.environ["CORVANE_ACTORS"]).resolve() / program, f"/run/stage/actors/bin/{program}")

    @staticmethod
    def server(number, session):
        if not session:
            return ["Xvfb", "-noreset", "-screen", "0", f"{UNITS[0]}x{UNITS[1]}x24"]
        width = min(UNITS[0], display.Display(session).screen().width_in_pixels // 3 - 12)
        height = width * UNITS[1] // UNITS[0]
        place = f"{width}x{height}+{(number - 1) % 3 * (width + 12)}+40"
        return ["Xephyr", "-noreset", "-title", f"Station :{number}", "-screen", place]

    # ---- actions ----

    def serve(self):
        """Starts the bus and, in the background, the daemon."""
        self.start_bus("--session", "--syslog-only")  # it logs limits that it does not need
        assert self.daemonise("--start").returncode == 0, self.terminal()
        self.wait_log(r"Start mainloop \.\.\.", seconds=PATIENCE)
        self.bus_caller = self.caller()

    def ask(self, option):
        """Runs the daemon's executable with an option; returns the output."""
        process = self.run(option)
        assert process.returncode == 0, f"corvane-cs {option}: {process.stderr}"
        return process.stdout

    def start(self, number, actor, station_type):
        assert self.bus_caller.start(f":{number}", actor, station_type) is True
        self.calls.append(f"Start(':{number}', '{actor}', '{station_type}')")

    def stop(self, number, actor):
        assert self.bus_caller.stop(f":{number}", actor) is True
        self.calls.append(f"Stop(':{number}', '{actor}')")

    def press(self, number, key):
        self.screens[number].press(key)
        self.calls.append(f"key {key} is typed on :{number}")

    # ---- observations ----

    def actors(self):
        """The running actors: pid -> command line."""
        running = {}
        for pid in descendants():
            try:
                words = Path(f"/proc/{pid}/cmdline").read_text().split("\0")[:-1]
            except (FileNotFoundError, ProcessLookupError):
                continue
            if words and words[0] in PROGRAMS:
                running[pid] = " ".join(words)
        return running

    def expect(self, number, *commands):
        """Waits until exactly these (title, command) are the windows of a display, the topmost first.

        Each must belong to a process with this command line, and the screen must have the right colours.
        Returns the pids in the same order.
        """
        screen = self.screens[number]
        titles = self.titles[number] = [title for title, _ in commands]
        expected = (list(commands), pixels(number, titles))
        seen, pids = None, []

        def is_as_expected():
            nonlocal seen
            windows, running, picture = screen.windows(), self.actors(), screen.picture()
            if windows is None:
                return False
            seen = (
                [(window.title, running.get(window.pid)) for window in windows],
                colours(picture, expected[1]),
            )
            pids[:] = [window.pid for window in windows]
            return seen == expected

        try:
            self.wait(f"{titles} on :{number}", is_as_expected, PATIENCE)
        except AssertionError as failure:
            raise AssertionError(f"{failure}\n:{number} shows: {seen}\nexpected: {expected}") from None
        return pids

    def stage(self, title, text):
        """Returns the current stage of the story. Its pictures show the windows that were expected last."""
        pictures = {number: screen.picture() for number, screen in self.screens.items()}
        for number, picture in pictures.items():
            expected = pixels(number, self.titles[number])
            assert colours(picture, expected) == expected, f"the picture of :{number} has other colours"
        text_of_log = self.log_text()
        begin, end = self.end_of_stage, text_of_log.rfind("\n") + 1
        log = [Line(raw) for raw in text_of_log[begin:end].splitlines() if raw]
        self.end_of_stage = end
        calls, self.calls = self.calls, []
        status = subprocess.run(
            [os.environ["CORVANE_CTL"], "--bus", self.address, "status"], capture_output=True, text=True
        )
        assert status.returncode in (0, 3), status  # 3: the daemon does not run
        return Stage(
            title,
            text,
            calls,
            pictures,
            [f"{line.time[11:]}  {line.text}" for line in log],
            (status.stdout or status.stderr).splitlines(),
        )

    # ---- the end ----

    def clean(self):
        """Terminates the X servers first, because a killed X server leaves its socket."""
        for screen in self.screens.values():
            screen.close()
        super().clean()
