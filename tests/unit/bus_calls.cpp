// SPDX-License-Identifier: MIT
// bus_calls.cpp: reads replies when they are sent, because the product releases them at once.
#include "tests/unit/bus_calls.h"

static char connection_memory;
DBusConnection* const fake_connection = reinterpret_cast<DBusConnection*>(&connection_memory);

MessageOwner method_call(const char* path, const char* interface, const char* member,
                         const std::vector<const char*>& texts) {
  MessageOwner call(dbus_message_new_method_call(nullptr, path, interface, member));
  for (const char* text : texts)
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_message_set_serial(call.get(), 7);
  return call;
}

static std::string value_of(DBusMessage* reply) {
  dbus_bool_t boolean = FALSE;
  const char* text = nullptr;
  if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_BOOLEAN, &boolean, DBUS_TYPE_INVALID))
    return boolean ? "true" : "false";
  if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) return text;
  return "?";
}

BusCallTest::BusCallTest() {
  fakes.dbus_connection_send = [this](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    EXPECT_EQ(on, fake_connection);
    EXPECT_EQ(dbus_message_get_type(reply), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(serial, nullptr);
    sent.push_back(std::string("send ") + dbus_message_get_signature(reply) + " " + value_of(reply) + " to " +
                   std::to_string(dbus_message_get_reply_serial(reply)));
    return dbus_bool_t{TRUE};
  };
  fakes.dbus_connection_flush = [this](DBusConnection* on) {
    EXPECT_EQ(on, fake_connection);
    sent.push_back("flush");
  };
}
