// SPDX-License-Identifier: MIT
// dummy_test.cpp: the example plugin's record, its handler and its one method.
#include "plugins/dummy/dummy.h"

#include "plugins/dummy/dummy-plugin.h"
#include "tests/unit/bus_calls.h"
#include "tests/unit/capture.h"

using Sent = std::vector<std::string>;

namespace {

class Dummy : public BusCallTest {
 protected:
  DBusHandlerResult handle(const MessageOwner& message) {
    return dummy_handle_dbus_message(fake_connection, message.get(), &dummy_plugin);
  }

  CapturedLog log;
};

constexpr const char* path = "/com/corvane/ControlServer/Dummy";
constexpr const char* interface = "com.corvane.ControlServer.Dummy";

const Lines hello_line = {
    "plugins/dummy/dummy.cpp:#:dbus_dummy_hello_world: DEBUG: {DUMMY} dbus_dummy_hello_world: HelloWorld"};

Lines unhandled(const std::string& values) {
  return {"plugins/dummy/dummy-plugin.cpp:#:dummy_handle_dbus_message: DEBUG: Unhandled message: " + values};
}

}  // namespace

TEST_F(Dummy, its_init_keeps_the_context_and_its_fin_leaves_a_line) {
  PluginContext context = {};
  Plugin plugin = dummy_plugin;
  EXPECT_EQ(dummy_init(&plugin, &context), 0);
  EXPECT_EQ(plugin.context, &context);
  dummy_fin(&plugin);
  EXPECT_EQ(plugin.context, &context);
  EXPECT_EQ(log.lines(),
            (Lines{"plugins/dummy/dummy-plugin.cpp:#:dummy_init: DEBUG: Initialize Dummy plugin()",
                   "plugins/dummy/dummy-plugin.cpp:#:dummy_fin: DEBUG: Finalize Dummy plugin()"}));
}

TEST_F(Dummy, hello_world_is_answered) {
  EXPECT_EQ(handle(method_call(path, interface, "HelloWorld", {})), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, (Sent{"send s How are you? to 7", "flush"}));
  EXPECT_EQ(log.lines(), hello_line);
}

TEST_F(Dummy, arguments_of_hello_world_are_ignored) {
  EXPECT_EQ(handle(method_call(path, interface, "HelloWorld", {"one", "two"})), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, (Sent{"send s How are you? to 7", "flush"}));
}

TEST_F(Dummy, a_call_without_an_interface_is_answered) {
  EXPECT_EQ(handle(method_call(path, nullptr, "HelloWorld", {})), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, (Sent{"send s How are you? to 7", "flush"}));
}

TEST_F(Dummy, a_reply_that_cannot_be_sent_counts_as_handled) {
  fakes.dbus_connection_send = [](DBusConnection*, DBusMessage*, dbus_uint32_t*) {
    return dbus_bool_t{FALSE};
  };
  EXPECT_EQ(dbus_dummy_hello_world(fake_connection, method_call(path, interface, "HelloWorld", {}).get()),
            DBUS_HANDLER_RESULT_HANDLED);
}

TEST_F(Dummy, another_member_is_logged_and_left_unhandled) {
  EXPECT_EQ(handle(method_call(path, interface, "Goodbye", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), unhandled("obj=/com/corvane/ControlServer/Dummy, "
                                   "intf=com.corvane.ControlServer.Dummy, member=Goodbye"));
}

TEST_F(Dummy, another_interface_is_logged_and_left_unhandled) {
  EXPECT_EQ(handle(method_call(path, "com.corvane.ControlServer.Other", "HelloWorld", {})),
            DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(log.lines(), unhandled("obj=/com/corvane/ControlServer/Dummy, "
                                   "intf=com.corvane.ControlServer.Other, member=HelloWorld"));
}

TEST_F(Dummy, a_signal_of_the_methods_name_is_left_unhandled) {
  const MessageOwner message(dbus_message_new_signal(path, interface, "HelloWorld"));
  EXPECT_EQ(handle(message), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), unhandled("obj=/com/corvane/ControlServer/Dummy, "
                                   "intf=com.corvane.ControlServer.Dummy, member=HelloWorld"));
}

TEST_F(Dummy, what_an_unhandled_message_lacks_is_logged_as_null) {
  handle(MessageOwner(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)));
  EXPECT_EQ(log.lines(), unhandled("obj=(null), intf=(null), member=(null)"));
}
