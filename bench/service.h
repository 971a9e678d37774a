// SPDX-License-Identifier: MIT
// service: what all floors on the bus share: one object that answers calls.
#pragma once

#include <dbus/dbus.h>

inline constexpr const char* bench_path = "/bench";
inline constexpr const char* bench_interface = "bench.Service";

/** Answers `call` with one argument of basic type `type` that `value` points at. */
void bench_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value);

/** Answers every call of HelloWorld as the daemon does. */
void bench_answer_hello(DBusConnection* connection, DBusMessage* call);

/**
 * Serves the object `path` on the session bus as `name` until the bus ends. As in the manual of libdbus, one
 * loop reads, writes and dispatches. Returns an exit status, 1 if the set-up fails.
 */
int bench_serve(const char* name, const char* path, DBusObjectPathMessageFunction handler);
