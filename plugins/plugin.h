// SPDX-License-Identifier: MIT
// plugin: the descriptor by which the core knows a plugin, and what main prepares for the plugins.
#pragma once

#include <dbus/dbus.h>
#include <pthread.h>

#include <atomic>

// What main prepares for the display manager before it initialises any plugin. It is declared here because
// main does not include a plugin's header.

struct Station;

/**
 * The block that all plugins share. main owns it, zeroes it once and passes it to every plugin's init. The
 * core never reads it.
 */
struct PluginContext {
  std::atomic<Station*> stations;  // head of the list of stations
};

/** Held while a station is linked or unlinked. main initialises it; the display manager defines it. */
extern pthread_mutex_t station_table_mutex;

/**
 * One plugin. Its functions run on the main thread. `context` is null until `init` stores its argument there.
 * All other fields are constant.
 */
struct Plugin {
  const char* name;
  const char* path;  // of the plugin's object
  PluginContext* context;

  /** Returns 0, or any other number to end the daemon: it serves only with all plugins. */
  int (*init)(Plugin* plugin, PluginContext* context);

  /** Runs for every plugin when set-up fails, also for one whose init failed or never ran. */
  void (*fin)(Plugin* plugin);

  /**
   * Receives every message for `path`, of any type. Answers the plugin's own method calls and returns
   * DBUS_HANDLER_RESULT_HANDLED. Returns DBUS_HANDLER_RESULT_NOT_YET_HANDLED for everything else, and for a
   * call whose arguments it cannot read; libdbus then answers the call as an unknown one.
   */
  DBusHandlerResult (*handle_message)(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
};
