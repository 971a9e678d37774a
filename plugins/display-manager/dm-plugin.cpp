// SPDX-License-Identifier: MIT
// dm-plugin.cpp: record and message handler of the display manager.
//
// The handler only tells the two methods apart: dm-dbus.cpp has the methods, display-manager.cpp what they
// start. It runs on the main thread, which usually waits for one launch at most, and never for an actor to
// exit.
#include "plugins/display-manager/dm-plugin.h"

#include "common/logger.h"
#include "plugins/display-manager/dm-dbus.h"

static constexpr const char* interface_name = "com.corvane.ControlServer.DisplayManager";

Plugin dm_plugin = {.name = "DisplayManager",
                    .path = "/com/corvane/ControlServer/DisplayManager",
                    .context = nullptr,
                    .init = dm_init,
                    .fin = dm_fin,
                    .handle_message = dm_handle_dbus_message};

int dm_init(Plugin* plugin, PluginContext* context) {
  log_debug("Initialize DisplayManager plugin\n");
  plugin->context = context;
  return 0;
}

void dm_fin(Plugin*) {
  log_debug("Finalize DisplayManager plugin\n");
}

// Writes the line for an unknown message without log_debug, because readers of the log know its form. In the
// place of the function name it has a longer text, which shifts the values: "obj=" shows the interface,
// "intf=" the member, "member=" nothing, and the path is missing.
static void log_unhandled(DBusMessage* message) {
  if (!plogger || plogger->level < LOG_LEVEL_DEBUG) return;
  plogger->write(plogger, "%s:%i:%s: DEBUG: Unhandled message: obj=%s, intf=%s, member=%s\n", __FILE__,
                 __LINE__, "dm_handle_dbus_message dbus_message_get_path(message)",
                 dbus_message_get_interface(message), dbus_message_get_member(message), "");
}

DBusHandlerResult dm_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin* plugin) {
  if (dbus_message_is_method_call(message, interface_name, "Start")) {
    return dbus_dm_start(connection, message, plugin);
  }
  if (dbus_message_is_method_call(message, interface_name, "Stop")) {
    return dbus_dm_stop(connection, message, plugin);
  }
  log_unhandled(message);
  return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}
