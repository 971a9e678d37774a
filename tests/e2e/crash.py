# SPDX-License-Identifier: MIT
# crash.py: makes a thread of the daemon crash, and reads the frames of the report.
import ctypes
import re
import signal

import pytest

from support.machine import SANITIZER

SIGNAL_DELAYED = "it may delay a signal from outside until a wait ends"

# The C library writes a frame: the object, the name of the function if it has one, and the address. The
# kernel's own object has no path.
FRAME = re.compile(r"(?:/\S+|linux-(?:gate|vdso)\.so\.1)\((\w*)\+0x[0-9a-f]+\) ?\[0x[0-9a-f]+\]")


def crash_thread(machine, thread):
    if SANITIZER == "thread":
        pytest.skip(SIGNAL_DELAYED)
    assert ctypes.CDLL(None).tgkill(machine.daemon.pid, thread, signal.SIGSEGV) == 0
