# SPDX-License-Identifier: MIT
# test_interfaces.py: the installed descriptions of the interfaces say what the daemon does.
#
# A description is read by tools that generate callers, so each must please those tools, and each method is
# called exactly as it stands there. Nothing but these files describes the objects, not even the daemon.
import ctypes
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call

DTD = "/usr/share/xml/dbus-1/introspect.dtd"
NAME = "com.corvane.ControlServer"
DOC = "org.gtk.GDBus.DocString"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"

# object path, interface, method, arguments, results: (name, type) each
METHODS = [
    ("/com/corvane/ControlServer/DisplayManager", "com.corvane.ControlServer.DisplayManager", "Start",
     [("display", "s"), ("actor", "s"), ("stationtype", "s")], [("queued", "b")]),
    ("/com/corvane/ControlServer/DisplayManager", "com.corvane.ControlServer.DisplayManager", "Stop",
     [("display", "s"), ("actor", "s")], [("queued", "b")]),
    ("/com/corvane/ControlServer/Dummy", "com.corvane.ControlServer.Dummy", "HelloWorld",
     [], [("answer", "s")]),
]
SENSIBLE = {"display": ":1", "actor": "init-station", "stationtype": "PCI"}


@pytest.fixture
def descriptions(installed):
    files = sorted((installed / "usr/share/dbus-1/interfaces").glob(f"{NAME}.*.xml"))
    assert files, "no descriptions are installed"
    return files


def methods(descriptions):
    """All methods of all descriptions, as rows like those of METHODS."""
    rows = []
    for file in descriptions:
        node = ElementTree.parse(file).getroot()
        for interface in node.iter("interface"):
            for method in interface.iter("method"):
                arguments, results = ([(arg.get("name"), arg.get("type")) for arg in method.iter("arg")
                                       if arg.get("direction") == direction] for direction in ("in", "out"))
                assert len(arguments) + len(results) == len(method.findall("arg")), "no direction"
                rows.append((node.get("name"), interface.get("name"), method.get("name"), arguments, results))
    return rows


def call(machine, row, signature, values):
    """The reply to a call of this method: its signature, or the name of the error."""
    path, interface, method = row[:3]
    address = DBusAddress(path, bus_name=NAME, interface=interface)
    message = new_method_call(address, method, signature or None, values)
    reply = machine.caller().connection.send_and_get_reply(message, timeout=10)
    is_error = reply.header.message_type == MessageType.error
    return reply.header.fields[HeaderFields.error_name if is_error else HeaderFields.signature]


def as_described(row):
    """Signature and values of a call exactly as described."""
    return "".join(kind for _, kind in row[3]), tuple(SENSIBLE[name] for name, _ in row[3])


def test_each_plugin_has_a_description_in_a_file_named_like_its_interface(machine, descriptions):
    nodes = {file.name: ElementTree.parse(file).getroot() for file in descriptions}

    registered = [text.removeprefix("path=") for text in machine.texts() if text.startswith("path=")]
    assert sorted(node.get("name") for node in nodes.values()) == sorted(registered)
    for file, node in nodes.items():
        assert [f"{interface.get('name')}.xml" for interface in node] == [file]
        assert node.get("name").replace("/", ".") == "." + file.removesuffix(".xml")


def test_the_descriptions_keep_to_the_definition_of_their_kind(descriptions):
    for file in descriptions:
        done = subprocess.run(["xmllint", "--noout", "--nonet", "--dtdvalid", DTD, file], capture_output=True,
                              text=True)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), file


def test_what_is_described_is_what_callers_rely_on(descriptions):
    assert methods(descriptions) == METHODS


def test_each_signature_is_valid_for_the_bus_library(descriptions):
    library = ctypes.CDLL("libdbus-1.so.3")
    for *_, arguments, results in methods(descriptions):
        for name, kind in arguments + results:
            assert library.dbus_signature_validate_single(kind.encode(), None) == 1, (name, kind)


def test_each_method_is_answered_as_described(machine, descriptions):
    for row in methods(descriptions):
        results = "".join(kind for _, kind in row[4])
        assert call(machine, row, *as_described(row)) == results, row


def test_arguments_that_are_missing_or_of_another_type_are_refused(machine, descriptions):
    for row in methods(descriptions):
        signature, values = as_described(row)
        for i in range(len(values)):
            assert call(machine, row, signature[:i], values[:i]) == UNKNOWN_METHOD, (row, i)
            for kind, value in (("i", 1), ("o", "/a"), ("v", ("s", values[i])), ("as", [values[i]])):
                other = signature[:i] + kind + signature[i + 1:]
                answer = call(machine, row, other, (*values[:i], value, *values[i + 1:]))
                assert answer == UNKNOWN_METHOD, (row, other)


def test_arguments_behind_those_described_are_not_looked_at(machine, descriptions):
    for row in methods(descriptions):
        signature, values = as_described(row)
        results = "".join(kind for _, kind in row[4])
        assert call(machine, row, signature + "sai", (*values, "more", [1, 2])) == results, row


def test_the_code_generator_takes_each_description_with_all_its_words(descriptions, tmp_path):
    for file in descriptions:
        done = subprocess.run(["gdbus-codegen", "--generate-c-code=code", "--generate-docbook=manual", file],
                              cwd=tmp_path, capture_output=True, text=True)
        assert (done.returncode, done.stderr) == (0, "")
        interface = ElementTree.parse(file).getroot().find("interface")
        manual = ElementTree.parse(tmp_path / f"manual-{interface.get('name')}.xml").getroot()
        paragraphs = {" ".join("".join(paragraph.itertext()).split()) for paragraph in manual.iter("para")}
        for described in (interface, *interface.iter("method"), *interface.iter("arg")):
            words = described.find(f"annotation[@name='{DOC}']")
            assert words is not None, f"{described.get('name')} of {file.name} is not documented"
            assert " ".join(words.get("value").split()) in paragraphs
