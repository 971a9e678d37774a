// SPDX-License-Identifier: MIT
// reply: the one way to answer a method call.
#pragma once

#include <dbus/dbus.h>

/**
 * Answers `call` with one argument of basic type `type` (a DBUS_TYPE_ constant) that `value` points at, and
 * flushes `connection`. The caller keeps both. Main thread, from a message handler.
 *
 * libdbus fails here only when memory is short. Without a reply the caller would wait until its timeout, so
 * the function retries for a second. Then it logs the failure and returns.
 */
void bus_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value);
