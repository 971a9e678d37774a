# SPDX-License-Identifier: MIT
# test_attacks.py: what a user without rights tried against an installed daemon, each attempt as it was made.
#
# The attacker is a user of no group but his own. He has what everyone has: the system bus, processes of any
# name, and the programs that he runs as an actor.
import os
from pathlib import Path

from support.place import LOG, STAGE

ATTACKER = 65534

# An actor that gives up its rights and then does what it can with each descriptor that it was given.
MEDDLING_ACTOR = f"""#!/usr/bin/python3
import fcntl, os
os.setgroups([])
os.setresgid({ATTACKER}, {ATTACKER}, {ATTACKER})
os.setresuid({ATTACKER}, {ATTACKER}, {ATTACKER})
for descriptor in range(3, 256):
    try:
        fcntl.fcntl(descriptor, fcntl.F_SETFL, 0)
        os.truncate(descriptor, 0)
        os.write(descriptor, b"2026-01-01 00:00:00:cs/corvane-cs.cpp:57:segfault_handler: ERROR: forged\\n")
    except OSError:
        pass
os.kill(os.getpid(), 9)
"""


def test_an_actor_of_another_user_cannot_touch_the_log(system_bus):
    system_bus.remove("corvane-xh")
    actor = Path(f"{STAGE}/actors/bin/corvane-xh")
    actor.write_text(MEDDLING_ACTOR)
    actor.chmod(0o755)
    system_bus.start_daemon()
    before = system_bus.log_text()
    assert system_bus.caller().start(":1", "xhotkey") is True
    system_bus.wait("the actor's end", lambda: "Child process died" in system_bus.log_text())

    assert system_bus.log_text().startswith(before)
    assert "forged" not in system_bus.log_text()
    flags = [line.split()[1] for descriptor in os.listdir(f"/proc/{system_bus.daemon.pid}/fd")
             if os.readlink(f"/proc/{system_bus.daemon.pid}/fd/{descriptor}") == LOG
             for line in Path(f"/proc/{system_bus.daemon.pid}/fdinfo/{descriptor}").read_text().splitlines()
             if line.startswith("flags:")]
    assert len(flags) == 1 and int(flags[0], 8) & os.O_APPEND
