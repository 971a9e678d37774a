// SPDX-License-Identifier: MIT
// dummy_test.cpp: the example plugin's record, its handler and its method.
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

TEST_F(Dummy, init_stores_the_context_and_fin_only_logs) {
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

TEST_F(Dummy, hello_world_is_answered_whatever_its_arguments_and_without_an_interface) {
  const struct {
    const char* named;
    std::vector<const char*> texts;
  } calls[] = {{interface, {}}, {interface, {"one", "two"}}, {nullptr, {}}};
  for (const auto& [named, texts] : calls) {
    log.forget();
    sent.clear();
    EXPECT_EQ(handle(method_call(path, named, "HelloWorld", texts)), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(sent, (Sent{"send s How are you? to 7", "flush"}));
    EXPECT_EQ(log.lines(), hello_line);
  }
}

TEST_F(Dummy, a_reply_that_cannot_be_sent_counts_as_handled) {
  fakes.dbus_connection_send = [](DBusConnection*, DBusMessage*, dbus_uint32_t*) {
    return dbus_bool_t{FALSE};
  };
  EXPECT_EQ(dbus_dummy_hello_world(fake_connection, method_call(path, interface, "HelloWorld", {}).get()),
            DBUS_HANDLER_RESULT_HANDLED);
}

TEST_F(Dummy, other_members_interfaces_and_signals_are_logged_and_left_unhandled) {
  const std::string at = std::string("obj=") + path + ", intf=";
  EXPECT_EQ(handle(method_call(path, interface, "Goodbye", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(log.lines(), unhandled(at + interface + ", member=Goodbye"));
  log.forget();
  EXPECT_EQ(handle(method_call(path, "a.b", "HelloWorld", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(log.lines(), unhandled(at + "a.b, member=HelloWorld"));
  log.forget();
  EXPECT_EQ(handle(MessageOwner(dbus_message_new_signal(path, interface, "HelloWorld"))),
            DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(log.lines(), unhandled(at + interface + ", member=HelloWorld"));
  EXPECT_EQ(sent, (Sent{}));
}

TEST_F(Dummy, a_missing_field_of_an_unhandled_message_is_logged_as_null) {
  handle(MessageOwner(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)));
  EXPECT_EQ(log.lines(), unhandled("obj=(null), intf=(null), member=(null)"));
}
