# SPDX-License-Identifier: MIT
# test_bus.py: how the daemon gets its connection and its name, waits for messages, and handles failures.
import os
import resource
import signal

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call

from support.callers import CallFailed, plugin_call
from support.place import NAME, PATH
from transcript import set_up_to

GIVEN_UP = [
    "plugins/display-manager/dm-plugin.cpp dm_fin: Finalize DisplayManager plugin",
    "plugins/dummy/dummy-plugin.cpp dummy_fin: Finalize Dummy plugin()",
]
DUMMY = DBusAddress(f"{PATH}/Dummy", bus_name=NAME, interface="org.freedesktop.DBus.Peer")
INTERRUPTED = "cs/corvane-cs.cpp main: {II} Timeout or error occurrs during select() ..."
REMOVAL = "cs/bus.cpp ccs_toggle_watch: {II} ccs_toggle_watch()"
TOGGLE = "cs/bus.cpp ccs_remove_watch: {II} ccs_remove_watch()"


def assert_given_up(process, machine, lines):
    """The process exits with 1, its log has exactly these lines, and every plugin is finalised."""
    assert process.communicate(timeout=10) == ("", "")
    assert process.returncode == 1
    assert machine.logged() == lines + GIVEN_UP


def ask_bus(caller, member, signature=None, *arguments):
    address = DBusAddress(
        "/org/freedesktop/DBus", bus_name="org.freedesktop.DBus", interface="org.freedesktop.DBus"
    )
    return caller.ask(new_method_call(address, member, signature, arguments))[0]


def take_name(caller, flags):
    return ask_bus(caller, "RequestName", "su", NAME, flags)


def queued(caller):
    """The unique names in the queue for the daemon's name. The first one owns the name."""
    try:
        return ask_bus(caller, "ListQueuedOwners", "s", NAME)
    except CallFailed:
        return []


def hello_to(caller, owner):
    message = plugin_call("Dummy", "HelloWorld")
    message.header.fields[HeaderFields.destination] = owner
    return caller.ask(message)[0]


# ---- no bus ----


@pytest.mark.parametrize(
    "address, reason",
    [
        ("", "Unable to autolaunch a dbus-daemon without a $DISPLAY for X11"),
        ("garbage", "Address does not contain a colon"),
        (
            "unix:path=/run/stage/nothing",
            "Failed to connect to socket /run/stage/nothing: No such file or directory",
        ),
        (
            "pigeon:coop=3",
            "Could not parse server address: Unknown address type "
            '(examples of valid types are "tcp" and on UNIX "unix")',
        ),
    ],
)
def test_without_a_bus_the_daemon_logs_the_reason_and_exits(bare, address, reason):
    bare.address = address
    environment = {name: "" for name in ("DISPLAY", "XDG_RUNTIME_DIR")}
    process = bare.launch(environment=dict(environment, DBUS_SESSION_BUS_ADDRESS=address))
    failure = f"cs/bus.cpp ccs_get_system_conn: {{EE}}Failed to connect system DBus: {reason}"
    assert_given_up(process, bare, [*set_up_to("segfault signal handler..."), failure])


def test_a_background_daemon_without_a_bus_exits_and_leaves_its_pid_file(bare):
    assert bare.daemonise("--start").returncode == 0
    bare.wait_log(r"Finalize Dummy plugin\(\)")
    bare.wait_gone(int(bare.pid_file()))
    assert bare.terminal() == ""


def test_libdbus_is_prepared_for_threads_before_the_first_connection(bare):
    bare.start_bus()
    bare.start_daemon(preloaded=True)  # refuses a connection before dbus_threads_init_default()
    assert bare.caller().hello() == "How are you?"


def test_the_daemon_exits_when_libdbus_adds_no_watch(bare):
    bare.start_bus()
    bare.set_rule("dbus_connection_set_watch_functions", "none")
    lines = [line for line in set_up_to("register objects ...") if "ccs_add_watch" not in line]
    failure = "cs/bus.cpp ccs_build_read_set: {EE} Watch on fd -1 is beyond what select() can hold"
    assert_given_up(bare.launch(preloaded=True), bare, [*lines, failure])


@pytest.mark.parametrize(
    "call, last, failure",
    [
        (
            "dbus_connection_set_watch_functions",
            "get System DBus connection ...",
            "cs/bus.cpp ccs_set_watch_functions: dbus_connection_set_watch_functions(): (null)",
        ),
        (
            "dbus_connection_register_object_path",
            f"path={PATH}/DisplayManager",
            "cs/plugin-registry.cpp ccs_register_objects: {EE}dbus_connection_register_object_path(): (null)",
        ),
    ],
)
def test_the_daemon_exits_when_libdbus_refuses_its_functions(bare, call, last, failure):
    bare.start_bus()
    bare.set_rule(call, "refused")
    assert_given_up(bare.launch(preloaded=True), bare, [*set_up_to(last), failure])


def test_both_objects_are_registered_with_the_same_functions(bare):
    bare.start_bus()
    bare.set_rule("dbus_connection_register_object_path", "note")
    bare.start_daemon(preloaded=True)
    with open("/run/stage/functions") as file:
        first, second = file.readlines()
    assert first == second
    # The table has a function for unregistering and one for messages; the four reserved pointers are null.
    assert first.partition(": ")[2] == "1 1, 0\n"
    assert bare.logged().count("cs/plugin-registry.cpp ccs_object_unregister: {II}") == 2
    assert bare.caller().hello() == "How are you?"


# ---- the name ----


REFUSED = (
    'cs/bus.cpp ccs_request_service_name: {EE} dbus_bus_request_name(): Connection ":1.0" is not allowed to '
    'own the service "com.corvane.ControlServer" due to security policies in the configuration file'
)
REFUSING_BUS = f"""<busconfig><type>session</type><listen>unix:path=/run/stage/bus</listen>
<policy context="default"><allow user="*"/><allow send_destination="*"/><allow receive_sender="*"/>
<allow own="*"/><deny own="{NAME}"/></policy></busconfig>"""


def test_the_daemon_exits_when_the_bus_refuses_the_name(bare):
    with open("/run/stage/bus.conf", "w") as file:
        file.write(REFUSING_BUS)
    bare.start_bus("--config-file=/run/stage/bus.conf")
    lines = set_up_to("Request service name: com.corvane.ControlServer")
    assert_given_up(bare.launch(), bare, [*lines, REFUSED])


def test_the_daemon_waits_for_a_name_with_another_owner(bare):
    bare.start_bus()
    owner, caller = bare.caller(), bare.caller()
    assert take_name(owner, 0) == 1
    bare.start_daemon()
    first, second = queued(caller)
    assert first == owner.connection.unique_name
    assert hello_to(caller, second) == "How are you?"
    owner.close()
    bare.wait("daemon that owns its name", lambda: queued(caller) == [second])
    assert caller.hello() == "How are you?"


def test_the_daemon_replaces_an_owner_that_allows_it(bare):
    bare.start_bus()
    owner, caller = bare.caller(), bare.caller()
    assert take_name(owner, 1) == 1  # may be replaced
    bare.start_daemon()
    assert queued(caller)[0] != owner.connection.unique_name
    assert caller.hello() == "How are you?"


def test_no_other_process_can_take_the_name_from_the_daemon(machine):
    rival, caller = machine.caller(), machine.caller()
    assert take_name(rival, 2) == 2  # asks to replace the daemon, and has to wait
    assert queued(caller)[1] == rival.connection.unique_name
    assert caller.hello() == "How are you?"


def test_a_second_daemon_takes_over_when_the_first_exits(bare):
    bare.start_bus()
    first = bare.start_daemon()
    caller = bare.caller()
    (owner,) = queued(caller)
    second = bare.launch()
    bare.wait("second daemon in the queue", lambda: len(queued(caller)) == 2)
    bare.daemon = second
    first.kill()
    first.communicate()
    bare.wait("second daemon that owns the name", lambda: queued(caller)[0] != owner)
    assert caller.hello() == "How are you?"


# ---- the main loop ----


def test_calls_that_arrive_during_the_start_are_served_without_a_further_message(bare):
    bare.start_bus()
    caller = bare.caller()
    known = set(ask_bus(caller, "ListNames"))
    bare.hold("dbus_bus_request_name")
    daemon = bare.daemon = bare.launch(preloaded=True)
    bare.wait_held("dbus_bus_request_name")
    (unique,) = set(ask_bus(caller, "ListNames")) - known
    message = plugin_call("Dummy", "HelloWorld")
    message.header.fields[HeaderFields.destination] = unique
    for _ in range(12):
        caller.send(message)
    ask_bus(caller, "GetId")  # the bus has forwarded the calls
    bare.release("dbus_bus_request_name")
    answers = []
    while len(answers) < 12:
        reply = caller.connection.receive(timeout=10)
        if reply.header.message_type in (MessageType.method_return, MessageType.error):
            answers.append(reply.body[0])
    assert answers == ["How are you?"] * 12
    assert bare.texts().count("{DUMMY} dbus_dummy_hello_world: HelloWorld") == 12
    assert daemon.poll() is None


ONE_DESCRIPTOR = "5 0 4\n"  # the count is 5, no other set or timeout is given, and the set has descriptor 4


def waits():
    if not os.path.exists("/run/stage/waits"):
        return []
    with open("/run/stage/waits") as file:
        return file.readlines()


def start_with_first_wait(machine, how):
    """Starts a bus and a daemon whose first wait ends in this way; see preload/rules.h."""
    machine.start_bus()
    machine.set_rule("select", how)
    machine.start_daemon(preloaded=True)


def wait_for_wait(machine, nth):
    machine.wait(f"wait number {nth}", lambda: len(waits()) >= nth)


def test_a_wait_that_ends_for_another_descriptor_is_repeated_without_a_log_line(bare):
    start_with_first_wait(bare, "other")
    wait_for_wait(bare, 2)
    assert not os.path.exists("/run/stage/handled")
    assert bare.logged()[-1] == "cs/corvane-cs.cpp main: Start mainloop ..."
    assert bare.caller().hello() == "How are you?"
    assert os.path.exists("/run/stage/handled")


def test_a_wait_with_no_result_is_logged_and_repeated_for_the_one_readable_descriptor(bare):
    start_with_first_wait(bare, "nothing")
    wait_for_wait(bare, 2)
    assert not os.path.exists("/run/stage/handled")
    assert bare.logged()[-1] == INTERRUPTED
    caller = bare.caller()
    for _ in range(3):
        assert caller.hello() == "How are you?"
    wait_for_wait(bare, 3)
    assert bare.logged().count(INTERRUPTED) == 1
    assert "cs/bus.cpp ccs_add_watch: READ Watch on fd 4" in bare.logged()
    assert set(waits()) == {ONE_DESCRIPTOR}


def test_a_readable_watch_added_after_the_start_is_stored_but_neither_waited_for_nor_handled(bare):
    start_with_first_wait(bare, "late")
    caller = bare.caller()
    caller.send(plugin_call("Dummy", "HelloWorld"))
    wait_for_wait(bare, 3)  # the call is never read, so every wait ends at once
    _, late = bare.wait_log(r"READ Watch on fd (\d+)$", 2)
    assert int(late[1]) > 4
    assert set(waits()) == {ONE_DESCRIPTOR}
    assert not os.path.exists("/run/stage/handled")
    assert "HelloWorld" not in bare.log_text()
    assert INTERRUPTED not in bare.logged()


MOST_OPEN = resource.getrlimit(resource.RLIMIT_NOFILE)[1]


def needs_descriptors(count):
    return pytest.mark.skipif(MOST_OPEN < count, reason=f"a process may not open {count} descriptors")


def open_below(limit):
    """Arguments of Popen that open every descriptor below the limit in the daemon."""

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
    assert "cs/bus.cpp ccs_add_watch: READ Watch on fd 1023" in bare.logged()
    assert bare.caller().hello() == "How are you?"


@needs_descriptors(1025)
def test_the_daemon_exits_when_select_cannot_hold_its_descriptor(bare):
    bare.start_bus()
    process = bare.launch(**open_below(1023))
    lines = [line.replace("on fd 4", "on fd 1024") for line in set_up_to("register objects ...")]
    failure = "cs/bus.cpp ccs_build_read_set: {EE} Watch on fd 1024 is beyond what select() can hold"
    assert_given_up(process, bare, [*lines, failure])


def unknown(member, signature, plugin):
    return f'Method "{member}" with signature "{signature}" on interface "{NAME}.{plugin}" doesn\'t exist\n'


CALLS = {
    "plugin": (plugin_call("Dummy", "HelloWorld"), ("How are you?",)),
    "libdbus": (new_method_call(DUMMY, "Ping"), ()),
    "unknown method": (plugin_call("Dummy", "Bye"), (unknown("Bye", "", "Dummy"),)),
    "wrong arguments": (
        plugin_call("DisplayManager", "Start", "s", ":1"),
        (unknown("Start", "s", "DisplayManager"),),
    ),
}


@pytest.mark.parametrize("kind", CALLS)
def test_no_reply_is_lost_when_the_bus_is_slow(bare, kind):
    call, answer = CALLS[kind]
    bare.start_bus()
    bare.set_rule("connect")  # makes its buffer small
    daemon = bare.start_daemon(preloaded=True)
    caller = bare.caller()
    daemon.send_signal(signal.SIGSTOP)
    for _ in range(100):
        caller.send(call)
    ask_bus(caller, "GetId")
    bare.bus.send_signal(signal.SIGSTOP)
    daemon.send_signal(signal.SIGCONT)
    bare.wait_log(r"\{II\} ccs_remove_watch\(\)")  # a toggle: libdbus waits until it can write
    assert TOGGLE in bare.logged()
    bare.bus.send_signal(signal.SIGCONT)
    for _ in range(100):
        assert caller.connection.receive(timeout=10).body == answer


def test_the_daemon_exits_with_1_when_the_bus_exits(machine):
    since = len(machine.logged())
    machine.bus.kill()
    assert machine.daemon.wait(5) == 1
    assert machine.logged()[since:] == [REMOVAL, REMOVAL]
