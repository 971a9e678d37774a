# SPDX-License-Identifier: MIT
# test_interfaces.py: the installed descriptions of the interfaces agree with the daemon.
#
# Tools generate callers from these files, and nothing else describes the objects. So the files must be valid,
# and the daemon must answer each method as it is described.
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from jeepney import DBusAddress, HeaderFields, new_method_call

from support.place import NAME, PATH

DTD = "/usr/share/xml/dbus-1/introspect.dtd"
DOC = "org.gtk.GDBus.DocString"

# plugin, method, arguments, results: (name, type) each
METHODS = [
    ("DisplayManager", "Start", [("display", "s"), ("actor", "s"), ("stationtype", "s")], [("queued", "b")]),
    ("DisplayManager", "Stop", [("display", "s"), ("actor", "s")], [("queued", "b")]),
    ("Dummy", "HelloWorld", [], [("answer", "s")]),
]
VALUES = {"display": ":1", "actor": "init-station", "stationtype": "PCI"}


@pytest.fixture
def descriptions(installed):
    return sorted((installed / "usr/share/dbus-1/interfaces").glob(f"{NAME}.*.xml"))


def arguments(method, direction):
    arguments = [arg for arg in method.iter("arg") if arg.get("direction") == direction]
    return [(arg.get("name"), arg.get("type")) for arg in arguments]


def test_the_descriptions_have_the_methods_that_callers_rely_on(descriptions):
    methods = []
    for file in descriptions:
        node = ElementTree.parse(file).getroot()
        [interface] = node.iter("interface")
        plugin = node.get("name").removeprefix(f"{PATH}/")
        assert interface.get("name") == file.stem == f"{NAME}.{plugin}"
        for method in interface.iter("method"):
            methods.append((plugin, method.get("name"), arguments(method, "in"), arguments(method, "out")))
    assert methods == METHODS


def test_each_registered_object_has_a_description(machine, descriptions):
    registered = [text.removeprefix("path=") for text in machine.texts() if text.startswith("path=")]
    assert sorted(registered) == [ElementTree.parse(file).getroot().get("name") for file in descriptions]


def test_the_daemon_answers_each_method_as_described(machine):
    for plugin, method, taken, returned in METHODS:
        address = DBusAddress(f"{PATH}/{plugin}", bus_name=NAME, interface=f"{NAME}.{plugin}")
        types = "".join(kind for _, kind in taken) or None
        call = new_method_call(address, method, types, tuple(VALUES[name] for name, _ in taken))
        reply = machine.caller().connection.send_and_get_reply(call, timeout=10)
        assert reply.header.fields[HeaderFields.signature] == "".join(kind for _, kind in returned), method


def test_the_descriptions_are_valid(descriptions):
    command = ["xmllint", "--noout", "--nonet", "--dtdvalid", DTD, *descriptions]
    done = subprocess.run(command, capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_the_code_generator_takes_each_description_and_each_part_of_it_has_documentation(
    descriptions, tmp_path
):
    for file in descriptions:
        command = ["gdbus-codegen", "--generate-c-code=code", file]
        done = subprocess.run(command, cwd=tmp_path, capture_output=True, text=True)
        assert (done.returncode, done.stderr) == (0, "")
        interface = ElementTree.parse(file).getroot().find("interface")
        for described in (interface, *interface.iter("method"), *interface.iter("arg")):
            assert described.find(f"annotation[@name='{DOC}']") is not None, described.get("name")
