#!/usr/bin/python3
# SPDX-License-Identifier: MIT
# demo.py: the main job of the daemon, told to a newcomer: three stations, their actors, a crash and a stop.
#
# The daemon, the bus and the log are real, the actors are stand-ins. Run it through tools/private-machine, where
# /run and /var/log are empty and nothing outlives it. What it says has been looked at in the table of processes,
# in the replies or in the log; the first thing that is not as told ends it with 1.
#
# usage: demo.py DAEMON
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

DAEMON = str(Path(sys.argv[1]).resolve())
STAND_IN = Path(__file__).resolve().parent / "stand-in.c"
PROGRAMS = ("corvane-ls", "corvane-pfk", "corvane-xh")
LOG = Path("/var/log/corvane-cs.log")
PID_FILE = Path("/run/corvane/corvane-cs.pid")
BUS_SOCKET = Path("/run/bus")
BUS_ADDRESS = f"unix:path={BUS_SOCKET}"
DISPLAY_MANAGER = DBusAddress("/com/corvane/ControlServer/DisplayManager", "com.corvane.ControlServer",
                              "com.corvane.ControlServer.DisplayManager")
RESTART_PAUSE = 2.0  # seconds


def say(text=""):
    print(text, flush=True)


def fail(what):
    if LOG.exists():
        say(f"\nThe log of the daemon:\n{LOG.read_text()}")
    say(f"The demo failed: {what}.")
    sys.exit(1)


def wait_for(what, look, seconds=5.0):
    deadline = time.monotonic() + seconds
    while not look():
        if time.monotonic() > deadline:
            fail(f"waited {seconds:g} s in vain for {what}")
        time.sleep(0.02)


def prepare_actors():
    """The daemon finds actors on its PATH: here the same small program under each of their names."""
    directory = Path("/run/actors")
    directory.mkdir()
    for program in PROGRAMS:
        subprocess.run(["cc", "-o", directory / program, STAND_IN], check=True)
    os.environ["PATH"] = f"{directory}:{os.environ['PATH']}"


def start_bus():
    os.environ["DBUS_SESSION_BUS_ADDRESS"] = BUS_ADDRESS
    # It says there what it would like to have and can do without, as more descriptors.
    with open("/run/bus-errors", "w") as errors:
        subprocess.Popen(["dbus-daemon", "--session", "--nofork", f"--address={BUS_ADDRESS}"], stderr=errors)
    wait_for("the bus", BUS_SOCKET.is_socket)
    return open_dbus_connection(BUS_ADDRESS)


def daemon(option):
    """Runs the daemon's executable with one option and returns what it prints."""
    # A file, because the daemon keeps its standard descriptors: a pipe would stay open.
    with open("/run/output", "w+") as output:
        if subprocess.run([DAEMON, option], stdout=output, timeout=10).returncode != 0:
            fail(f"corvane-cs {option} failed")
        output.seek(0)
        return output.read().strip()


def call(bus, expected, member, *arguments):
    """Calls Start or Stop, whose reply must be the boolean `expected`."""
    message = new_method_call(DISPLAY_MANAGER, member, "s" * len(arguments), arguments)
    reply = bus.send_and_get_reply(message, timeout=5)
    say(f"  {member}{arguments} -> {reply.body[0]}")
    if reply.header.message_type != MessageType.method_return or reply.body != (expected,):
        fail(f"{member} should have been answered with {expected}")


def running_actors():
    """Command line of each running actor -> its pid."""
    actors = {}
    for process in Path("/proc").glob("[0-9]*"):
        try:
            words = (process / "cmdline").read_text().split("\0")[:-1]
        except OSError:  # it has ended meanwhile
            continue
        if words and words[0] in PROGRAMS:
            actors[" ".join(words)] = int(process.name)
    return actors


def expect_actors(*commands, seconds=5.0):
    """Waits until exactly these actors run, and shows them."""
    wait_for(f"exactly these actors to run: {commands}", lambda: set(running_actors()) == set(commands), seconds)
    actors = running_actors()
    say("\n  The actors that run:\n     pid  command")
    for command, pid in sorted(actors.items(), key=lambda actor: actor[1]):
        say(f"  {pid:6}  {command}")
    return actors


def expect_log(*texts):
    """Waits until every text ends a line of the log, and shows these lines: time of day and message."""
    def lines():
        return [line for line in LOG.read_text().splitlines() if line.endswith(texts)]

    wait_for(f"these lines in the log: {texts}",
             lambda: all(any(line.endswith(text) for line in lines()) for text in texts))
    say("\n  In the log of the daemon:")
    for line in lines():
        say(f"  {line[11:19]}  {line.partition(' DEBUG: ')[2]}")


def chapter(title):
    say(f"\n== {title}")


say("""A station is a seat at a shared computer, with an X display of its own. On each of them the daemon starts,
watches and stops helper programs, called actors, as other programs ask it over the message bus. Here it runs with
a bus of its own, hidden from yours; its actors are stand-ins, which need no display and do nothing.""")
prepare_actors()
bus = start_bus()

chapter("The daemon starts in the background and takes its name on the bus")
daemon("--start")
wait_for(str(LOG), LOG.exists)
expect_log("Succeeded to request service name ...", "Start mainloop ...")
pid = int(daemon("--pid"))
if PID_FILE.read_text() != str(pid) or os.readlink(f"/proc/{pid}/exe") != DAEMON:
    fail(f"{pid} is not the daemon")
say(f"\n  corvane-cs --pid says that it is process {pid}, and so it is.")

chapter("Three stations get their actors; each display, actor and kind of station is named by the caller")
call(bus, True, "Start", ":1", "local-login", "PCI")
call(bus, True, "Start", ":1", "xhotkey", "PCI")
call(bus, True, "Start", ":2", "local-login", "USB")
call(bus, True, "Start", ":3", "press-fkey", "COMMON")
login_1, hotkey_1, login_2 = "corvane-ls :1", "corvane-xh -display :1", "corvane-ls :2"
fkey_3 = "corvane-pfk -display :3 --verbose --logfile /var/log/corvane-pfk3.log"
before = expect_actors(login_1, hotkey_1, login_2, fkey_3)
expect_log(*(f"DISPLAY=:{display}, actor_code={code}, child={before[actor]}"
             for display, code, actor in ((1, 2, login_1), (1, 7, hotkey_1), (2, 2, login_2), (3, 4, fkey_3))))

chapter("What cannot be is answered with false, and the log has the reason")
call(bus, False, "Start", ":1", "television", "PCI")
call(bus, False, "Stop", ":9", "local-login")
expect_log("Invalid actor name: television", "Unable to find station entry for display 9")

chapter(f"The login screen of :2 is killed: it is back after {RESTART_PAUSE:g} seconds, and nothing else has changed")
os.kill(before[login_2], signal.SIGKILL)
killed = time.monotonic()
wait_for("its end", lambda: login_2 not in running_actors())
wait_for("its return", lambda: login_2 in running_actors())
away = time.monotonic() - killed
after = expect_actors(login_1, hotkey_1, login_2, fkey_3)
say(f"\n  Process {before[login_2]} died, {after[login_2]} came {away:.1f} s later.")
if after[login_2] == before[login_2] or not RESTART_PAUSE - 0.1 <= away <= RESTART_PAUSE + 1:
    fail("that is no new process after the pause")
if any(after[actor] != before[actor] for actor in (login_1, hotkey_1, fkey_3)):
    fail("another actor was started anew")
expect_log(f"Child process died: {before[login_2]}", f"DISPLAY=:2, actor_code=2, child={after[login_2]}")

chapter("The login screen of :2 is stopped, and stays away")
call(bus, True, "Stop", ":2", "local-login")
expect_actors(login_1, hotkey_1, fkey_3)
expect_log(f"proc_method_stop: child_pid {after[login_2]}", f"Child process died: {after[login_2]}",
           "keep_alive field is FALSE. Exit from the current thread")
time.sleep(RESTART_PAUSE + 0.5)
if login_2 in running_actors():
    fail("it came back")
say(f"\n  {RESTART_PAUSE + 0.5:g} seconds later it is still away.")

chapter("Everything is stopped, at last the daemon")
for display, actor in ((":1", "local-login"), (":1", "xhotkey"), (":3", "press-fkey")):
    call(bus, True, "Stop", display, actor)
wait_for("the end of all actors", lambda: not running_actors())
daemon("--stop")
wait_for("the end of the daemon", lambda: not Path(f"/proc/{pid}").exists())
if PID_FILE.exists():
    fail("the pid file is still there")
say("\n  No actor, no daemon and no pid file is left. The demo showed all that it told.")
