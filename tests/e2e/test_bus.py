# SPDX-License-Identifier: MIT
# test_bus.py: how the daemon comes to its connection and its name, and what it does when it does not.
import os
import resource
import signal

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call

from support.callers import CallFailed, plugin_call
from support.machine import meddled
from support.place import NAME, PATH

BEGIN = [
    "cs/corvane-cs.cpp main: Initialize DBus connection and Watches ...",
    "cs/corvane-cs.cpp main: Initialize segfault signal handler...",
]
CONNECTED = "cs/corvane-cs.cpp main: Succeeded to get System DBus connection ..."
WATCHED = [
    "cs/bus.cpp ccs_add_watch: Adding a write watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: Adding a read watch on fd 4 using newly-set watch function",
    "cs/bus.cpp ccs_add_watch: READ Watch on fd 4",
    "cs/corvane-cs.cpp main: Succeeded to set watch functions ...",
    "cs/bus.cpp ccs_request_service_name: Request service name: com.corvane.ControlServer",
]
NAMED = "cs/corvane-cs.cpp main: Succeeded to request service name ..."
FIRST_OBJECT = [
    "plugins/display-manager/dm-plugin.cpp dm_init: Initialize DisplayManager plugin",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/DisplayManager",
]
SECOND_OBJECT = [
    "plugins/dummy/dummy-plugin.cpp dummy_init: Initialize Dummy plugin()",
    "cs/plugin-registry.cpp ccs_register_objects: path=/com/corvane/ControlServer/Dummy",
]
GIVEN_UP = [
    "plugins/display-manager/dm-plugin.cpp dm_fin: Finalize DisplayManager plugin",
    "plugins/dummy/dummy-plugin.cpp dummy_fin: Finalize Dummy plugin()",
]
DUMMY = DBusAddress(f"{PATH}/Dummy", bus_name=NAME, interface="org.freedesktop.DBus.Peer")
INTERRUPTED = "cs/corvane-cs.cpp main: {II} Timeout or error occurrs during select() ..."
REMOVAL = "cs/bus.cpp ccs_toggle_watch: {II} ccs_toggle_watch()"
TOGGLE = "cs/bus.cpp ccs_remove_watch: {II} ccs_remove_watch()"


def assert_given_up(process, machine, lines):
    """The process ended with 1, wrote nothing but the lines into its log, and every plugin was finalised."""
    assert process.communicate(timeout=10) == ("", "")
    assert process.returncode == 1
    assert machine.told() == lines + GIVEN_UP


def ask_bus(caller, member, signature=None, *arguments):
    address = DBusAddress("/org/freedesktop/DBus", bus_name="org.freedesktop.DBus", interface="org.freedesktop.DBus")
    return caller.ask(new_method_call(address, member, signature, arguments))[0]


def take_name(caller, flags):
    return ask_bus(caller, "RequestName", "su", NAME, flags)


def queued(caller):
    """Unique names of whoever owns or awaits the daemon's name, the owner first."""
    try:
        return ask_bus(caller, "ListQueuedOwners", "s", NAME)
    except CallFailed:
        return []


def hello_to(caller, owner):
    message = plugin_call("Dummy", "HelloWorld")
    message.header.fields[HeaderFields.destination] = owner
    return caller.ask(message)[0]


# ---- no bus ----


@pytest.mark.parametrize("address, reason", [
    ("", "Unable to autolaunch a dbus-daemon without a $DISPLAY for X11"),
    ("garbage", "Address does not contain a colon"),
    ("unix:path=/run/stage/nothing", "Failed to connect to socket /run/stage/nothing: No such file or directory"),
    ("pigeon:coop=3", "Could not parse server address: Unknown address type "
                      '(examples of valid types are "tcp" and on UNIX "unix")'),
])
def test_without_a_bus_the_daemon_says_why_and_gives_up(bare, address, reason):
    bare.address = address
    environment = {name: "" for name in ("DISPLAY", "XDG_RUNTIME_DIR")}
    process = bare.launch(environment=dict(environment, DBUS_SESSION_BUS_ADDRESS=address))
    assert_given_up(process, bare, BEGIN + [
        f"cs/bus.cpp ccs_get_system_conn: {{EE}}Failed to connect system DBus: {reason}"])


def test_without_a_bus_a_started_daemon_gives_up_and_leaves_its_pid_file(bare):
    assert bare.daemonise("--start").returncode == 0
    bare.wait_log(r"Finalize Dummy plugin\(\)")
    bare.wait_gone(int(bare.pid_file()))
    assert bare.terminal() == ""


def test_no_connection_without_an_error_is_given_up_without_a_message(bare):
    bare.start_bus()
    assert_given_up(bare.launch(environment=meddled("get=nothing")), bare, BEGIN)


def test_the_bus_library_is_prepared_for_threads_before_there_is_a_connection(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("get=prepared"))
    assert bare.caller().hello() == "How are you?"


def test_a_connection_that_cannot_be_watched_is_given_up(bare):
    bare.start_bus()
    assert_given_up(bare.launch(environment=meddled("set_watch_functions=fail")), bare, BEGIN + [
        CONNECTED, "cs/bus.cpp ccs_set_watch_functions: dbus_connection_set_watch_functions(): (null)"])


def test_a_bus_library_that_adds_no_watch_would_make_the_daemon_deaf_and_is_fatal(bare):
    bare.start_bus()
    process = bare.launch(environment=meddled("set_watch_functions=none"))
    assert_given_up(process, bare, BEGIN + [CONNECTED] + WATCHED[-2:] + [NAMED] + FIRST_OBJECT + SECOND_OBJECT + [
        "cs/corvane-cs.cpp main: Succeeded to register objects ...",
        "cs/bus.cpp ccs_build_read_set: {EE} Watch on fd -1 is beyond what select() can hold"])


@pytest.mark.parametrize("nth, objects", [(1, FIRST_OBJECT), (2, FIRST_OBJECT + SECOND_OBJECT)])
def test_an_object_that_cannot_be_registered_is_given_up(bare, nth, objects):
    bare.start_bus()
    process = bare.launch(environment=meddled(f"register_object_path={nth}"))
    assert_given_up(process, bare, BEGIN + [CONNECTED] + WATCHED + [NAMED] + objects + [
        "cs/plugin-registry.cpp ccs_register_objects: {EE}dbus_connection_register_object_path(): (null)"])


def test_both_objects_are_registered_with_the_same_functions(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("register_object_path=try"))
    with open("/run/stage/functions") as file:
        first, second = file.readlines()
    assert first == second
    # The functions for the end and for messages are there, and nothing is in the four places behind them.
    assert first.partition(": ")[2] == "1 1, 0\n"
    assert bare.told().count("cs/plugin-registry.cpp ccs_object_unregister: {II}") == 2
    assert bare.caller().hello() == "How are you?"


# ---- the name ----


def test_a_name_that_the_bus_refuses_is_given_up(bare):
    with open("/run/stage/bus.conf", "w") as file:
        file.write('<busconfig><type>session</type><listen>unix:path=/run/stage/bus</listen><policy context="default">'
                   '<allow user="*"/><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>'
                   f'<deny own="{NAME}"/></policy></busconfig>')
    bare.start_bus("--config-file=/run/stage/bus.conf")
    assert_given_up(bare.launch(), bare, BEGIN + [CONNECTED] + WATCHED + [
        'cs/bus.cpp ccs_request_service_name: {EE} dbus_bus_request_name(): Connection ":1.0" is not allowed to own '
        'the service "com.corvane.ControlServer" due to security policies in the configuration file'])


def test_a_name_of_somebody_else_is_awaited_and_then_served(bare):
    bare.start_bus()
    owner, caller = bare.caller(), bare.caller()
    assert take_name(owner, 0) == 1
    bare.start_daemon()
    first, second = queued(caller)
    assert first == owner.connection.unique_name
    assert hello_to(caller, second) == "How are you?"
    owner.close()
    bare.wait("the daemon to own its name", lambda: queued(caller) == [second])
    assert caller.hello() == "How are you?"


def test_a_name_that_somebody_gives_up_for_others_is_taken(bare):
    bare.start_bus()
    owner, caller = bare.caller(), bare.caller()
    assert take_name(owner, 1) == 1  # may be replaced
    bare.start_daemon()
    assert queued(caller)[0] != owner.connection.unique_name
    assert caller.hello() == "How are you?"


def test_nobody_can_take_the_name_from_the_daemon(machine):
    rival, caller = machine.caller(), machine.caller()
    assert take_name(rival, 2) == 2  # wants to replace, and has to wait
    assert queued(caller)[1] == rival.connection.unique_name
    assert caller.hello() == "How are you?"


def test_a_second_daemon_serves_when_the_first_is_gone(bare):
    bare.start_bus()
    first = bare.start_daemon()
    caller = bare.caller()
    (owner,) = queued(caller)
    second = bare.launch()
    bare.wait("the second daemon to queue", lambda: len(queued(caller)) == 2)
    bare.daemon = second
    first.kill()
    first.communicate()
    bare.wait("the second daemon to own the name", lambda: queued(caller)[0] != owner)
    assert caller.hello() == "How are you?"


# ---- the main loop ----


def test_calls_that_arrive_during_the_start_are_all_served_and_wait_for_no_other_message(bare):
    bare.start_bus()
    caller = bare.caller()
    known = set(ask_bus(caller, "ListNames"))
    daemon = bare.daemon = bare.launch(environment=meddled("request_name=gate"))
    bare.wait("the daemon to ask for its name", lambda: os.path.exists("/run/stage/gate"))
    (unique,) = set(ask_bus(caller, "ListNames")) - known
    message = plugin_call("Dummy", "HelloWorld")
    message.header.fields[HeaderFields.destination] = unique
    for _ in range(12):
        caller.send(message)
    ask_bus(caller, "GetId")  # the bus has passed the calls on
    os.unlink("/run/stage/gate")
    answers = []
    while len(answers) < 12:
        reply = caller.connection.receive(timeout=10)
        if reply.header.message_type in (MessageType.method_return, MessageType.error):
            answers.append(reply.body[0])
    assert answers == ["How are you?"] * 12
    assert bare.texts().count("{DUMMY} dbus_dummy_hello_world: HelloWorld") == 12
    assert daemon.poll() is None


def test_an_interrupted_wait_is_logged_and_waited_again(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("select=interrupt"))
    bare.wait_log(r"\{II\} Timeout")
    assert bare.caller().hello() == "How are you?"
    assert bare.told().count(INTERRUPTED) == 1
    assert bare.told()[-3] == INTERRUPTED


def wait_for_wait(machine, nth):
    machine.wait(f"the daemon to wait for the {nth}th time", lambda: os.path.exists(f"/run/stage/wait.{nth}"))


def waits():
    with open("/run/stage/waits") as file:
        return file.read()


def test_a_wait_for_nothing_is_logged_and_waited_again(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("select=nothing"))
    wait_for_wait(bare, 2)
    assert not os.path.exists("/run/stage/handled")
    assert bare.told()[-1] == INTERRUPTED
    assert bare.caller().hello() == "How are you?"
    assert bare.told().count(INTERRUPTED) == 1


def test_a_wait_that_ends_for_another_descriptor_is_waited_again_without_a_word(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("select=other"))
    wait_for_wait(bare, 2)
    assert not os.path.exists("/run/stage/handled")
    assert bare.told()[-1] == "cs/corvane-cs.cpp main: Start mainloop ..."
    assert bare.caller().hello() == "How are you?"
    assert os.path.exists("/run/stage/handled")


def test_a_wait_is_for_one_readable_descriptor_and_for_nothing_else(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("select=nothing"))
    caller = bare.caller()
    for _ in range(3):
        assert caller.hello() == "How are you?"
    wait_for_wait(bare, 3)
    assert "cs/bus.cpp ccs_add_watch: READ Watch on fd 4" in bare.told()
    assert waits() == "count 5, 0 other arguments, bits 4\n"


def test_a_readable_watch_that_comes_late_is_kept_but_neither_waited_for_nor_handled(bare):
    bare.start_bus()
    bare.start_daemon(environment=meddled("select=late"))
    caller = bare.caller()
    caller.send(plugin_call("Dummy", "HelloWorld"))
    wait_for_wait(bare, 3)  # what came is never read, so no wait lasts
    _, late = bare.wait_log(r"READ Watch on fd (\d+)$", 2)
    assert int(late[1]) > 4
    assert waits() == "count 5, 0 other arguments, bits 4\n"
    assert not os.path.exists("/run/stage/handled")
    assert "HelloWorld" not in bare.log_text()
    assert INTERRUPTED not in bare.told()


def test_a_stopped_and_continued_daemon_serves_what_came_meanwhile(machine):
    caller = machine.caller()
    machine.daemon.send_signal(signal.SIGSTOP)
    for _ in range(50):
        caller.send(plugin_call("Dummy", "HelloWorld"))
    ask_bus(caller, "GetId")
    machine.daemon.send_signal(signal.SIGCONT)
    for _ in range(50):
        assert caller.connection.receive(timeout=10).body == ("How are you?",)


MOST_OPEN = resource.getrlimit(resource.RLIMIT_NOFILE)[1]


def needs_descriptors(count):
    return pytest.mark.skipif(MOST_OPEN < count, reason=f"a process may not open {count} descriptors")


def open_below(limit):
    """For preexec_fn: opens every descriptor below the limit, to be left open for the daemon."""

    def prepare():
        most = min(MOST_OPEN, 2048)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        for descriptor in range(3, limit):
            os.dup2(0, descriptor)

    return {"preexec_fn": prepare, "close_fds": False}


@needs_descriptors(1024)
def test_the_last_descriptor_that_select_can_hold_is_served(bare):
    bare.start_bus()
    bare.start_daemon(**open_below(1022))
    assert "cs/bus.cpp ccs_add_watch: READ Watch on fd 1023" in bare.told()
    assert bare.caller().hello() == "How are you?"


@needs_descriptors(1025)
def test_a_descriptor_that_select_cannot_hold_is_given_up(bare):
    bare.start_bus()
    process = bare.launch(**open_below(1023))
    watched = [line.replace("on fd 4", "on fd 1024") for line in WATCHED]
    assert_given_up(process, bare, BEGIN + [CONNECTED] + watched + [NAMED] + FIRST_OBJECT + SECOND_OBJECT + [
        "cs/corvane-cs.cpp main: Succeeded to register objects ...",
        "cs/bus.cpp ccs_build_read_set: {EE} Watch on fd 1024 is beyond what select() can hold"])


@pytest.mark.parametrize("call, answer", [
    (plugin_call("Dummy", "HelloWorld"), ("How are you?",)),
    (new_method_call(DUMMY, "Ping"), ()),
    (plugin_call("Dummy", "GoodbyeWorld"),
     ('Method "GoodbyeWorld" with signature "" on interface "com.corvane.ControlServer.Dummy" doesn\'t exist\n',)),
    (plugin_call("DisplayManager", "Start", "ss", ":1", "xhotkey"),
     ('Method "Start" with signature "ss" on interface "com.corvane.ControlServer.DisplayManager" doesn\'t exist\n',)),
], ids=["a plugin's", "the library's", "an unknown method's", "an unreadable call's"])
def test_answers_wait_for_a_bus_that_is_slow_and_none_is_lost(bare, call, answer):
    bare.start_bus()
    daemon = bare.start_daemon(environment=meddled("connect=narrow"))
    caller = bare.caller()
    daemon.send_signal(signal.SIGSTOP)
    for _ in range(100):
        caller.send(call)
    ask_bus(caller, "GetId")
    bare.bus.send_signal(signal.SIGSTOP)
    daemon.send_signal(signal.SIGCONT)
    bare.wait_log(r"\{II\} ccs_remove_watch\(\)")  # the writable side is waited for: a toggle
    assert TOGGLE in bare.told()
    bare.bus.send_signal(signal.SIGCONT)
    for _ in range(100):
        assert caller.connection.receive(timeout=10).body == answer


def test_when_the_bus_is_gone_the_daemon_ends_with_1_and_both_watches_are_removed(machine):
    since = len(machine.told())
    machine.bus.kill()
    assert machine.daemon.wait(5) == 1
    assert machine.told()[since:] == [REMOVAL, REMOVAL]
