// SPDX-License-Identifier: MIT
// dummy-plugin: the smallest complete plugin, to be copied by whoever writes the next one.
#pragma once

#include "plugins/plugin.h"

/** The plugin's row for the plugin table. */
extern Plugin dummy_plugin;

/** Keeps `context` in the record. Returns 0; it cannot fail. */
int dummy_init(Plugin* plugin, PluginContext* context);

/** Leaves a line in the log; there is nothing to undo. */
void dummy_fin(Plugin* plugin);

/** Answers HelloWorld; any other message is logged and left to the bus library. */
DBusHandlerResult dummy_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
