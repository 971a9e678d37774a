// SPDX-License-Identifier: MIT
// dummy: the methods of com.corvane.ControlServer.Dummy.
#pragma once

#include <dbus/dbus.h>

/**
 * HelloWorld() -> s: answers "How are you?". Arguments that a caller sends are not read.
 * Returns DBUS_HANDLER_RESULT_HANDLED whatever becomes of the reply. Main thread.
 */
DBusHandlerResult dbus_dummy_hello_world(DBusConnection* connection, DBusMessage* message);
