// SPDX-License-Identifier: MIT
// dummy-plugin.cpp: record and message handler of the example plugin.
//
// A handler tests its methods one after another and returns the result of the first that matches. It logs any
// other message and leaves it unhandled. Everything runs on the main thread and returns at once.
#include "plugins/dummy/dummy-plugin.h"

#include "common/logger.h"
#include "plugins/dummy/dummy.h"

Plugin dummy_plugin = {.name = "Dummy",
                       .path = "/com/corvane/ControlServer/Dummy",
                       .context = nullptr,
                       .init = dummy_init,
                       .fin = dummy_fin,
                       .handle_message = dummy_handle_dbus_message};

int dummy_init(Plugin* plugin, PluginContext* context) {
  log_debug("Initialize Dummy plugin()\n");
  plugin->context = context;
  return 0;
}

void dummy_fin(Plugin*) {
  log_debug("Finalize Dummy plugin()\n");
}

DBusHandlerResult dummy_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin*) {
  if (dbus_message_is_method_call(message, "com.corvane.ControlServer.Dummy", "HelloWorld")) {
    return dbus_dummy_hello_world(connection, message);
  }
  log_debug("Unhandled message: obj=%s, intf=%s, member=%s\n", dbus_message_get_path(message),
            dbus_message_get_interface(message), dbus_message_get_member(message));
  return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}
