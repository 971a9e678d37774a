// SPDX-License-Identifier: MIT
// dummy.cpp: the methods of the example plugin; dummy-plugin.cpp calls them.
//
// One function for each bus method, named by the plugin's prefix and the method's name.
#include "plugins/dummy/dummy.h"

#include "common/logger.h"
#include "common/reply.h"

DBusHandlerResult dbus_dummy_hello_world(DBusConnection* connection, DBusMessage* message) {
  log_debug("{DUMMY} dbus_dummy_hello_world: HelloWorld\n");
  const char* answer = "How are you?";
  bus_reply(connection, message, DBUS_TYPE_STRING, &answer);
  return DBUS_HANDLER_RESULT_HANDLED;
}
