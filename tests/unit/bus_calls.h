// SPDX-License-Identifier: MIT
// bus_calls: method calls created by a test, and the replies to them.
#pragma once

#include <string>
#include <vector>

#include "common/dbus-owners.h"
#include "tests/unit/fakes.h"

/** The connection that faked calls get; never dereferenced. */
extern DBusConnection* const fake_connection;

/** A call with serial 7 and the arguments `texts`; without an interface if `interface` is null. */
MessageOwner method_call(const char* path, const char* interface, const char* member,
                         const std::vector<const char*>& texts);

/** A test that records what is sent and flushed on fake_connection. */
class BusCallTest : public FakedTest {
 protected:
  BusCallTest();

  /** In order: "send SIGNATURE VALUE to SERIAL" for a reply, and "flush". */
  std::vector<std::string> sent;
};
