// SPDX-License-Identifier: MIT
// bus.c: the calls into libdbus, and the wait of the main loop, that a story can spoil.
#include <dbus/dbus.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>

#include "rules.h"

// Where the C library offers 64-bit times as an option, the daemon uses them, and the function has this name.
#ifdef __i386__
#define SELECT __select64
#else
#define SELECT select
#endif
int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout);

static DBusAddWatchFunction add_watch;
static void* watch_data;

static void add_late_watch(void) {
  DBusConnection* connection = dbus_connection_open_private(getenv("DBUS_SESSION_BUS_ADDRESS"), NULL);
  if (!connection ||
      !dbus_connection_set_watch_functions(connection, add_watch, NULL, NULL, watch_data, NULL))
    abort();
}

// Notes one wait: the highest descriptor plus one, the number of other arguments, the bits that are set.
static void note_wait(int nth, int count, const fd_set* readable, int others) {
  static char noted[256];
  char text[256];
  int length = snprintf(text, sizeof text, "%d %d", count, others);
  for (int bit = 0; bit < FD_SETSIZE && length < 200; ++bit) {
    if (FD_ISSET(bit, readable)) length += snprintf(text + length, sizeof text - (size_t)length, " %d", bit);
  }
  snprintf(text + length, sizeof text - (size_t)length, "\n");
  if (nth <= 3 || strcmp(text, noted) != 0) append(STAGE "waits", strcpy(noted, text));
}

int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout) {
  static int calls;
  static fd_set first;
  if (fails_with("select", ENOMEM)) return -1;
  if (++calls == 1) first = *readable;
  if (calls == 2 && says("select", "other")) *readable = first;  // this wait would never end otherwise
  if (exists(RULES "select")) note_wait(calls, count, readable, !!writable + !!other + !!timeout);
  if (calls == 1 && says("select", "nothing")) return 0;
  if (calls == 1 && says("select", "other")) {
    FD_ZERO(readable);
    return 1;
  }
  int result = REAL(SELECT)(count, readable, writable, other, timeout);
  if (calls == 1 && says("select", "late")) add_late_watch();
  return result;
}

dbus_bool_t dbus_watch_handle(DBusWatch* watch, unsigned flags) {
  if (exists(RULES "select")) append(STAGE "handled", "");
  return REAL(dbus_watch_handle)(watch, flags);
}

static int is_prepared_for_threads;

dbus_bool_t dbus_threads_init_default(void) {
  is_prepared_for_threads = 1;
  return REAL(dbus_threads_init_default)();
}

DBusConnection* dbus_bus_get(DBusBusType type, DBusError* error) {
  fails("dbus_bus_get");
  return !is_prepared_for_threads ? NULL : REAL(dbus_bus_get)(type, error);
}

dbus_bool_t dbus_connection_set_watch_functions(DBusConnection* connection, DBusAddWatchFunction add,
                                                DBusRemoveWatchFunction remove,
                                                DBusWatchToggledFunction toggled, void* data,
                                                DBusFreeFunction free_data) {
  if (says("dbus_connection_set_watch_functions", "none")) return TRUE;
  if (says("dbus_connection_set_watch_functions", "refused")) return FALSE;
  add_watch = add;
  watch_data = data;
  return REAL(dbus_connection_set_watch_functions)(connection, add, remove, toggled, data, free_data);
}

dbus_bool_t dbus_connection_register_object_path(DBusConnection* connection, const char* path,
                                                 const DBusObjectPathVTable* table, void* data) {
  char text[64];
  if (says("dbus_connection_register_object_path", "refused")) return FALSE;
  if (says("dbus_connection_register_object_path", "note")) {
    snprintf(text, sizeof text, "%p: %d %d, %d\n", (const void*)table, !!table->unregister_function,
             !!table->message_function,
             table->dbus_internal_pad1 || table->dbus_internal_pad2 || table->dbus_internal_pad3 ||
                 table->dbus_internal_pad4);
    append(STAGE "functions", text);
    table->unregister_function(connection, data);
  }
  return REAL(dbus_connection_register_object_path)(connection, path, table, data);
}

dbus_bool_t dbus_message_append_args(DBusMessage* message, int type, ...) {
  if (fails("dbus_message_append_args")) return FALSE;
  va_list arguments;
  va_start(arguments, type);
  dbus_bool_t done = REAL(dbus_message_append_args_valist)(message, type, arguments);
  va_end(arguments);
  return done;
}

FAILING(int, dbus_bus_request_name, -1, 0,
        (DBusConnection * connection, const char* name, unsigned flags, DBusError* error),
        (connection, name, flags, error))
FAILING(DBusMessage*, dbus_message_new_method_return, NULL, 0, (DBusMessage * call), (call))
FAILING(dbus_bool_t, dbus_connection_send, FALSE, 0,
        (DBusConnection * connection, DBusMessage* message, dbus_uint32_t* serial),
        (connection, message, serial))
