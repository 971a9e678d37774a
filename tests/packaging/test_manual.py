# SPDX-License-Identifier: MIT
# test_manual.py: the manual pages please their readers' tools, and say what the daemon says and does.
#
# The pages are read as mandoc understands them. What they list is held against the daemon and its sources in
# both directions, so that neither can change without the other. The examples are taken from the pages and run
# by root against a daemon on the system bus, as the reader of the page would run them.
import fnmatch
import os
import re
import signal
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call

from support.place import NAME, PATH, PROGRAMS

SOURCES = Path(__file__).resolve().parent.parent.parent
MANAGER = "com.corvane.ControlServer.DisplayManager"
DUMMY = "com.corvane.ControlServer.Dummy"
INSTALLED = Path(os.environ["CORVANE_INSTALLED"])
MANUAL = INSTALLED / "usr/share/man"
PAGES = sorted(str(page.relative_to(MANUAL)) for page in MANUAL.glob("man*/*"))
OBJECTS = sorted(page.stem for page in MANUAL.glob("man5/*"))
DAEMON, ACTORS, COMMAND = "man8/corvane-cs.8", "man7/corvane-actors.7", "man8/corvane-ctl.8"
OF_THE_DAEMON = [page for page in PAGES if page not in (ACTORS, COMMAND)]
OPTIONS = ["--disable", "--enable", "--pid", "--purge", "--start", "--stop", "--verbose"]
ERROR = "org.freedesktop.DBus.Error"


@pytest.fixture
def manual(installed):
    return installed / "usr/share/man"


def words(element):
    return " ".join("".join(element.itertext()).split())


class Page:
    """A manual page in mandoc's reading of it."""

    def __init__(self, path):
        html = subprocess.check_output(["mandoc", "-Thtml", "-Ofragment", path], text=True)
        self.root = ElementTree.fromstring(f"<page>{html}</page>")

    def section(self, title):
        """A section or subsection."""
        found = [section for section in self.root.iter("section") if words(section[0]) == title]
        assert len(found) == 1, f"{len(found)} sections {title}"
        return found[0]

    def entries(self, title):
        """The entries of the lists in a section: the element of each term with that of its text."""
        entries = []
        for listed in self.section(title).iter("dl"):
            terms, texts = listed[::2], listed[1::2]
            assert {term.tag for term in terms} == {"dt"} and {text.tag for text in texts} == {"dd"}
            entries += zip(terms, texts, strict=True)
        return entries

    def examples(self, title):
        return ["".join(block.itertext()) for block in self.section(title).iter("pre")]


# ---- the pages as such ----


def test_the_pages_are_those_of_the_daemon_of_each_of_its_objects_and_of_the_command(machine, manual):
    registered = [text for text in machine.texts() if text.startswith("path=")]
    objects = [text.removeprefix("path=/").replace("/", ".") for text in registered]
    assert len(objects) >= 2
    assert PAGES == sorted([DAEMON, COMMAND, ACTORS, *(f"man5/{name}.5" for name in objects)])


@pytest.mark.parametrize("page", PAGES)
@pytest.mark.parametrize("command", [["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z"],
                                     ["mandoc", "-Tlint", "-W", "warning"]], ids=lambda command: command[0])
def test_the_formatters_have_no_complaint(manual, page, command):
    done = subprocess.run([*command, manual / page], capture_output=True, text=True,
                          env={**os.environ, "MANWIDTH": "80"})
    assert (done.returncode, done.stderr) == (0, "")
    if command[0] == "mandoc":
        assert done.stdout == ""


@pytest.mark.parametrize("page", PAGES)
def test_the_installed_ones_of_the_files_that_the_page_names_exist(installed, manual, page):
    for term, _ in Page(manual / page).entries("FILES"):
        path = words(term)
        if not path.startswith(("/var/", "/usr/share/corvane/")):  # of the daemon at work, of the actors
            assert list(installed.glob(path[1:])), path


def test_each_installed_file_is_named_on_a_page(installed, manual):
    named = [words(term) for page in PAGES for term, _ in Page(manual / page).entries("FILES")]
    files = [f"/{file.relative_to(installed)}" for file in installed.rglob("*") if file.is_file()]
    unnamed = [file for file in files if not any(fnmatch.fnmatch(file, pattern) for pattern in named)]
    assert sorted(unnamed) == ["/usr/bin/corvane-ctl", "/usr/sbin/corvane-cs", *(f"/usr/share/man/{page}" for page in PAGES)]


# ---- options ----


def test_the_options_of_the_page_are_those_of_the_usage_text(bare, manual):
    page = Page(manual / "man8/corvane-cs.8")
    usage = bare.run("--help").stderr
    assert sorted(re.findall(r"^\t(--\w+)\t", usage, re.MULTILINE)) == OPTIONS

    listed = [words(flag) for term, _ in page.entries("OPTIONS") for flag in term.iter("code")]
    synopsis = [words(flag) for flag in page.section("SYNOPSIS").iter("code") if flag.get("class") == "Fl"]
    assert sorted(listed) == sorted(synopsis) == sorted([*OPTIONS, "-v"])


def test_the_options_and_commands_of_the_commands_page_are_those_of_its_help(laid_over, manual):
    page = Page(manual / COMMAND)
    usage = subprocess.check_output(["corvane-ctl", "--help"], text=True)
    options = sorted({"-v", *re.findall(r"(--[\w-]+)", usage)})
    commands = re.findall(r"^  corvane-ctl (\w+)", usage, re.MULTILINE)
    assert len(options) == 8 and len(commands) == 5

    listed = [words(flag) for term, _ in page.entries("OPTIONS") for flag in term.iter("code")]
    synopsis = {words(flag) for flag in page.section("SYNOPSIS").iter("code") if flag.get("class") == "Fl"}
    assert sorted(listed) == sorted(synopsis) == options
    assert [words(term) for term, _ in page.entries("COMMANDS")] == commands
    assert {words(name) for name in page.section("SYNOPSIS").iter("code") if name.get("class") == "Cm"} == set(commands)


# ---- diagnostics ----

LITERALS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
SAYINGS = [  # a call that says something to whoever runs the daemon; the same call with a literal text
    (r"\blog_(?:debug|error)\(", rf"\blog_(?:debug|error)\(\s*{LITERALS}[,)]"),
    (r"->write\(", rf"->write\(\s*\w+,\s*{LITERALS}[,)]"),
    (r"\bfputs\([^;]*, stderr\)", rf"\bfputs\(\s*{LITERALS}, stderr\)"),
    (r"\bfprintf\(\s*stderr,", rf"\bfprintf\(\s*stderr,\s*{LITERALS}[,)]"),
    (r"\bwrite\(\s*STDERR_FILENO,", rf"\bwrite\(\s*STDERR_FILENO,\s*{LITERALS}[,)]"),
]


def sayings(*folders):
    """What the sources in these folders can say, with * for what changes."""
    said = set()
    for folder in folders:
        for source in (SOURCES / folder).rglob("*.cpp"):
            code = re.sub(r"^\s*//.*$", "", source.read_text(), flags=re.MULTILINE)
            for call, with_literal in SAYINGS:
                literals = re.findall(with_literal, code)
                assert len(literals) == len(re.findall(call, code)), f"{source}: no literal behind {call}"
                said.update("".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literal)) for literal in literals)
    texts = {text.removeprefix("%s:%i:%s: DEBUG: ").replace("\\n", "") for text in said}
    return {re.sub(r"%(?:d|i|s)", "*", text) for text in texts}


def explained(page):
    """The diagnostics of the page, with * for its slanted words: each with its explanation."""
    explanations = {}
    unexplained = []
    for term, text in page.entries("DIAGNOSTICS"):
        for changing in term.iter("i"):
            changing.text = "*"
        unexplained.append(words(term))
        if words(text):
            assert not explanations.keys() & unexplained, f"twice: {unexplained}"
            explanations.update(dict.fromkeys(unexplained, words(text)))
            unexplained = []
    assert not unexplained
    return explanations


def part_of(page):
    """A plugin's page lies beside what it speaks of."""
    beside = (SOURCES / "plugins").glob(f"*/{Path(page).name}.in")
    return [str(file.parent.relative_to(SOURCES)) for file in beside] or ["cs", "common"]


@pytest.mark.parametrize("page", OF_THE_DAEMON)
def test_the_diagnostics_of_each_page_are_what_its_part_of_the_daemon_can_say(manual, page):
    said = sayings(*part_of(page))
    diagnostics = explained(Page(manual / page))
    assert said - diagnostics.keys() == set(), "not on the page"
    assert diagnostics.keys() - said == set(), "on the page only"


@pytest.mark.parametrize("page, folders, some", [
    ("man8/corvane-cs.8", ["cs", "common"],
     {"Start mainloop ...", "{EE}Failed to connect system DBus: *", "Catch segfault signal.",
      "cannot readlink", "insufficient memory", "insufficient memory: 1",
      "corvane-cs: unknown command line option: *"}),
    (f"man5/{MANAGER}.5", ["plugins/display-manager"],
     {"Unhandled message: obj=*, intf=*, member=*", "{DM} Invalid actor name: *"}),
    (f"man5/{DUMMY}.5", ["plugins/dummy"], {"Unhandled message: obj=*, intf=*, member=*",
                                            "Initialize Dummy plugin()"}),
])
def test_each_way_in_which_something_is_said_is_found(page, folders, some):
    assert part_of(page) == folders
    assert some <= sayings(*folders)


# ---- actors, station types, errors ----


def test_the_actors_of_the_page_run_as_it_says(bare, manual):
    for program in PROGRAMS:  # that stay, so that none is launched twice
        bare.remove(program)
        Path(f"/run/stage/actors/bin/{program}").write_text("#!/bin/sh\nexec sleep infinity\n")
        os.chmod(f"/run/stage/actors/bin/{program}", 0o755)
    bare.start_bus()
    bare.start_daemon()
    names = []
    for number, (term, text) in enumerate(Page(manual / f"man5/{MANAGER}.5").entries("ACTORS"), 1):
        names.append(words(term))
        code, group = re.match(r"Code (\d), group (\d)\.", words(text)).groups()
        command = [words(line).replace("N", str(number)) for line in text.iter("code")]

        assert bare.caller().start(f":{number}", names[-1]) is True
        if not command:
            bare.wait_log(f"No action needed for INIT_STATION. display_num: {number}$")
            continue
        bare.wait_log(f"DISPLAY=:{number}, actor_code={code}, child=")
        lines = bare.texts()
        last = lines.index(f"method_start_thread() for actor_code:{code}, display_num:{number}")
        assert [line.removeprefix("{DM} method_start_thread(): ") for line in lines[last + 1:]
                if line.startswith("{DM} method")] == command[0].split()
        assert [line for line in lines if line.startswith("group:")][-1] == f"group:{group}, is_running:0"
    assert names == ["init-station", "local-login", "remote-login", "press-fkey", "click-mouse",
                     "disable-station", "xhotkey"]


def test_the_programs_of_the_page_for_actors_are_those_that_run(manual):
    """What they are given is tried above, with the page of the interface."""
    actors = Page(manual / f"man5/{MANAGER}.5").entries("ACTORS")
    commands = [words(line) for _, text in actors for line in text.iter("code")]
    programs = [words(term) for term, _ in Page(manual / ACTORS).entries("PROGRAMS")]
    assert sorted(programs) == sorted(commands) and len(programs) == 6


def test_the_station_types_of_the_page_are_known_by_their_codes(bare, manual):
    bare.start_bus()
    bare.start_daemon("--verbose")
    names = []
    for number, (term, text) in enumerate(Page(manual / f"man5/{MANAGER}.5").entries("STATION TYPES"), 1):
        names.append(words(term))
        assert bare.caller().start(f":{number}", "init-station", names[-1]) is True
        code = re.fullmatch(r"Code (\d)\.", words(text))[1]
        bare.wait_log(f"#{number} station: display_num={number}, type={code}$")
    assert names == ["PCI", "USB", "COMMON"]


def a_call(installed, name, path=None, member=None):
    """A call to this object: without arguments, of its first method unless another is named."""
    description = ElementTree.parse(installed / f"usr/share/dbus-1/interfaces/{name}.xml")
    address = DBusAddress(path or "/" + name.replace(".", "/"), bus_name=NAME, interface=name)
    return new_method_call(address, member or description.find(".//method").get("name"))


def error_of(machine, call):
    """The name of the error that answers a call."""
    reply = machine.caller().connection.send_and_get_reply(call, timeout=10)
    assert reply.header.message_type == MessageType.error
    return reply.header.fields[HeaderFields.error_name]


def error_of_an_end(machine, call):
    """The name of the error that answers a call during which the daemon ends."""
    machine.daemon.send_signal(signal.SIGSTOP)
    caller = machine.caller()
    caller.send(call)
    bus = DBusAddress("/org/freedesktop/DBus", *["org.freedesktop.DBus"] * 2)
    caller.ask(new_method_call(bus, "GetId"))  # answered when the bus has passed on what came before
    machine.daemon.kill()
    while (reply := caller.connection.receive(timeout=10)).header.message_type != MessageType.error:
        pass
    return reply.header.fields[HeaderFields.error_name]


@pytest.mark.parametrize("name", OBJECTS)
def test_the_errors_of_the_page_are_those_that_root_gets(system_bus, installed, manual, name):
    errors = {"no daemon": error_of(system_bus, a_call(installed, name))}
    system_bus.start_daemon()
    errors |= {
        "another object": error_of(system_bus, a_call(installed, name, path=f"{PATH}/Nobody")),
        "another member": error_of(system_bus, a_call(installed, name, member="Restart")),
        "an end": error_of_an_end(system_bus, a_call(installed, name)),
    }
    assert errors == {
        "no daemon": f"{ERROR}.ServiceUnknown",
        "another object": f"{ERROR}.UnknownMethod",
        "another member": f"{ERROR}.AccessDenied",
        "an end": f"{ERROR}.NoReply",
    }
    listed = [words(term) for term, _ in Page(manual / f"man5/{name}.5").entries("ERROR REPLIES")]
    assert sorted(listed) == sorted(errors.values())


@pytest.mark.parametrize("name", OBJECTS)
def test_where_the_bus_lets_everything_through_a_ping_alone_leaves_no_line(machine, installed, name):
    path = "/" + name.replace(".", "/")
    before = machine.texts()
    peer = DBusAddress(path, bus_name=NAME, interface="org.freedesktop.DBus.Peer")
    assert machine.caller().ask(new_method_call(peer, "Ping")) == ()
    assert machine.texts() == before

    assert error_of(machine, a_call(installed, name, member="Restart")) == f"{ERROR}.UnknownMethod"
    assert error_of(machine, a_call(installed, name, path=f"{PATH}/Nobody")) == f"{ERROR}.UnknownMethod"
    said, *unhandled = machine.texts()[len(before):]
    assert said == f"obj={path}, interface={name}, member=Restart, type=1"
    assert [line.partition(":")[0] for line in unhandled] == ["Unhandled message"]


# ---- examples ----

# page, heading, the output of each of its commands
EXAMPLES = [
    (MANAGER, "busctl", ["b true\n", "b true\n"]),
    (MANAGER, "gdbus", ["(true,)\n"]),
    (MANAGER, "dbus-send", ["   boolean true\n"]),
    (MANAGER, "C", ["queued\n"]),
    (MANAGER, "Python", ["queued\n"]),
    (DUMMY, "busctl", ['s "How are you?"\n']),
    (DUMMY, "gdbus", ["('How are you?',)\n"]),
    (DUMMY, "dbus-send", ["   How are you?"]),
    (DUMMY, "C", ["How are you?\n"]),
    (DUMMY, "Python", ["How are you?\n"]),
]


def run_examples(blocks, folder):
    """Puts programs into the files that they name, runs commands; returns what the commands gave."""
    results = []
    for block in blocks:
        name = re.match(r"(?:/\*|#) ([a-z.]+): ", block)
        if name:
            (folder / name[1]).write_text(block)
        else:
            results.append(subprocess.run(["sh", "-e", "-c", block], cwd=folder, capture_output=True,
                                          text=True, timeout=60))
    return results


@pytest.mark.parametrize("page, heading, outputs", EXAMPLES)
def test_each_example_works(system_bus, manual, tmp_path, page, heading, outputs):
    system_bus.start_daemon()
    results = run_examples(Page(manual / f"man5/{page}.5").examples(heading), tmp_path)

    assert [(result.returncode, result.stderr) for result in results] == [(0, "")] * len(outputs)
    assert [result.stdout for result in results] == outputs
    if page == MANAGER:
        system_bus.wait_log("DISPLAY=:1, actor_code=2, child=")
    if (page, heading) == (MANAGER, "busctl"):
        system_bus.wait_log("keep_alive field is FALSE")


def test_each_example_of_the_command_works(lasting_actors, manual, tmp_path):
    lasting_actors.start_daemon()
    page = Page(manual / COMMAND)
    [steps] = page.examples("A station")
    [station] = run_examples([steps], tmp_path)
    assert (station.returncode, station.stderr) == (0, "")
    printed = re.sub(r"(?:\d{4}-)?\d\d-\d\d \d\d:\d\d:\d\d", "T", re.sub(r"process \d+", "process P", station.stdout))
    assert [re.sub(r" +\d+ T", " P T", re.sub(r"\d\.\d s", "0.0 s", line)) for line in printed.splitlines()] == [
        ":1 local-login runs, process P",
        ":1 xhotkey runs, process P",
        "corvane-cs 1.0.0 runs, process P, since T",
        "",
        "DISPLAY ACTOR           STATE                      PROCESS SINCE          STARTS",
        ":1      local-login     runs P T     1",
        ":1      xhotkey         runs P T     1",
        ":1 ends, process P, 0.0 s",
        ":1 ends, process P, 0.0 s",
    ]
    subprocess.run(["corvane-ctl", "start", ":3", "remote-login"], check=True, capture_output=True)
    [program] = run_examples(page.examples("A program"), tmp_path)
    assert (program.returncode, program.stderr, program.stdout) == (0, "", ":3\n")


@pytest.mark.parametrize("page", OBJECTS)
def test_the_examples_are_all_that_the_page_has(manual, page):
    sections = Page(manual / f"man5/{page}.5").section("EXAMPLES").findall("section")
    assert [words(section[0]) for section in sections] == [row[1] for row in EXAMPLES if row[0] == page]


def test_the_daemon_is_started_and_called_by_hand_on_a_private_bus(laid_over, manual, tmp_path):
    [result] = run_examples(Page(manual / DAEMON).examples("EXAMPLES")[:1], tmp_path)

    assert (result.returncode, result.stdout) == (0, "('How are you?',)\n"), result.stderr
    assert "{DUMMY} dbus_dummy_hello_world: HelloWorld" in laid_over.texts()


def test_the_daemon_is_started_and_stopped_by_hand_on_the_system_bus(system_bus, manual, tmp_path):
    [result] = run_examples(Page(manual / DAEMON).examples("EXAMPLES")[1:], tmp_path)

    assert (result.returncode, result.stderr) == (0, "")
    pid = int(result.stdout)
    system_bus.wait_gone(pid)
    assert system_bus.pid_file() is None and "Start mainloop ..." in system_bus.texts()


def test_the_example_of_an_actor_is_started_and_stopped(machine, manual):
    [script] = Page(manual / ACTORS).examples("EXAMPLES")
    machine.remove("corvane-xh")
    actor = Path("/run/stage/actors/bin/corvane-xh")
    actor.write_text(script)
    actor.chmod(0o755)
    assert machine.caller().start(":1", "xhotkey") is True
    pid = int(machine.wait_log(r"child=(\d+)")[0][1])
    machine.wait("the program", lambda: "sleep" in Path(f"/proc/{pid}/cmdline").read_text())
    assert "DBUS_SESSION_BUS_ADDRESS" not in Path(f"/proc/{pid}/environ").read_text()
    assert machine.caller().stop(":1", "xhotkey") is True
    machine.wait_log("keep_alive field is FALSE")


@pytest.mark.parametrize("page", OBJECTS)
@pytest.mark.parametrize("heading", ["C", "Python"])
def test_the_programs_say_when_the_daemon_does_not_serve(system_bus, manual, tmp_path, page, heading):
    [result] = run_examples(Page(manual / f"man5/{page}.5").examples(heading), tmp_path)

    assert (result.returncode, result.stdout) == (1, "")
    assert f"{ERROR}.ServiceUnknown: " in result.stderr


@pytest.mark.parametrize("page", PAGES)
def test_what_is_copied_from_the_terminal_is_what_runs(manual, page):
    path = manual / page
    shown = subprocess.check_output(["man", "-E", "UTF-8", "-l", path], text=True,
                                    env={**os.environ, "MANWIDTH": "80"}).splitlines()
    blocks = Page(path).examples("EXAMPLES")
    for line in "\n".join(blocks).splitlines():
        assert "     " + line in shown or not line, line
