// SPDX-License-Identifier: MIT
// service.cpp: the least that a service on libdbus does: the floor for the daemon.
#include "bench/service.h"

#include <cstdio>

void bench_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  DBusMessage* reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, type, value, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply, nullptr);
  dbus_message_unref(reply);
}

void bench_answer_hello(DBusConnection* connection, DBusMessage* call) {
  const char* answer = "How are you?";
  bench_reply(connection, call, DBUS_TYPE_STRING, &answer);
}

int bench_serve(const char* name, const char* path, DBusObjectPathMessageFunction handler) {
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* connection = dbus_bus_get(DBUS_BUS_SESSION, &error);
  DBusObjectPathVTable functions = {};
  functions.message_function = handler;
  if (!connection || !dbus_connection_register_object_path(connection, path, &functions, nullptr) ||
      dbus_bus_request_name(connection, name, 0, &error) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    fprintf(stderr, "%s: %s\n", name, error.message ? error.message : "not served");
    return 1;
  }
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
  return 0;
}
