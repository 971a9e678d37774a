# SPDX-License-Identifier: MIT
# report.py: the list of checks, and the lines with their results.
#
# A check is a function whose name is a sentence. It returns None or the figure that it measured, and raises
# Seen if the machine does something else. Its line goes to the second serial port at once, so that nothing
# that happens to the machine later can lose it.
import traceback

PORT = "/dev/ttyS1"


class Seen(Exception):
    """Observations that contradict the sentence of a check."""


class Check:
    def __init__(self, sentence, function, init):
        self.sentence = sentence
        self.function = function
        self.init = init  # the only init that it is for, or None

    def is_for(self, init):
        return self.init in (None, init)


def check(sentence, init=None):
    """Turns a function into a check, and adds it to the list `checks` of the function's module."""

    def add(function):
        function.__globals__.setdefault("checks", []).append(Check(sentence, function, init))
        return function

    return add


def expect(condition, *seen):
    """seen: observations for the report; callables are called only if the condition is false."""
    if not condition:
        raise Seen("\n".join(str(part() if callable(part) else part) for part in seen))


def say(text):
    with open(PORT, "w", encoding="utf-8") as port:
        port.write(text + "\n")


def perform(one, prepare, explain):
    """Runs the check one and reports its result; explain() adds observations to a failure."""
    try:
        prepare()
        figure = one.function()
        say(f"ok      {one.sentence}" + (f" ({figure})" if figure else ""))
    except Exception as error:
        seen = str(error) if isinstance(error, Seen) else traceback.format_exc()
        lines = [line for line in f"{seen}\n{explain()}".splitlines() if line.strip()]
        say("\n        ".join([f"FAILED  {one.sentence}", *lines]))
