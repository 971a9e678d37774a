// SPDX-License-Identifier: MIT
// plugin-registry: initialises the plugins, routes messages to them, and runs their fin on a fatal error.
#pragma once

#include <dbus/dbus.h>

#include "plugins/plugin.h"

/** All plugins, ended by null, in the order of initialisation, registration and finalisation. */
extern Plugin* const plugin_table[];

/**
 * Message function of every registered path; `data` is the path's Plugin. Returns the plugin's result. Main
 * thread.
 */
DBusHandlerResult ccs_dbus_message_handler(DBusConnection* connection, DBusMessage* message, void* data);

/** Unregister function of every registered path. Only writes a line to the log. */
void ccs_object_unregister(DBusConnection* connection, void* data);

/**
 * Initialises each plugin with `context` and registers its path, one plugin after the other. Returns false
 * and logs the reason when a plugin or a path fails, which is fatal. `object_functions` (copied by libdbus)
 * serve every path. Main thread.
 */
[[nodiscard]] bool ccs_register_objects(DBusConnection* connection,
                                        const DBusObjectPathVTable* object_functions, PluginContext* context);

/** Ends a set-up that failed: runs the fin of every plugin, then exits with status 1. Main thread. */
[[noreturn]] void ccs_fatal_exit();
