// SPDX-License-Identifier: MIT
// dummy-plugin: the smallest complete plugin, to copy for the next one.
#pragma once

#include "plugins/plugin.h"

/** The plugin's row for the plugin table. */
extern Plugin dummy_plugin;

/** Stores `context` in the record. Returns 0; it cannot fail. */
int dummy_init(Plugin* plugin, PluginContext* context);

/** Only writes a line to the log: there is nothing to undo. */
void dummy_fin(Plugin* plugin);

/** Answers HelloWorld. Logs any other message and leaves it to libdbus. */
DBusHandlerResult dummy_handle_dbus_message(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
