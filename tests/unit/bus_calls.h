// SPDX-License-Identifier: MIT
// bus_calls: method calls made by a test, and what the product answers to them.
#pragma once

#include <string>
#include <vector>

#include "common/dbus-owners.h"
#include "tests/unit/fakes.h"

/** Stands for the connection in calls that are faked; never looked into. */
extern DBusConnection* const fake_connection;

/** A call with serial 7 and `texts` as its arguments; a null `interface` leaves that out. */
MessageOwner method_call(const char* path, const char* interface, const char* member,
                         const std::vector<const char*>& texts);

/** A test that sees what is sent and flushed on fake_connection. */
class BusCallTest : public FakedTest {
 protected:
  BusCallTest();

  /** In their order: "send SIGNATURE VALUE to SERIAL" for a reply, and "flush". */
  std::vector<std::string> sent;
};
