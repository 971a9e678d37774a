// SPDX-License-Identifier: MIT
// plugin_registry_test.cpp: initialisation, message dispatch and the fatal exit, with three plugins that
// record their calls.
#include "cs/plugin-registry.h"

#include "common/dbus-owners.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::ExitedWithCode;
using Calls = std::vector<std::string>;

namespace {

Calls* calls;                               // of the running test
const Plugin* failing;                      // the plugin whose init fails
int failure;                                // what that returns
std::vector<PluginContext*> contexts_seen;  // by each init

int note_init(Plugin* plugin, PluginContext* context) {
  calls->push_back(std::string("init ") + plugin->name);
  contexts_seen.push_back(context);
  return plugin == failing ? failure : 0;
}

void note_fin(Plugin* plugin) {
  fprintf(stderr, "fin %s\n", plugin->name);
}

DBusHandlerResult note_message(DBusConnection*, DBusMessage*, Plugin* plugin) {
  calls->push_back(std::string("message ") + plugin->name);
  return DBUS_HANDLER_RESULT_NEED_MEMORY;
}

constexpr Plugin plugin_named(const char* name, const char* path) {
  return {.name = name,
          .path = path,
          .context = nullptr,
          .init = note_init,
          .fin = note_fin,
          .handle_message = note_message};
}
Plugin first = plugin_named("First", "/first");
Plugin second = plugin_named("Second", "/second");
Plugin third = plugin_named("Third", "/third");

char connection_memory;
DBusConnection* const connection = reinterpret_cast<DBusConnection*>(&connection_memory);

class PluginRegistry : public FakedTest {
 protected:
  PluginRegistry() {
    calls = &calls_;
    failing = nullptr;
    contexts_seen.clear();
    fakes.dbus_connection_register_object_path = [this](DBusConnection* on, const char* path,
                                                        const DBusObjectPathVTable* functions, void* data) {
      EXPECT_EQ(on, connection);
      EXPECT_EQ(functions, &functions_);
      calls_.push_back(std::string("register ") + path + " for " + static_cast<Plugin*>(data)->name);
      return path != path_refused_ ? TRUE : FALSE;
    };
    fakes.dbus_connection_borrow_message = [this](DBusConnection*) { return first_in_queue_.get(); };
    fakes.dbus_connection_return_message = [](DBusConnection*, DBusMessage*) {};
    fakes.dbus_connection_dispatch = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      calls_.push_back("dispatch");
      return DBUS_DISPATCH_DATA_REMAINS;
    };
  }

  bool register_objects() { return ccs_register_objects(connection, &functions_, &context_); }

  Calls calls_;
  MessageOwner first_in_queue_;
  std::string path_refused_;
  DBusObjectPathVTable functions_ = {};
  PluginContext context_ = {};
};
using PluginRegistryDeathTest = PluginRegistry;

std::string line(const std::string& function, const std::string& message) {
  return "cs/plugin-registry.cpp:#:" + function + ": DEBUG: " + message;
}

}  // namespace

Plugin* const plugin_table[] = {&first, &second, &third, nullptr};

TEST_F(PluginRegistry, each_plugin_is_initialised_registered_and_dispatched_before_the_next) {
  CapturedLog log;
  fakes.dbus_error_free = [this](DBusError*) { calls_.push_back("free"); };
  EXPECT_TRUE(register_objects());
  EXPECT_EQ(calls_, (Calls{"init First", "register /first for First", "dispatch", "free",     //
                           "init Second", "register /second for Second", "dispatch", "free",  //
                           "init Third", "register /third for Third", "dispatch", "free"}));
  EXPECT_EQ(contexts_seen, (std::vector<PluginContext*>{&context_, &context_, &context_}));
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_register_objects", "path=/first"), line("ccs_register_objects", "path=/second"),
                   line("ccs_register_objects", "path=/third")}));
}

TEST_F(PluginRegistry, a_call_stays_in_the_queue_until_all_objects_are_registered) {
  first_in_queue_.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
  EXPECT_TRUE(register_objects());
  EXPECT_EQ(calls_, (Calls{"init First", "register /first for First", "init Second",
                           "register /second for Second", "init Third", "register /third for Third"}));
}

TEST_F(PluginRegistry, a_failed_init_is_a_failure_and_no_later_plugin_is_initialised) {
  failing = &second;
  for (const int result : {-7, -1, 1, 2}) {
    failure = result;
    calls_.clear();
    CapturedLog log;
    EXPECT_FALSE(register_objects()) << result;
    EXPECT_EQ(log.lines(), (Lines{line("ccs_register_objects", "path=/first"),
                                  line("ccs_register_objects", "{EE} Fail to initialize plugin:Second")}));
    EXPECT_EQ(calls_, (Calls{"init First", "register /first for First", "dispatch", "init Second"}));
  }
}

TEST_F(PluginRegistry, a_refused_path_is_a_failure_and_no_later_plugin_is_initialised) {
  path_refused_ = "/second";
  CapturedLog log;
  fakes.dbus_error_free = [this](DBusError*) { calls_.push_back("free"); };
  EXPECT_FALSE(register_objects());
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_register_objects", "path=/first"), line("ccs_register_objects", "path=/second"),
                   line("ccs_register_objects", "{EE}dbus_connection_register_object_path(): (null)")}));
  EXPECT_EQ(calls_, (Calls{"init First", "register /first for First", "dispatch", "free",  //
                           "init Second", "register /second for Second", "free"}));
}

TEST_F(PluginRegistryDeathTest, a_fatal_exit_runs_every_fin_in_order_and_exits_with_1) {
  EXPECT_EXIT(ccs_fatal_exit(), ExitedWithCode(1), "^fin First\nfin Second\nfin Third\n$");
}

TEST_F(PluginRegistry, a_message_is_logged_and_passed_to_the_plugin_of_its_path) {
  CapturedLog log;
  const MessageOwner call(dbus_message_new_method_call(nullptr, "/second", "some.Interface", "Member"));
  static DBusConnection* seen_connection;
  static DBusMessage* seen_message;
  Plugin plugin = second;
  plugin.handle_message = [](DBusConnection* on, DBusMessage* message, Plugin* of) {
    seen_connection = on;
    seen_message = message;
    return note_message(on, message, of);
  };
  EXPECT_EQ(ccs_dbus_message_handler(connection, call.get(), &plugin), DBUS_HANDLER_RESULT_NEED_MEMORY)
      << "whatever the plugin returns";
  EXPECT_EQ(seen_connection, connection);
  EXPECT_EQ(seen_message, call.get());
  EXPECT_EQ(calls_, (Calls{"message Second"}));
  EXPECT_EQ(log.lines(), (Lines{line("ccs_dbus_message_handler",
                                     "obj=/second, interface=some.Interface, member=Member, type=1")}));
}

TEST_F(PluginRegistry, every_type_of_message_is_passed_on_and_a_missing_field_is_logged_as_null) {
  const struct {
    MessageOwner message;
    const char* logged;
  } cases[] = {{MessageOwner(dbus_message_new_signal("/first", "some.Interface", "Happened")),
                "obj=/first, interface=some.Interface, member=Happened, type=4"},
               {MessageOwner(dbus_message_new_method_call(nullptr, "/first", nullptr, "Member")),
                "obj=/first, interface=(null), member=Member, type=1"},
               {MessageOwner(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)),
                "obj=(null), interface=(null), member=(null), type=2"},
               {MessageOwner(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR)),
                "obj=(null), interface=(null), member=(null), type=3"}};
  for (const auto& [message, logged] : cases) {
    CapturedLog log;
    calls_.clear();
    ccs_dbus_message_handler(connection, message.get(), &first);
    EXPECT_EQ(calls_, (Calls{"message First"}));
    EXPECT_EQ(log.lines(), (Lines{line("ccs_dbus_message_handler", logged)}));
  }
}

TEST_F(PluginRegistry, an_unregistered_path_is_logged) {
  CapturedLog log;
  ccs_object_unregister(connection, &first);
  EXPECT_EQ(log.lines(), (Lines{line("ccs_object_unregister", "{II}")}));
  EXPECT_EQ(calls_, (Calls{}));
}
