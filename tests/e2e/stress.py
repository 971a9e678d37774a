# SPDX-License-Identifier: MIT
# stress.py: what the stress tests share: their length, random choices and reports.
import os
import random

import pytest

from support.machine import DAEMON

SEED = 20260817
GROUPS = {"local-login": 1, "press-fkey": 2, "xhotkey": 3}  # one actor of each group that runs a program


def size(short, long):
    """Returns `long` if CORVANE_SOAK=1 is in the environment, else `short`."""
    return long if os.environ.get("CORVANE_SOAK") == "1" else short


time_limit = pytest.mark.timeout(1400)  # only a test that hangs reaches it; a busy machine does not


def is_32_bit():
    with open(DAEMON, "rb") as file:
        return file.read(5)[4] == 1


def report(what, **figures):
    """Prints a line of figures, also when the test passes."""
    print(f"\n  {what}: " + ", ".join(f"{name} {value}" for name, value in figures.items()), flush=True)


def chance():
    """Returns random choices that are the same in each run."""
    report("random choices", seed=SEED)
    return random.Random(SEED)


def make_stations(caller, count):
    """Makes the stations of the displays from 0 on. In a storm this can take several calls."""
    for display in range(count):
        for _ in range(1000):
            if caller.start(f":{display}", "init-station"):
                break
        else:
            raise AssertionError(f"no station for display {display}")
