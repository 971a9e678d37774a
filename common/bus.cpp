// SPDX-License-Identifier: MIT
// bus.cpp: answering, and dispatching without answering.
//
// A reply is built, sent and flushed before the handler returns: the main loop serves the readable side of
// the connection only.
#include "common/bus.h"

#include <unistd.h>

#include "common/logger.h"

static constexpr int most_attempts = 1000;
static constexpr useconds_t pause_microseconds = 1000;

// Sends, flushes and then releases the reply; false, with nothing sent, when memory is short.
static bool try_to_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  const MessageOwner reply(dbus_message_new_method_return(call));
  const bool is_sent = reply && dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID) &&
                       dbus_connection_send(connection, reply.get(), nullptr);
  if (is_sent) dbus_connection_flush(connection);
  return is_sent;
}

void bus_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value) {
  for (int attempt = 1; !try_to_reply(connection, call, type, value); ++attempt) {
    if (attempt == most_attempts) {
      log_debug("{EE} Unable to reply to %s\n", dbus_message_get_member(call));
      return;
    }
    usleep(pause_microseconds);
  }
}

MessageOwner bus_first_message(DBusConnection* connection) {
  DBusMessage* first = dbus_connection_borrow_message(connection);
  if (!first) return nullptr;
  MessageOwner kept(dbus_message_ref(first));
  dbus_connection_return_message(connection, first);
  return kept;
}

void bus_dispatch_one(DBusConnection* connection) {
  const MessageOwner first = bus_first_message(connection);
  const bool is_call = first && dbus_message_get_type(first.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL;
  if (!is_call) dbus_connection_dispatch(connection);
}
