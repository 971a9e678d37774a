# SPDX-License-Identifier: MIT
# test_manual.py: the manual pages list what the programs accept, log, answer and run.
#
# mandoc reads the pages. Each list is compared in both directions with the program or its sources, so that
# neither changes without the other. Root runs each example against a daemon on the system bus.
import os
import re
import signal
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call

from conftest import OPTIONS
from support.place import NAME, PATH

SOURCES = Path(__file__).resolve().parent.parent.parent
MANUAL = Path(os.environ["CORVANE_INSTALLED"]) / "usr/share/man"
PAGES = sorted(MANUAL.glob("man*/*"))
OBJECTS = sorted(page.stem for page in MANUAL.glob("man5/*"))
MANAGER = f"{NAME}.DisplayManager"
MANAGER_SOURCES = SOURCES / "plugins/display-manager"
ERROR = "org.freedesktop.DBus.Error"


def words(element):
    return " ".join("".join(element.itertext()).split())


class Page:
    """A manual page as mandoc reads it."""

    def __init__(self, path):
        html = subprocess.check_output(["mandoc", "-Thtml", "-Ofragment", MANUAL / path], text=True)
        self.root = ElementTree.fromstring(f"<page>{html}</page>")

    def section(self, title):
        """A section or subsection."""
        found = [section for section in self.root.iter("section") if words(section[0]) == title]
        assert len(found) == 1, f"{len(found)} sections {title}"
        return found[0]

    def entries(self, title):
        """The entries of the lists in a section: the elements of each term and of its text."""
        entries = []
        for listed in self.section(title).iter("dl"):
            entries += zip(listed[::2], listed[1::2], strict=True)
        return entries

    def terms(self, title):
        return [words(term) for term, _ in self.entries(title)]

    def options(self):
        return sorted(words(flag) for term, _ in self.entries("OPTIONS") for flag in term.iter("code"))

    def synopsis(self, kind):
        """The words of one kind in the synopsis: Fl for an option, Cm for a command."""
        codes = self.section("SYNOPSIS").iter("code")
        return sorted({words(code) for code in codes if code.get("class") == kind})

    def examples(self, title):
        return ["".join(block.itertext()) for block in self.section(title).iter("pre")]


def test_mandoc_has_no_complaint():
    done = subprocess.run(["mandoc", "-Tlint", "-W", "warning", *PAGES], capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


# ---- options ----


def test_the_page_of_the_daemon_has_the_options_of_its_usage_text(bare):
    usage = bare.run("--help").stderr
    assert sorted(re.findall(r"^\t(--\w+)\t", usage, re.MULTILINE)) == OPTIONS
    page = Page("man8/corvane-cs.8")
    assert page.options() == page.synopsis("Fl") == sorted([*OPTIONS, "-v"])


def test_the_page_of_the_command_has_the_options_and_commands_of_its_help(laid_over):
    page = Page("man8/corvane-ctl.8")
    usage = subprocess.check_output(["corvane-ctl", "--help"], text=True)
    options = sorted({"-v", *re.findall(r"(--[\w-]+)", usage)})
    commands = re.findall(r"^  corvane-ctl (\w+)", usage, re.MULTILINE)
    assert len(options) == 8 and len(commands) == 5

    assert page.options() == page.synopsis("Fl") == options
    assert page.terms("COMMANDS") == commands
    assert page.synopsis("Cm") == sorted(commands)


# ---- diagnostics ----

LITERALS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
REPORTS = [  # a call that logs or prints a message; the same call with a literal text
    (r"\blog_(?:debug|error)\(", rf"\blog_(?:debug|error)\(\s*{LITERALS}[,)]"),
    (r"->write\(", rf"->write\(\s*\w+,\s*{LITERALS}[,)]"),
    (r"\bfputs\([^;]*, stderr\)", rf"\bfputs\(\s*{LITERALS}, stderr\)"),
    (r"\bfprintf\(\s*stderr,", rf"\bfprintf\(\s*stderr,\s*{LITERALS}[,)]"),
    (r"\bwrite\(\s*STDERR_FILENO,", rf"\bwrite\(\s*STDERR_FILENO,\s*{LITERALS}[,)]"),
]


def messages(*folders):
    """Every message that the sources in these folders log or print, with * for what changes."""
    found = set()
    for source in (file for folder in folders for file in (SOURCES / folder).rglob("*.cpp")):
        code = re.sub(r"^\s*//.*$", "", source.read_text(), flags=re.MULTILINE)
        for call, with_literal in REPORTS:
            literals = re.findall(with_literal, code)
            assert len(literals) == len(re.findall(call, code)), f"{source}: no literal after {call}"
            found.update("".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literal)) for literal in literals)
    texts = {text.removeprefix("%s:%i:%s: DEBUG: ").replace("\\n", "") for text in found}
    return {re.sub(r"%(?:d|i|s)", "*", text) for text in texts}


def diagnostics(page):
    """The messages of the page, with * for its slanted words. Each occurs once, with an explanation."""
    explained, unexplained = set(), []
    for term, text in page.entries("DIAGNOSTICS"):
        for changing in term.iter("i"):
            changing.text = "*"
        unexplained.append(words(term))
        if words(text):
            assert not explained & set(unexplained), f"twice: {unexplained}"
            explained.update(unexplained)
            unexplained = []
    assert not unexplained
    return explained


@pytest.mark.parametrize("page", ["man8/corvane-cs.8", *(f"man5/{name}.5" for name in OBJECTS)])
def test_the_diagnostics_of_each_page_are_the_messages_of_its_sources(page):
    plugin = [file.parent for file in (SOURCES / "plugins").glob(f"*/{Path(page).name}.in")]
    logged = messages(*plugin or ("cs", "common"))
    listed = diagnostics(Page(page))
    assert logged - listed == set(), "not on the page"
    assert listed - logged == set(), "on the page only"


# ---- actors, station types, errors ----


def test_the_pages_have_the_actors_of_the_daemon_with_their_codes_groups_and_programs(laid_over):
    sources = "".join(source.read_text() for source in MANAGER_SOURCES.glob("*.cpp"))
    sources = sources.replace(".code = init_station_code", ".code = 1")
    rows = re.findall(r'\.name = "([\w-]+)",\s*\.code = (\d),\s*\.group = (\d)', sources)
    listed = subprocess.check_output(["corvane-ctl", "actors"], text=True).replace(":1", ":N")
    commands = re.findall(r"^  (\S.*)$", listed.replace("pfk1.log", "pfkN.log"), re.MULTILINE)
    assert len(rows) == 7 and len(commands) == 6

    entries = Page(f"man5/{MANAGER}.5").entries("ACTORS")
    codes = [re.match(r"Code (\d), group (\d)\.", words(text)).groups() for _, text in entries]
    assert [(words(term), *code) for (term, _), code in zip(entries, codes, strict=True)] == rows
    assert [words(line) for _, text in entries for line in text.iter("code")] == commands
    assert Page("man7/corvane-actors.7").terms("PROGRAMS") == commands


def test_the_daemon_knows_the_station_types_of_the_page_by_their_codes(bare):
    bare.start_bus()
    bare.start_daemon("--verbose")
    entries = Page(f"man5/{MANAGER}.5").entries("STATION TYPES")
    for number, (term, text) in enumerate(entries, 1):
        assert bare.caller().start(f":{number}", "init-station", words(term)) is True
        code = re.fullmatch(r"Code (\d)\.", words(text))[1]
        bare.wait_log(f"#{number} station: display_num={number}, type={code}$")
    assert len(entries) == 3


def error_of(machine, name, path, member):
    """The name of the error that answers a call."""
    call = new_method_call(DBusAddress(path, bus_name=NAME, interface=name), member)
    reply = machine.caller().connection.send_and_get_reply(call, timeout=10)
    assert reply.header.message_type == MessageType.error
    return reply.header.fields[HeaderFields.error_name]


def error_of_an_exit(machine, name, path, member):
    """The name of the error that answers a call during which the daemon exits."""
    machine.daemon.send_signal(signal.SIGSTOP)
    caller = machine.caller()
    caller.send(new_method_call(DBusAddress(path, bus_name=NAME, interface=name), member))
    bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
    caller.ask(new_method_call(bus, "GetId"))  # by now the bus has passed on the call
    machine.daemon.kill()
    reply = caller.connection.receive(timeout=10)
    while reply.header.message_type != MessageType.error:
        reply = caller.connection.receive(timeout=10)
    return reply.header.fields[HeaderFields.error_name]


@pytest.mark.parametrize("name", OBJECTS)
def test_the_page_lists_the_errors_that_root_gets(system_bus, name):
    path = f"/{name.replace('.', '/')}"
    description = MANUAL.parent / f"dbus-1/interfaces/{name}.xml"
    method = ElementTree.parse(description).find(".//method").get("name")
    assert error_of(system_bus, name, path, method) == f"{ERROR}.ServiceUnknown"
    system_bus.start_daemon()
    assert error_of(system_bus, name, f"{PATH}/Other", method) == f"{ERROR}.UnknownMethod"
    assert error_of(system_bus, name, path, "Restart") == f"{ERROR}.AccessDenied"
    assert error_of_an_exit(system_bus, name, path, method) == f"{ERROR}.NoReply"
    errors = ["AccessDenied", "NoReply", "ServiceUnknown", "UnknownMethod"]
    listed = Page(f"man5/{name}.5").terms("ERROR REPLIES")
    assert sorted(listed) == [f"{ERROR}.{error}" for error in errors]


# ---- examples ----

# object, heading, the output of each command
EXAMPLES = [
    ("DisplayManager", "busctl", ["b true\n", "b true\n"]),
    ("DisplayManager", "gdbus", ["(true,)\n"]),
    ("DisplayManager", "dbus-send", ["   boolean true\n"]),
    ("Dummy", "busctl", ['s "How are you?"\n']),
    ("Dummy", "gdbus", ["('How are you?',)\n"]),
    ("Dummy", "dbus-send", ["   How are you?"]),
]


def run_examples(blocks):
    """Runs commands; returns what each one printed."""
    outputs = []
    for block in blocks:
        done = subprocess.run(["sh", "-e", "-c", block], cwd="/", capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, f"{block}\n{done.stderr}"
        outputs.append(done.stdout)
    return outputs


@pytest.mark.parametrize("plugin, heading, outputs", EXAMPLES)
def test_each_example_of_a_call_works(system_bus, plugin, heading, outputs):
    system_bus.start_daemon()
    assert run_examples(Page(f"man5/{NAME}.{plugin}.5").examples(heading)) == outputs


def test_each_example_of_corvane_ctl_works(lasting_actors):
    lasting_actors.start_daemon()
    page = Page("man8/corvane-ctl.8")
    [output] = run_examples(page.examples("A station"))
    status = [" ".join(line.split()[:3]) for line in output.splitlines()]
    assert status == [
        ":1 local-login runs,",
        ":1 xhotkey runs,",
        "corvane-cs 1.0.0 runs,",
        "",
        "DISPLAY ACTOR STATE",
        ":1 local-login runs",
        ":1 xhotkey runs",
        ":1 ends, process",
        ":1 ends, process",
    ]
    subprocess.run(["corvane-ctl", "start", ":3", "remote-login"], check=True, capture_output=True)
    assert run_examples(page.examples("A program")) == [":3\n"]


def test_the_example_of_a_daemon_on_a_private_bus_works(laid_over):
    private, _ = Page("man8/corvane-cs.8").examples("EXAMPLES")
    assert run_examples([private]) == ["('How are you?',)\n"]


def test_the_example_of_a_daemon_on_the_system_bus_works(system_bus):
    _, by_hand = Page("man8/corvane-cs.8").examples("EXAMPLES")
    [pid] = run_examples([by_hand])
    system_bus.wait_gone(int(pid))
    assert system_bus.pid_file() is None and "Start mainloop ..." in system_bus.texts()


def test_the_example_of_an_actor_works(machine):
    [script] = Page("man7/corvane-actors.7").examples("EXAMPLES")
    machine.remove("corvane-xh")
    actor = Path("/run/stage/actors/bin/corvane-xh")
    actor.write_text(script)
    actor.chmod(0o755)
    assert machine.caller().start(":1", "xhotkey") is True
    pid = int(machine.wait_log(r"child=(\d+)")[0][1])
    machine.wait("the program", lambda: "sleep" in Path(f"/proc/{pid}/cmdline").read_text())
    assert "DBUS_SESSION_BUS_ADDRESS" not in Path(f"/proc/{pid}/environ").read_text()


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_the_terminal_shows_each_example_as_it_is_typed(page):
    """A hyphen that is not marked as one becomes another character and cannot be copied."""
    command = ["man", "-E", "UTF-8", "-l", page]
    environment = {**os.environ, "MANWIDTH": "80"}
    shown = subprocess.check_output(command, text=True, env=environment).splitlines()
    for line in "\n".join(Page(page).examples("EXAMPLES")).splitlines():
        assert "     " + line in shown or not line, line
