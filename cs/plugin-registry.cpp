// SPDX-License-Identifier: MIT
// plugin-registry.cpp: the road from the plugin table to the bus and back.
//
// Every plugin has one object path, whose user data is its record; so one message function serves them all
// and needs no lookup. It filters nothing: what is a plugin's own, the plugin decides. Main thread only.
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

void ccs_register_objects(DBusConnection* connection, const DBusObjectPathVTable* object_functions,
                          PluginContext* context) {
  for (Plugin* const* row = plugin_table; *row; ++row) {
    Plugin* plugin = *row;
    if (plugin->init(plugin, context) != 0) {
      log_debug("{EE} Fail to initialize plugin:%s\n", plugin->name);
      ccs_fatal_exit();
    }
    bool registered = false;
    {
      const BusError error;  // never set by the call below, and its message is then null
      log_debug("path=%s\n", plugin->path);
      registered =
          dbus_connection_register_object_path(connection, plugin->path, object_functions, plugin) != 0;
      if (registered) {
        ccs_dispatch_one(connection);
      } else {
        log_debug("{EE}dbus_connection_register_object_path(): %s\n", error.message());
      }
    }
    if (!registered) ccs_fatal_exit();
  }
}

void ccs_fatal_exit() {
  for (Plugin* const* plugin = plugin_table; *plugin; ++plugin) (*plugin)->fin(*plugin);
  exit(1);
}
