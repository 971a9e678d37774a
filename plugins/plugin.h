// SPDX-License-Identifier: MIT
// plugin: the descriptor by which the core knows a plugin.
#pragma once

#include <dbus/dbus.h>

#include <atomic>

struct Station;  // the display manager's

/**
 * What the plugins share: one block, owned by main, zeroed before the first plugin is initialised and handed
 * to every plugin's init. The core never reads it.
 */
struct PluginContext {
  std::atomic<Station*> stations;  // head of the display manager's station list
};

/**
 * One plugin. Its functions run on the main thread. `context` is null until `init` stores there what it is
 * given; everything else is constant.
 */
struct Plugin {
  const char* name;
  const char* path;  // of the object that the plugin answers for
  PluginContext* context;

  /** Returns 0, or another number to end the daemon: nothing is served without every plugin. */
  int (*init)(Plugin* plugin, PluginContext* context);

  /** Called for every plugin when set-up fails, also for one whose init failed or never ran. */
  void (*fin)(Plugin* plugin);

  /**
   * Gets every message for `path`, of any type. Answers the plugin's own method calls and returns
   * DBUS_HANDLER_RESULT_HANDLED; returns DBUS_HANDLER_RESULT_NOT_YET_HANDLED for anything else, a call of its
   * own whose arguments cannot be read included, so that the bus library answers the call as an unknown one.
   */
  DBusHandlerResult (*handle_message)(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
};
