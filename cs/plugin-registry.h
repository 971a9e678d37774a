// SPDX-License-Identifier: MIT
// plugin-registry: bringing the plugins up, handing them their messages, and giving up when that fails.
#pragma once

#include <dbus/dbus.h>

#include "plugins/plugin.h"

/** All plugins, ended by null; in the order of initialisation, registration and finalisation. */
extern Plugin* const plugin_table[];

/** Message function of every registered path; `data` is the path's Plugin. Returns what the plugin returns.
 */
DBusHandlerResult ccs_dbus_message_handler(DBusConnection* connection, DBusMessage* message, void* data);

/** Unregister function of every registered path; leaves a line in the log. */
void ccs_object_unregister(DBusConnection* connection, void* data);

/**
 * Initialises each plugin with `context` and registers its path, one plugin after the other. A plugin or a
 * path that fails is fatal. `object_functions` (copied by the bus library) serve every path. Main thread.
 */
void ccs_register_objects(DBusConnection* connection, const DBusObjectPathVTable* object_functions,
                          PluginContext* context);

/** Ends a set-up that failed: the fin of every plugin, then exit status 1. Main thread. */
[[noreturn]] void ccs_fatal_exit();
