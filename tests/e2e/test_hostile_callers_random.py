# SPDX-License-Identifier: MIT
# test_hostile_callers_random.py: every call gets exactly one reply, whatever random messages a caller sends.
import tempfile

from jeepney import Endianness, HeaderFields, MessageType

from hostile import BASIC, SLACK_BYTES, START_BYTES, call
from stress import chance, report, size
from support.place import LOG, NAME, PATH

TEXTS = ":1 :2 :x :2147483648 host:3.1 init-station xhotkey local-login press-fkey PCI COMMON".split()
TEXTS += ["", "%n%s", "\n", "\u202e", 200 * "x", 5000 * "y"]
MEMBERS = ("Start", "Start", "Stop", "Stop", "HelloWorld", "Introspect", "x_1")


class Messages:
    """Random messages. All are valid on the bus; the daemon expects few of them."""

    def __init__(self, ground):
        self.random = chance()
        self.destinations = (NAME, NAME, NAME, ground.unique_name)

    def type(self, depth=0):
        kind = self.random.random()
        if depth > 3 or kind < 0.7:
            return self.random.choice("sssssybnqiuxtdogh")
        if kind < 0.8:
            return "a" + self.type(depth + 1)
        if kind < 0.87:
            return "v"
        if kind < 0.94:
            return "(" + "".join(self.type(depth + 1) for _ in range(self.random.randint(1, 3))) + ")"
        return "a{" + self.random.choice("sybnqiuxtdog") + self.type(depth + 1) + "}"

    def value(self, signature):
        """Returns a value for the first type of the signature, and the rest of the signature."""
        letter, rest = signature[0], signature[1:]
        if letter == "s":
            return self.random.choice(TEXTS), rest
        if letter == "h":
            return self.file, rest
        if letter == "v":
            inner = self.type(2)
            return (inner, self.value(inner)[0]), rest
        if letter == "(":
            fields = []
            while rest[0] != ")":
                value, rest = self.value(rest)
                fields.append(value)
            return tuple(fields), rest[1:]
        if letter == "a" and rest[0] == "{":
            key, rest = self.value(rest[1:])
            value, rest = self.value(rest)
            return {key: value}, rest[1:]
        if letter == "a":
            value, rest = self.value(rest)
            return [value] if self.random.random() < 0.6 else [], rest
        return BASIC[letter], rest

    def message(self):
        random = self.random
        signature = "".join(self.type() for _ in range(random.randint(0, 4)))
        if random.random() < 0.3:
            signature = "sss"
        body, rest = [], signature
        while rest:
            value, rest = self.value(rest)
            body.append(value)
        plugin = random.choice(("DisplayManager", "DisplayManager", "Dummy"))
        if signature == "sss" and random.random() < 0.3:
            actor = random.choice(("init-station", "xhotkey", "local-login"))
            body = [random.choice((":1", ":2")), actor, "PCI"]
        message = call(
            random.choice(MEMBERS),
            signature,
            body,
            plugin=plugin,
            interface=random.choice(("", "", "", None, "a.b")),
            path=random.choice((None, None, None, None, "/", f"{PATH}/Dummy/x")),
            destination=random.choice(self.destinations),
            flags=random.choice((0, 0, 0, 1, 2, 3, 4, 8)),
        )
        message.header.endianness = random.choice((Endianness.little, Endianness.big))
        kind = random.random()
        if kind < 0.1:
            message.header.message_type = random.choice((MessageType.method_return, MessageType.error))
            message.header.fields[HeaderFields.reply_serial] = random.randint(1, 2**32 - 1)
            message.header.fields[HeaderFields.error_name] = "a.b"
        elif kind < 0.15 and HeaderFields.interface in message.header.fields:
            message.header.message_type = MessageType.signal
        return message


def test_each_random_message_that_wants_a_reply_gets_exactly_one(ground):
    messages = Messages(ground)
    total = size(3000, 100_000)
    descriptors = memory = None
    accepted = 0
    with tempfile.TemporaryFile(dir="/run") as messages.file:
        for sent in range(0, total, 100):
            client = ground.client()
            for _ in range(100):
                client.send(messages.message())
            client.settle()
            with open(LOG, errors="surrogateescape") as log:
                accepted += log.read().count("DEBUG: Start method_start_thread for actor:")
            ground.clean()
            if sent % 1000 == 900:
                ground.serves_at_once()
                ground.clean()
                if descriptors is None:  # the caches are warm
                    descriptors, memory, accepted = ground.descriptors(), ground.memory(), 0
                assert ground.descriptors() == descriptors
    growth = ground.memory() - memory
    slowest = f"{1000 * ground.slowest:.0f} ms"
    report(
        "random messages",
        messages=total,
        starts=accepted,
        growth=f"{growth // 1024} KiB",
        slowest_next_caller=slowest,
    )
    assert growth <= SLACK_BYTES + accepted * START_BYTES
    assert ground.machine.daemon.poll() is None
