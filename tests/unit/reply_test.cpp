// SPDX-License-Identifier: MIT
// reply_test.cpp: the owners of libdbus objects, and replies, also while memory is short.
#include "common/reply.h"

#include <unistd.h>

#include "tests/unit/bus_calls.h"
#include "tests/unit/capture.h"

using Sent = std::vector<std::string>;

namespace {

class BusReply : public BusCallTest {
 protected:
  BusReply() {
    fakes.usleep = [this](useconds_t microseconds) {
      pauses.push_back(microseconds);
      return 0;
    };
  }

  void reply_true() {
    const dbus_bool_t value = TRUE;
    bus_reply(fake_connection, call.get(), DBUS_TYPE_BOOLEAN, &value);
  }

  void expect_given_up() {
    EXPECT_EQ(attempts, 1000);
    EXPECT_EQ(pauses, std::vector<useconds_t>(999, 1000));
    EXPECT_EQ(sent, (Sent{})) << "and no flush";
    EXPECT_EQ(log.lines(), (Lines{"common/reply.cpp:#:bus_reply: DEBUG: {EE} Unable to reply to Member"}));
  }

  MessageOwner call = method_call("/path", "some.Interface", "Member", {});
  CapturedLog log;
  int attempts = 0;
  std::vector<useconds_t> pauses;
};

}  // namespace

TEST_F(BusReply, a_reply_is_sent_once_and_flushed) {
  reply_true();
  EXPECT_EQ(sent, (Sent{"send b true to 7", "flush"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(BusReply, the_type_is_the_callers) {
  const char* text = "words";
  bus_reply(fake_connection, call.get(), DBUS_TYPE_STRING, &text);
  const dbus_bool_t value = FALSE;
  bus_reply(fake_connection, call.get(), DBUS_TYPE_BOOLEAN, &value);
  EXPECT_EQ(sent, (Sent{"send s words to 7", "flush", "send b false to 7", "flush"}));
}

TEST_F(BusReply, the_reply_is_released_after_the_flush_and_the_call_still_belongs_to_the_caller) {
  fakes.dbus_message_new_method_return = [&](DBusMessage* of) {
    EXPECT_EQ(of, call.get());
    MessageOwner message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_reply_serial(message.get(), dbus_message_get_serial(of));
    static dbus_int32_t slot = -1;
    dbus_message_allocate_data_slot(&slot);
    dbus_message_set_data(message.get(), slot, &sent,
                          [](void* calls) { static_cast<Sent*>(calls)->push_back("release"); });
    return message.release();
  };
  reply_true();
  EXPECT_EQ(sent, (Sent{"send b true to 7", "flush", "release"}));
  EXPECT_STREQ(dbus_message_get_member(call.get()), "Member");
}

TEST_F(BusReply, a_reply_that_cannot_be_created_is_tried_a_thousand_times) {
  fakes.dbus_message_new_method_return = [this](DBusMessage*) -> DBusMessage* {
    ++attempts;
    return nullptr;
  };
  reply_true();
  expect_given_up();
}

TEST_F(BusReply, a_value_that_cannot_be_appended_is_tried_a_thousand_times) {
  fakes.dbus_message_append_args_fails = [this] {
    ++attempts;
    return true;
  };
  reply_true();
  expect_given_up();
}

TEST_F(BusReply, a_reply_that_cannot_be_sent_is_tried_a_thousand_times) {
  fakes.dbus_connection_send = [this](DBusConnection*, DBusMessage*, dbus_uint32_t*) {
    ++attempts;
    return dbus_bool_t{FALSE};
  };
  reply_true();
  expect_given_up();
}

TEST_F(BusReply, a_pause_follows_each_failed_attempt) {
  const auto send = fakes.dbus_connection_send;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    EXPECT_EQ(pauses.size(), static_cast<size_t>(attempts));
    return ++attempts < 3 ? dbus_bool_t{FALSE} : send(on, reply, serial);
  };
  reply_true();
  EXPECT_EQ(pauses, (std::vector<useconds_t>{1000, 1000}));
  EXPECT_EQ(sent, (Sent{"send b true to 7", "flush"}));
}

TEST_F(BusReply, the_thousandth_attempt_may_succeed) {
  const auto send = fakes.dbus_connection_send;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    return ++attempts < 1000 ? dbus_bool_t{FALSE} : send(on, reply, serial);
  };
  reply_true();
  EXPECT_EQ(attempts, 1000);
  EXPECT_EQ(pauses, std::vector<useconds_t>(999, 1000));
  EXPECT_EQ(sent, (Sent{"send b true to 7", "flush"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(BusCallTest, an_error_starts_unset_and_frees_itself_once) {
  std::vector<std::string> freed;
  fakes.dbus_error_free = [&](DBusError* error) {
    freed.push_back(error->message ? error->message : "(none)");
    __real_dbus_error_free(error);
  };
  {
    BusError error;
    EXPECT_FALSE(error.is_set());
    EXPECT_EQ(error.message(), nullptr);
    dbus_set_error(error.get(), DBUS_ERROR_FAILED, "went wrong");
    EXPECT_TRUE(error.is_set());
    EXPECT_STREQ(error.message(), "went wrong");
    EXPECT_EQ(freed, (Sent{}));
  }
  EXPECT_EQ(freed, (Sent{"went wrong"}));
}
