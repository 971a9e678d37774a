// SPDX-License-Identifier: MIT
// plugin-registry.cpp: from the plugin table to the bus and back.
//
// Every plugin has one object path, and the path's user data is the plugin's record. So one message function
// serves all plugins without a lookup. It filters nothing: each plugin decides which messages are its own.
// Main thread only.
#include "cs/plugin-registry.h"

#include <cstdlib>

#include "common/dbus-owners.h"
#include "common/logger.h"
#include "cs/bus.h"

DBusHandlerResult ccs_dbus_message_handler(DBusConnection* connection, DBusMessage* message, void* data) {
  auto* plugin = static_cast<Plugin*>(data);
  log_debug("obj=%s, interface=%s, member=%s, type=%d\n", dbus_message_get_path(message),
            dbus_message_get_interface(message), dbus_message_get_member(message),
            dbus_message_get_type(message));
  return plugin->handle_message(connection, message, plugin);
}

void ccs_object_unregister(DBusConnection*, void*) {
  log_debug("{II}\n");
}

bool ccs_register_objects(DBusConnection* connection, const DBusObjectPathVTable* object_functions,
                          PluginContext* context) {
  for (Plugin* const* row = plugin_table; *row; ++row) {
    Plugin* plugin = *row;
    if (plugin->init(plugin, context) != 0) {
      log_debug("{EE} Fail to initialize plugin:%s\n", plugin->name);
      return false;
    }
    const BusError error;  // the call below never sets it, so its message is null
    log_debug("path=%s\n", plugin->path);
    if (!dbus_connection_register_object_path(connection, plugin->path, object_functions, plugin)) {
      log_debug("{EE}dbus_connection_register_object_path(): %s\n", error.message());
      return false;
    }
    ccs_dispatch_one(connection);
  }
  return true;
}

void ccs_fatal_exit() {
  for (Plugin* const* plugin = plugin_table; *plugin; ++plugin) (*plugin)->fin(*plugin);
  exit(1);
}
