# SPDX-License-Identifier: MIT
# log.py: the lines of the daemon's log.
import re

LINE = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d):(?:([\w./-]+):(\d+):([^:]*): (DEBUG|ERROR): )?(.*)")


class Line:
    """One line of the daemon's log: time, file, number, function, level, text."""

    def __init__(self, raw):
        match = LINE.fullmatch(raw)
        assert match, f"not a line of the log: {raw!r}"
        self.raw = raw
        self.time, self.file, self.number, self.function, self.level, self.text = match.groups()


def texts_of(output):
    """The texts of what a logger on a standard stream wrote: whole lines, each after the time."""
    assert not output or output.endswith("\n"), repr(output)
    return [Line(raw).text for raw in output.splitlines()]
