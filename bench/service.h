// SPDX-License-Identifier: MIT
// service: what every floor that serves the bus has in common: one object that answers calls.
#pragma once

#include <dbus/dbus.h>

inline constexpr const char* bench_path = "/bench";
inline constexpr const char* bench_interface = "bench.Service";

/** Answers `call` with one argument of basic type `type` that `value` points at. */
void bench_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value);

/** Answers every call of HelloWorld as the daemon does. */
void bench_answer_hello(DBusConnection* connection, DBusMessage* call);

/**
 * Serves the object `path` on the session bus as `name` until the bus ends, in the way of the bus library's
 * manual: it reads, writes and dispatches by itself. Only failures of set-up return, with an exit status.
 */
int bench_serve(const char* name, const char* path, DBusObjectPathMessageFunction handler);
