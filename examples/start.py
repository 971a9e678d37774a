# SPDX-License-Identifier: MIT
# start.py: starts the login window on display :1, in Python with Debian's package python3-dbus.
#
# Run it as root with
#     /usr/bin/python3 start.py
# It prints "queued" or "refused"; it exits with 1 if there is no answer.
import dbus

stations = dbus.Interface(
    dbus.SystemBus().get_object(
        "com.corvane.ControlServer", "/com/corvane/ControlServer/DisplayManager", introspect=False
    ),
    "com.corvane.ControlServer.DisplayManager",
)
queued = stations.Start(":1", "local-login", "PCI")
print("queued" if queued else "refused")
