// SPDX-License-Identifier: MIT
// dm_plugin_test.cpp: the display manager's record, and how its handler dispatches messages.
#include "plugins/display-manager/dm-plugin.h"

#include "plugins/display-manager/dm-dbus.h"
#include "tests/unit/bus_calls.h"
#include "tests/unit/capture.h"

using Sent = std::vector<std::string>;

namespace {

class DisplayManagerPlugin : public BusCallTest {
 protected:
  DBusHandlerResult handle(const MessageOwner& message) {
    return dm_handle_dbus_message(fake_connection, message.get(), &plugin);
  }

  PluginContext context = {};
  Plugin plugin = {.name = "DisplayManager",
                   .path = path,
                   .context = &context,
                   .init = dm_init,
                   .fin = dm_fin,
                   .handle_message = dm_handle_dbus_message};
  CapturedLog log;

  static constexpr const char* path = "/com/corvane/ControlServer/DisplayManager";
  static constexpr const char* interface = "com.corvane.ControlServer.DisplayManager";
};

// Each call fails its first check: the display is invalid.
const Lines start_lines = {
    "plugins/display-manager/dm-dbus.cpp:#:dbus_dm_start: DEBUG: dbus_dm_start(): display=x, actor=y, "
    "stationtype=z",
    "plugins/display-manager/dm-dbus.cpp:#:dbus_dm_start: DEBUG: {DM} Invalid DISPLAY value : x"};
const Lines stop_lines = {
    "plugins/display-manager/dm-dbus.cpp:#:dbus_dm_stop: DEBUG: {DM} Invalid DISPLAY value : x"};

Lines unhandled(const std::string& values) {
  return {
      "plugins/display-manager/dm-plugin.cpp:#:dm_handle_dbus_message dbus_message_get_path(message): "
      "DEBUG: Unhandled message: " +
      values};
}

}  // namespace

TEST_F(DisplayManagerPlugin, init_stores_the_context_and_fin_only_logs) {
  plugin.context = nullptr;
  EXPECT_EQ(dm_init(&plugin, &context), 0);
  EXPECT_EQ(plugin.context, &context);
  dm_fin(&plugin);
  EXPECT_EQ(plugin.context, &context);
  EXPECT_EQ(log.lines(),
            (Lines{"plugins/display-manager/dm-plugin.cpp:#:dm_init: DEBUG: Initialize DisplayManager plugin",
                   "plugins/display-manager/dm-plugin.cpp:#:dm_fin: DEBUG: Finalize DisplayManager plugin"}));
}

TEST_F(DisplayManagerPlugin, start_and_stop_reach_their_functions_with_or_without_an_interface) {
  for (const char* named : {interface, static_cast<const char*>(nullptr)}) {
    log.forget();
    sent.clear();
    EXPECT_EQ(handle(method_call(path, named, "Start", {"x", "y", "z"})), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(log.lines(), start_lines);
    log.forget();
    EXPECT_EQ(handle(method_call(path, named, "Stop", {"x", "y"})), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(log.lines(), stop_lines);
    EXPECT_EQ(sent, (Sent{"send b false to 7", "flush", "send b false to 7", "flush"}));
  }
}

TEST_F(DisplayManagerPlugin, a_message_that_a_function_leaves_unhandled_stays_unhandled) {
  EXPECT_EQ(handle(method_call(path, interface, "Start", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(handle(method_call(path, interface, "Stop", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
}

TEST_F(DisplayManagerPlugin, the_unhandled_line_has_its_values_shifted_by_one) {
  EXPECT_EQ(handle(method_call(path, interface, "Restart", {"x"})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), unhandled("obj=com.corvane.ControlServer.DisplayManager, intf=Restart, member="));
}

TEST_F(DisplayManagerPlugin, other_interfaces_and_signals_are_logged_and_left_unhandled) {
  const char* other = "com.corvane.ControlServer.Other";
  for (const char* member : {"Start", "Stop"}) {
    log.forget();
    EXPECT_EQ(handle(method_call(path, other, member, {"x", "y", "z"})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
    EXPECT_EQ(log.lines(), unhandled(std::string("obj=") + other + ", intf=" + member + ", member="));
    log.forget();
    EXPECT_EQ(handle(MessageOwner(dbus_message_new_signal(path, interface, member))),
              DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
    EXPECT_EQ(log.lines(), unhandled(std::string("obj=") + interface + ", intf=" + member + ", member="));
  }
  EXPECT_EQ(sent, (Sent{}));
}

TEST_F(DisplayManagerPlugin, a_missing_field_of_an_unhandled_message_is_logged_as_null) {
  handle(MessageOwner(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR)));
  EXPECT_EQ(log.lines(), unhandled("obj=(null), intf=(null), member="));
}

TEST_F(DisplayManagerPlugin, the_unhandled_line_needs_level_5_and_a_logger) {
  log.logger()->level = 4;
  EXPECT_EQ(handle(method_call(path, interface, "Restart", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(log.text(), "");
  plogger = nullptr;
  EXPECT_EQ(handle(method_call(path, interface, "Restart", {})), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
}
