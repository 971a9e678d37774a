# SPDX-License-Identifier: MIT
# transcript.py: what the daemon said since a moment, as (function, text), with the file of each function checked.
from support.place import PATH

DISPLAY_MANAGER = "plugins/display-manager/display-manager.cpp"
FILES = {
    "ccs_dbus_message_handler": "cs/plugin-registry.cpp",
    "dm_handle_dbus_message dbus_message_get_path(message)": "plugins/display-manager/dm-plugin.cpp",
    "dbus_dm_start": "plugins/display-manager/dm-dbus.cpp",
    "dbus_dm_stop": "plugins/display-manager/dm-dbus.cpp",
    "dm_start_station_thread": DISPLAY_MANAGER,
    "add_station_event": DISPLAY_MANAGER,
    "process_station_events": DISPLAY_MANAGER,
    "proc_method_start": DISPLAY_MANAGER,
    "proc_method_stop": DISPLAY_MANAGER,
    "method_start_thread": DISPLAY_MANAGER,
    "init_group_thread": DISPLAY_MANAGER,
}


def arrival(member, interface="com.corvane.ControlServer.DisplayManager", kind=1):
    """The core's line about a message for the display manager."""
    return ("ccs_dbus_message_handler",
            f"obj=/com/corvane/ControlServer/DisplayManager, interface={interface}, member={member}, type={kind}")


def unhandled(interface, member):
    """The display manager's line about a message that is not its own."""
    return ("dm_handle_dbus_message dbus_message_get_path(message)",
            f"Unhandled message: obj={interface}, intf={member}, member=")


START = arrival("Start")
STOP = arrival("Stop")


def now(machine):
    """A moment for transcript()."""
    return len(machine.log())


def transcript(machine, since=0):
    said = []
    for line in machine.log()[since:]:
        if line.function not in ("dbus_dummy_hello_world",) and f"obj={PATH}/Dummy," not in line.text:
            assert (line.file, line.level) == (FILES.get(line.function), "DEBUG"), line.raw
            said.append((line.function, line.text))
    return said


def begun(display):
    """The first line of a station's worker. It may come before or behind the next one of the bus thread."""
    return ("process_station_events", f"Thread for Display {display} started...")


def launch(actor_code, display, child, *argv):
    """What the thread of a group says at a launch."""
    words = [("method_start_thread", f"{{DM}} method_start_thread(): {word}") for word in argv]
    return words + [("method_start_thread", f"DISPLAY=:{display}, actor_code={actor_code}, child={child}")]
