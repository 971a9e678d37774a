// SPDX-License-Identifier: MIT
// dummy.cpp: what the example plugin does, apart from how it is reached.
//
// One function per bus method, with the method's name behind the plugin's prefix.
#include "plugins/dummy/dummy.h"

#include "common/logger.h"
#include "common/reply.h"

DBusHandlerResult dbus_dummy_hello_world(DBusConnection* connection, DBusMessage* message) {
  log_debug("{DUMMY} dbus_dummy_hello_world: HelloWorld\n");
  const char* answer = "How are you?";
  bus_reply(connection, message, DBUS_TYPE_STRING, &answer);
  return DBUS_HANDLER_RESULT_HANDLED;
}
