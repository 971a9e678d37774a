# SPDX-License-Identifier: MIT
# transcript.py: the lines that the daemon logged since a moment, as (function, text).
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
    """The core's line for a message to the display manager."""
    return (
        "ccs_dbus_message_handler",
        f"obj=/com/corvane/ControlServer/DisplayManager, interface={interface}, member={member}, type={kind}",
    )


def unhandled(interface, member):
    """The display manager's line for a message that it does not handle."""
    return (
        "dm_handle_dbus_message dbus_message_get_path(message)",
        f"Unhandled message: obj={interface}, intf={member}, member=",
    )


SET_UP = [
    "cs/corvane-cs.cpp main: Initialize DBus connection and Watches ...",
    "cs/corvane-cs.cpp main: Initialize segfault signal handler...",
    "cs/corvane-cs.cpp main: Succeeded to get System DBus connection ...",
    "cs/bus.cpp ccs_add_watch: Adding a write watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: Adding a read watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: READ Watch on fd 4",
    "cs/corvane-cs.cpp main: Succeeded to set watch functions ...",
    "cs/bus.cpp ccs_request_service_name: Request service name: com.corvane.ControlServer",
    "cs/corvane-cs.cpp main: Succeeded to request service name ...",
    "plugins/display-manager/dm-plugin.cpp dm_init: Initialize DisplayManager plugin",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/DisplayManager",
    "plugins/dummy/dummy-plugin.cpp dummy_init: Initialize Dummy plugin()",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/Dummy",
    "cs/corvane-cs.cpp main: Succeeded to register objects ...",
    "cs/corvane-cs.cpp main: Start mainloop ...",
]
START = arrival("Start")
STOP = arrival("Stop")


def set_up_to(end):
    """The lines of the set-up, up to the one that ends with this text."""
    (last,) = [number for number, line in enumerate(SET_UP) if line.endswith(end)]
    return SET_UP[: last + 1]


def now(machine):
    """A moment for transcript()."""
    return len(machine.log())


def transcript(machine, since):
    """The lines, without those of the Dummy plugin. Each line must name the source file of its function."""
    lines = []
    for line in machine.log()[since:]:
        if line.function != "dbus_dummy_hello_world" and f"obj={PATH}/Dummy," not in line.text:
            assert (line.file, line.level) == (FILES.get(line.function), "DEBUG"), line.raw
            lines.append((line.function, line.text))
    return lines


def begun(display):
    """The first line of a station's worker. It may come before or after the bus thread's next line."""
    return ("process_station_events", f"Thread for Display {display} started...")


def launch(actor_code, display, child, *argv):
    """The lines of a group's thread for a launch."""
    words = [("method_start_thread", f"{{DM}} method_start_thread(): {word}") for word in argv]
    return words + [("method_start_thread", f"DISPLAY=:{display}, actor_code={actor_code}, child={child}")]
