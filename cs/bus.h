// SPDX-License-Identifier: MIT
// bus: the daemon's connection to the message bus, step by step.
#pragma once

#include <dbus/dbus.h>
#include <sys/select.h>

/** The connection, and the one watch that the main loop serves: the last readable one added. */
struct BusState {
  DBusConnection* connection;  // null until connected; never released
  DBusWatch* watch;            // owned by libdbus
  int fd;                      // the watch's socket
};

// Everything here runs on the main thread. A step of set-up returns false on failure, which is fatal. It logs
// the reason, except in one case of ccs_get_system_conn.

/**
 * Watch functions (dbus_connection_set_watch_functions); `data` is the BusState. ccs_add_watch stores a
 * readable watch and always returns TRUE, also for a watch that it does not store. The other two only write a
 * line to the log.
 */
dbus_bool_t ccs_add_watch(DBusWatch* watch, void* data);
void ccs_toggle_watch(DBusWatch* watch, void* data);
void ccs_remove_watch(DBusWatch* watch, void* data);

/**
 * Connects to the bus that the session bus address in the environment names. A missing connection without an
 * error from libdbus is a failure too, and is not logged, because libdbus gives no reason.
 */
[[nodiscard]] bool ccs_get_system_conn(BusState* bus);

/** Installs the watch functions. On success `bus` has its watch. */
[[nodiscard]] bool ccs_set_watch_functions(BusState* bus);

/** Requests com.corvane.ControlServer. Being queued for the name is a success: the daemon serves queued. */
[[nodiscard]] bool ccs_request_service_name(BusState* bus);

/**
 * Fills `readable` with the watch's descriptor. Fails for a descriptor that select(2) cannot hold (FD_SETSIZE
 * or above): the daemon would never see a message.
 */
[[nodiscard]] bool ccs_build_read_set(const BusState* bus, fd_set* readable);

/**
 * Dispatches one message, unless it is a method call. A call stays at the head of the queue: during set-up it
 * could be refused because its object is not registered yet.
 */
void ccs_dispatch_one(DBusConnection* connection);

/**
 * Dispatches until no message remains or memory is short. libdbus does not always report the shortage; then
 * the function finds that the first message has not changed. Returns DBUS_DISPATCH_COMPLETE or
 * DBUS_DISPATCH_NEED_MEMORY.
 */
DBusDispatchStatus ccs_dispatch_all(DBusConnection* connection);

/**
 * Dispatches all messages and flushes the replies that libdbus itself sends, so that nothing has to wait for
 * the next select(2). While memory is short it pauses and retries, however long that takes, and logs the
 * shortage once.
 */
void ccs_dispatch_and_flush(DBusConnection* connection);

/** Whether the watch's descriptor is in `ready`. False for a descriptor that no set can hold. */
bool ccs_is_ready(const BusState* bus, const fd_set* ready);

/** Reads from the ready watch and dispatches what arrived. Pauses when there was no memory to read. */
void ccs_serve_watch(const BusState* bus);
