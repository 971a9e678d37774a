// SPDX-License-Identifier: MIT
// bus.cpp: a reply is built, sent and flushed before the handler returns.
//
// The main loop serves the readable side of the connection only, so everything that leaves the daemon
// leaves through the flush here.
#include "common/bus.h"

#include "common/logger.h"

static constexpr int most_attempts = 3;

static bool try_to_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  const MessageOwner reply(dbus_message_new_method_return(call));
  return reply && dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID) &&
         dbus_connection_send(connection, reply.get(), nullptr);
}

void bus_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  int attempts = 1;
  while (!try_to_reply(connection, call, type, value)) {
    if (attempts == most_attempts) {
      log_debug("{EE} Unable to reply to %s\n", dbus_message_get_member(call));
      return;
    }
    ++attempts;
  }
  dbus_connection_flush(connection);
}
