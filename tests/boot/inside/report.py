# SPDX-License-Identifier: MIT
# report.py: the list of checks, and the lines that say what came of them.
#
# A check is a function with a sentence for its name. It returns None or the figure it measured, and raises
# Seen when the machine does not do what the sentence says. Its line goes to the second serial port at once,
# so that nothing that happens to the machine later can lose it.
import traceback

PORT = "/dev/ttyS1"


class Seen(Exception):
    """What was seen instead of what the check's name says."""


class Check:
    def __init__(self, sentence, function, init):
        self.sentence = sentence
        self.function = function
        self.init = init  # the only one it is for, or None

    def is_for(self, init):
        return self.init in (None, init)


def check(sentence, init=None):
    """Makes a check of a function, and adds it to the list `checks` of the function's module."""
    def add(function):
        function.__globals__.setdefault("checks", []).append(Check(sentence, function, init))
        return function
    return add


def expect(condition, *seen):
    """seen: what the condition was read from; callables are asked only when it is false."""
    if not condition:
        raise Seen("\n".join(str(part() if callable(part) else part) for part in seen))


def say(text):
    with open(PORT, "w", encoding="utf-8") as port:
        port.write(text + "\n")


def perform(one, prepare, explain):
    """Runs the check one, and says what came of it; explain() adds to what a failed one has seen."""
    try:
        prepare()
        figure = one.function()
        say(f"ok      {one.sentence}" + (f" ({figure})" if figure else ""))
    except Exception as error:
        seen = str(error) if isinstance(error, Seen) else traceback.format_exc()
        lines = [line for line in f"{seen}\n{explain()}".splitlines() if line.strip()]
        say("\n        ".join([f"FAILED  {one.sentence}", *lines]))
