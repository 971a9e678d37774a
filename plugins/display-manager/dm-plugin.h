// SPDX-License-Identifier: MIT
// dm-plugin: the display manager as the core sees it.
#pragma once

#include "plugins/plugin.h"

/** The plugin's row for the plugin table. */
extern Plugin dm_plugin;

/** Keeps `context`, which holds the station list, in the record. Returns 0; it cannot fail. */
int dm_init(Plugin* plugin, PluginContext* context);

/** Leaves a line in the log and stops nothing: stations end with the process, actors go on without it. */
void dm_fin(Plugin* plugin);

/** Answers Start and Stop; any other message is logged and left to the bus library. */
DBusHandlerResult dm_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
