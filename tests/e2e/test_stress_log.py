# SPDX-License-Identifier: MIT
# test_stress_log.py: every line of the log is whole, with many threads and very long lines.
import re
from itertools import cycle

from stress import GROUPS, chance, make_stations, report, size, time_limit
from support.callers import start_call, stop_call
from support.place import LOG

pytestmark = time_limit
STATIONS = 16
WHOLE = re.compile(
    r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:(?:cs|plugins)/[\w./-]+\.cpp:\d+:"
    r"(?:\w+|dm_handle_dbus_message dbus_message_get_path\(message\)): DEBUG: (?!.*\d\d:\d\d:\d\d:).+"
)


def long_text(choice):
    """A text shorter or longer than the buffer of a stream (4,096 bytes), but no display."""
    return f"<{'x' * choice.choice([10, 200, 4000, 4096, 9000, 70000])}>"


def test_all_lines_are_whole_while_sixteen_stations_start_and_stop(machine):
    machine.behave("corvane-xh", "exit 0")
    callers = [machine.caller() for _ in range(3)]
    make_stations(callers[0], STATIONS)
    choice = chance()
    rounds = size(12, 150)
    long_texts = []
    displays = cycle(range(STATIONS))
    for _ in range(rounds):
        sent = []
        for caller in callers:
            calls = []
            for _ in range(STATIONS):
                display, actor = f":{next(displays)}", choice.choice(list(GROUPS))
                calls += [start_call(display, actor), stop_call(display, actor)]
            text = long_text(choice)
            long_texts.append(text)
            calls.append(start_call(text, "xhotkey"))
            sent.append(caller.send_all(calls))
        for caller, serials in zip(callers, sent):
            assert caller.replies(serials)[-1] == (False,)
    machine.wait_log("keep_alive field is FALSE|has been started", rounds)
    machine.daemon.kill()  # no thread may write while the test counts the lines
    machine.daemon.wait()
    with open(LOG) as file:
        lines = [line for line in file.read().split("\n")[:-1] if line]
    torn = [line for line in lines if not WHOLE.fullmatch(line)]
    report("lines", written=len(lines), torn=len(torn), percent_torn=f"{100 * len(torn) / len(lines):.2f}")
    assert torn == []
    logged = [line.partition("DEBUG: ")[2] for line in lines if "Invalid DISPLAY" in line]
    assert sorted(logged) == sorted(f"{{DM}} Invalid DISPLAY value : {text}" for text in long_texts)
