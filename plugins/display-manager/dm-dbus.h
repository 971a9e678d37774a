// SPDX-License-Identifier: MIT
// dm-dbus: the methods of com.corvane.ControlServer.DisplayManager.
#pragma once

#include "plugins/plugin.h"

/**
 * Start(s display, s actor, s stationtype) -> b: makes sure that the display's station exists and queues the
 * start of the actor there. Replies true when the start is queued. Otherwise replies false, and the log has
 * the reason. Stop(s display, s actor) -> b does the same for a stop, but never makes a station.
 *
 * Both find the stations through `plugin->context`. They return DBUS_HANDLER_RESULT_HANDLED after exactly one
 * reply, or DBUS_HANDLER_RESULT_NOT_YET_HANDLED without a reply when they cannot read the arguments. Main
 * thread.
 */
DBusHandlerResult dbus_dm_start(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
DBusHandlerResult dbus_dm_stop(DBusConnection* connection, DBusMessage* message, Plugin* plugin);

/**
 * The display number of an X display string, "[host]:display[.screen]" (X(7)). White space and a sign before
 * a number are accepted. Everything before the first colon is ignored.
 *
 * Returns -1 for any other text, or when the display or screen number does not fit an int. Returns a negative
 * display number unchanged: callers refuse every result below 0. Any thread.
 */
int dm_parse_display(const char* text);

/** Replies to `message` with one boolean, `value` (1 or 0), and flushes the connection. Main thread. */
void dbus_reply_boolean(DBusConnection* connection, DBusMessage* message, dbus_bool_t value);
