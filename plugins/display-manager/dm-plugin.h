// SPDX-License-Identifier: MIT
// dm-plugin: the display manager as the core sees it.
#pragma once

#include "plugins/plugin.h"

/** The plugin's row for the plugin table. */
extern Plugin dm_plugin;

/** Stores `context`, which holds the list of stations, in the record. Returns 0; it cannot fail. */
int dm_init(Plugin* plugin, PluginContext* context);

/** Only writes a line to the log: stations end with the process, and actors continue without it. */
void dm_fin(Plugin* plugin);

/** Passes Start and Stop to their methods. Logs any other message and leaves it to libdbus. */
DBusHandlerResult dm_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
