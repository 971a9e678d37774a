// SPDX-License-Identifier: MIT
// bus: owners of libdbus objects, the one way to answer a call, and one step of dispatch.
#pragma once

#include <dbus/dbus.h>

#include <memory>

struct UnrefMessage {
  void operator()(DBusMessage* message) const noexcept { dbus_message_unref(message); }
};
using MessageOwner = std::unique_ptr<DBusMessage, UnrefMessage>;

/** An error of the bus library that frees itself. */
class BusError {
 public:
  BusError() { dbus_error_init(&error_); }
  ~BusError() { dbus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  DBusError* get() { return &error_; }
  bool is_set() const { return dbus_error_is_set(&error_) != 0; }
  /** Null while the error is not set; lives as long as the error. */
  const char* message() const { return error_.message; }

 private:
  DBusError error_;
};

/**
 * Answers `call` with one argument of basic type `type` (a DBUS_TYPE_ constant) that `value` points at, and
 * flushes `connection`. Both stay the caller's. Main thread, from a message handler.
 *
 * The bus library fails here only when memory is short; a caller without an answer would wait out its
 * time-out, so the answer is tried for a second before it is given up with a line in the log.
 */
void bus_reply(DBusConnection* connection, DBusMessage* call, int type, const void* value);

/**
 * The message that is dispatched next, which stays in the queue of `connection`; null when there is none. The
 * owner holds a reference of its own. Main thread.
 */
MessageOwner bus_first_message(DBusConnection* connection);

/**
 * Dispatches one message of `connection`, but for a call, which stays first in the queue: while objects are
 * being registered it could be refused for one that is there a moment later. Main thread, during set-up.
 */
void bus_dispatch_one(DBusConnection* connection);
