# SPDX-License-Identifier: MIT
# log.py: the lines of the daemon's log.
import re

LINE = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d):(?:([\w./-]+):(\d+):([^:]*): (DEBUG|ERROR): )?(.*)")


class Line:
    """One line of the daemon's log: time, file, line number, function, level and text."""

    def __init__(self, raw):
        match = LINE.fullmatch(raw)
        assert match, f"this is no line of the log: {raw!r}"
        self.raw = raw
        self.time, self.file, self.number, self.function, self.level, self.text = match.groups()


def texts_of(output):
    """The texts of the lines that a logger wrote to a standard stream. Every line must be whole."""
    assert not output or output.endswith("\n"), repr(output)
    return [Line(raw).text for raw in output.splitlines()]
