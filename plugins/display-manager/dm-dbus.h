// SPDX-License-Identifier: MIT
// dm-dbus: the methods of com.corvane.ControlServer.DisplayManager.
#pragma once

#include "plugins/plugin.h"

/**
 * Start(s display, s actor, s stationtype) -> b: makes sure that the display's station exists and queues the
 * start of the actor there. Answers true when the start is queued, false with a line in the log when it is
 * not. Stop(s display, s actor) -> b does the same for a stop, but never makes a station.
 *
 * Both take the station list from `plugin->context`. They return DBUS_HANDLER_RESULT_HANDLED after exactly
 * one reply, or DBUS_HANDLER_RESULT_NOT_YET_HANDLED without a reply when the arguments cannot be read. Main
 * thread.
 */
DBusHandlerResult dbus_dm_start(DBusConnection* connection, DBusMessage* message, Plugin* plugin);
DBusHandlerResult dbus_dm_stop(DBusConnection* connection, DBusMessage* message, Plugin* plugin);

/**
 * The display number of an X display string, "[host]:display[.screen]" (X(7)), where white space and a sign
 * before a number are let through. Whatever stands before the first colon is not looked at.
 *
 * Returns -1 for a text that is none, or whose display or screen number is beyond int. A negative display
 * number is returned as it stands: callers refuse every result below 0. Any thread.
 */
int dm_parse_display(const char* text);

/** Answers `message` with one boolean, `value` being 1 or 0, and flushes the connection. Main thread. */
void dbus_reply_boolean(DBusConnection* connection, DBusMessage* message, dbus_bool_t value);
