// SPDX-License-Identifier: MIT
// reply.cpp: builds, sends and flushes a reply before the handler returns.
//
// The flush is needed because the main loop serves only the readable side of the connection.
#include "common/reply.h"

#include <unistd.h>

#include "common/dbus-owners.h"
#include "common/logger.h"

static constexpr int max_attempts = 1000;
static constexpr useconds_t pause_microseconds = 1000;

// Sends, flushes and then releases the reply. Returns false, with nothing sent, when memory is short.
static bool try_to_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  const MessageOwner reply(dbus_message_new_method_return(call));
  const bool is_sent = reply && dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID) &&
                       dbus_connection_send(connection, reply.get(), nullptr);
  if (is_sent) dbus_connection_flush(connection);
  return is_sent;
}

void bus_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  for (int attempt = 1; !try_to_reply(connection, call, type, value); ++attempt) {
    if (attempt == max_attempts) {
      log_debug("{EE} Unable to reply to %s\n", dbus_message_get_member(call));
      return;
    }
    usleep(pause_microseconds);
  }
}
