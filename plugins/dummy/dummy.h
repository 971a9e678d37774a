// SPDX-License-Identifier: MIT
// dummy: the methods of com.corvane.ControlServer.Dummy.
#pragma once

#include <dbus/dbus.h>

/**
 * HelloWorld() -> s: answers "How are you?". It ignores all arguments.
 * Returns DBUS_HANDLER_RESULT_HANDLED, even if the reply cannot be sent. Main thread.
 */
DBusHandlerResult dbus_dummy_hello_world(DBusConnection* connection, DBusMessage* message);
