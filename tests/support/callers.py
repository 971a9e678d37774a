# SPDX-License-Identifier: MIT
# callers.py: callers of the daemon, each with its own connection to the bus.
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

from support.place import NAME, PATH


class CallFailed(Exception):
    """The reply to a call was an error; the first argument is the name of the error."""


class Caller:
    """One caller and its connection to the bus."""

    def __init__(self, address):
        self.connection = open_dbus_connection(address)

    def send(self, message):
        self.connection.send(message)

    def ask(self, message, timeout=10):
        """Sends a call; returns the arguments of the reply or raises CallFailed."""
        reply = self.connection.send_and_get_reply(message, timeout=timeout)
        if reply.header.message_type == MessageType.error:
            raise CallFailed(reply.header.fields[HeaderFields.error_name], *reply.body)
        return reply.body

    def send_all(self, calls):
        """Sends the calls in order and reads nothing; returns their serials, for replies()."""
        serials = [next(self.connection.outgoing_serial) for _ in calls]
        for serial, call in zip(serials, calls):
            self.connection.send(call, serial=serial)
        return serials

    def replies(self, serials, timeout=30):
        """Waits for the replies to these calls; returns their arguments in the order of the calls."""
        bodies = dict.fromkeys(serials)
        while None in bodies.values():
            reply = self.connection.receive(timeout=timeout)
            serial = reply.header.fields.get(HeaderFields.reply_serial)
            if serial in bodies:
                bodies[serial] = reply.body
        return list(bodies.values())

    def burst(self, calls):
        """Sends all calls before it reads the first reply; returns the arguments of the replies in order."""
        return self.replies(self.send_all(calls))

    def call(self, plugin, member, signature="", *arguments):
        return self.ask(plugin_call(plugin, member, signature, *arguments))

    def start(self, display, actor, station_type="COMMON"):
        return self.ask(start_call(display, actor, station_type))[0]

    def stop(self, display, actor):
        return self.ask(stop_call(display, actor))[0]

    def hello(self):
        return self.call("Dummy", "HelloWorld")[0]

    def close(self):
        self.connection.close()


def plugin_call(plugin, member, signature="", *arguments):
    address = DBusAddress(f"{PATH}/{plugin}", bus_name=NAME, interface=f"{NAME}.{plugin}")
    return new_method_call(address, member, signature or None, tuple(arguments))


def start_call(display, actor, station_type="COMMON"):
    return plugin_call("DisplayManager", "Start", "sss", display, actor, station_type)


def stop_call(display, actor):
    return plugin_call("DisplayManager", "Stop", "ss", display, actor)
