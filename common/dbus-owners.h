// SPDX-License-Identifier: MIT
// dbus-owners: libdbus objects that free themselves.
#pragma once

#include <dbus/dbus.h>

#include <memory>

struct UnrefMessage {
  void operator()(DBusMessage* message) const noexcept { dbus_message_unref(message); }
};
using MessageOwner = std::unique_ptr<DBusMessage, UnrefMessage>;

/** A DBusError that frees itself. */
class BusError {
 public:
  BusError() { dbus_error_init(&error_); }
  ~BusError() { dbus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  DBusError* get() { return &error_; }
  bool is_set() const { return dbus_error_is_set(&error_) != 0; }
  /** Null while the error is not set. Valid as long as the error exists. */
  const char* message() const { return error_.message; }

 private:
  DBusError error_;
};
