// SPDX-License-Identifier: MIT
// bus: the daemon's connection to the message bus, step by step.
#pragma once

#include <dbus/dbus.h>
#include <sys/select.h>

/** The connection and the one watch that the main loop serves: the last readable one added. */
struct BusState {
  DBusConnection* connection;  // null until connected; never released
  DBusWatch* watch;            // the bus library's
  int fd;                      // the watch's socket
};

// Everything here runs on the main thread. A step of set-up that fails says so in the log, with one exception
// (ccs_get_system_conn), and ends with ccs_fatal_exit.

/**
 * Watch functions (dbus_connection_set_watch_functions); `data` is the BusState. Adding keeps a readable
 * watch and returns TRUE in any case, also for a watch that is not kept. The others only leave a line in the
 * log.
 */
dbus_bool_t ccs_add_watch(DBusWatch* watch, void* data);
void ccs_toggle_watch(DBusWatch* watch, void* data);
void ccs_remove_watch(DBusWatch* watch, void* data);

/**
 * Connects to the bus that the session bus address in the environment names. A connection that is missing
 * without an error of the bus library is fatal, too, but deliberately not logged: there is nothing to tell.
 */
void ccs_get_system_conn(BusState* bus);

/** Installs the watch functions; afterwards `bus` has its watch. */
void ccs_set_watch_functions(BusState* bus);

/** Asks for com.corvane.ControlServer. Not being its first owner is no failure: the daemon serves queued. */
void ccs_request_service_name(BusState* bus);

/**
 * Fills `readable` with the watch's descriptor. A descriptor that select(2) cannot hold (FD_SETSIZE or above)
 * is fatal: the daemon would be deaf.
 */
void ccs_build_read_set(const BusState* bus, fd_set* readable);

/**
 * Dispatches one message, unless it is a method call. A call stays at the head of the queue: during set-up it
 * could be refused because its object is not registered yet.
 */
void ccs_dispatch_one(DBusConnection* connection);

/**
 * Dispatches what the bus library holds until nothing remains or memory is short, also where the library does
 * not say so: then its first message does not change. Returns DBUS_DISPATCH_COMPLETE or
 * DBUS_DISPATCH_NEED_MEMORY.
 */
DBusDispatchStatus ccs_dispatch_all(DBusConnection* connection);

/**
 * Leaves nothing with the bus library that the next wait could delay: dispatches, again after a pause while
 * memory is short, and flushes the answers that the library gave itself. Returns only when all is done: a
 * shortage of memory is waited for, however long it lasts, and logged once.
 */
void ccs_dispatch_and_flush(DBusConnection* connection);

/** Whether the watch's descriptor is in `ready`; a descriptor that no set can hold is in none. */
bool ccs_is_ready(const BusState* bus, const fd_set* ready);

/** Reads from the ready watch and dispatches what came. Pauses when memory was too short to read. */
void ccs_serve_watch(const BusState* bus);
