# SPDX-License-Identifier: MIT
# stress.py: what the stress tests share: how long they last, their chance, the storm, and calls by the hundred.
import os
import random

import pytest

from support.callers import plugin_call
from support.machine import DAEMON

STORM = os.environ.get("CORVANE_STORM")
SEED = 20260817
GROUPS = {"local-login": 1, "press-fkey": 2, "xhotkey": 3}  # one actor of each group that runs a program


def size(short, long):
    """`short` for the run at every change, `long` for the endurance run (CORVANE_SOAK=1 in the environment)."""
    return long if os.environ.get("CORVANE_SOAK") == "1" else short


time_limit = pytest.mark.timeout(1400)  # for what hangs; a busy machine is no failure


def is_32_bit():
    with open(DAEMON, "rb") as file:
        return file.read(5)[4] == 1


def report(what, **figures):
    """Prints a line of figures; a run that passed shows them too."""
    print(f"\n  {what}: " + ", ".join(f"{name} {value}" for name, value in figures.items()), flush=True)


def chance():
    """Random choices that are the same in each run."""
    report("random choices", seed=SEED)
    return random.Random(SEED)


def start_in_storm(machine, delays=0, faults=0):
    """Starts bus and daemon, with so many calls in a thousand late or failing; see storm.c."""
    report("storm", seed=SEED, delays=f"{delays}/1000", faults=f"{faults}/1000")
    os.mkdir("/run/stage/storm")
    machine.start_bus()
    machine.start_daemon(environment={"LD_PRELOAD": STORM, "STORM_SEED": str(SEED), "STORM_DELAYS": str(delays),
                                      "STORM_FAULTS": str(faults)})


def start_call(display, actor):
    return plugin_call("DisplayManager", "Start", "sss", f":{display}", actor, "COMMON")


def stop_call(display, actor):
    return plugin_call("DisplayManager", "Stop", "ss", f":{display}", actor)


def make_stations(caller, count):
    """Makes the stations of the displays from 0 on, however often it takes."""
    for display in range(count):
        for _ in range(1000):
            if caller.start(f":{display}", "init-station"):
                break
        else:
            raise AssertionError(f"no station for display {display}")


def wait_count(machine, text, count, seconds=60):
    """Waits until `text` stands `count` times in the log, however large that is; says how often it does if not."""

    def counted():
        return machine.log_text().count(text)

    try:
        machine.wait(f"{count} times {text!r}", lambda: counted() >= count, seconds)
    except AssertionError:
        last = machine.log_text()[-3000:]
        raise AssertionError(f"{text!r} stands {counted()} times in the log, not {count}; its end:\n{last}") from None
