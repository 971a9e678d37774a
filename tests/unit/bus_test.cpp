// SPDX-License-Identifier: MIT
// bus_test.cpp: the watch functions, each step of the bus set-up, and the steps of the main loop.
//
// The connection and the watches are fakes: every call that would dereference them is faked.
#include "cs/bus.h"

#include <algorithm>

#include "common/dbus-owners.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using Calls = std::vector<std::string>;

namespace {

struct FakeWatch {
  unsigned flags;
  int fd;
};

DBusWatch* as_watch(FakeWatch* watch) {
  return reinterpret_cast<DBusWatch*>(watch);
}

char connection_memory;
DBusConnection* const connection = reinterpret_cast<DBusConnection*>(&connection_memory);

class Bus : public FakedTest {
 protected:
  Bus() {
    fakes.dbus_watch_get_flags = [](DBusWatch* watch) { return reinterpret_cast<FakeWatch*>(watch)->flags; };
    fakes.dbus_watch_get_socket = [](DBusWatch* watch) { return reinterpret_cast<FakeWatch*>(watch)->fd; };
    fakes.dbus_connection_borrow_message = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      return first.get();
    };
    fakes.dbus_connection_return_message = [this](DBusConnection* on, DBusMessage* message) {
      EXPECT_EQ(on, connection);
      EXPECT_EQ(message, first.get());
      calls.push_back("return");
    };
    fakes.dbus_connection_dispatch = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      calls.push_back("dispatch");
      return dispatched < results.size() ? results[dispatched++] : DBUS_DISPATCH_COMPLETE;
    };
    fakes.dbus_connection_ref = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      calls.push_back("ref");
      return on;
    };
    fakes.dbus_connection_unref = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      calls.push_back("unref");
    };
    fakes.dbus_connection_flush = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      calls.push_back("flush");
    };
    fakes.dbus_connection_get_dispatch_status = [this](DBusConnection* on) {
      EXPECT_EQ(on, connection);
      return flushed < left_by_flushes.size() ? left_by_flushes[flushed++] : DBUS_DISPATCH_COMPLETE;
    };
    fakes.usleep = [this](useconds_t microseconds) {
      calls.push_back("usleep " + std::to_string(microseconds));
      return 0;
    };
    fakes.dbus_connection_set_max_message_unix_fds = [this](DBusConnection* on, long most) {
      EXPECT_EQ(on, connection);
      calls.push_back("at most " + std::to_string(most) + " descriptors in a message");
    };
    fakes.dbus_connection_set_max_received_unix_fds = [this](DBusConnection* on, long most) {
      EXPECT_EQ(on, connection);
      calls.push_back("at most " + std::to_string(most) + " descriptors at a time");
    };
    fakes.dbus_watch_handle = [this](DBusWatch* watch, unsigned flags) {
      EXPECT_EQ(watch, as_watch(&readable));
      calls.push_back("handle " + std::to_string(flags));
      return handled;
    };
  }

  /** Ends a shortage of memory, which would affect the next test. */
  void TearDown() override {
    handled = TRUE;
    bus.connection = connection;
    bus.watch = as_watch(&readable);
    results.clear();
    ccs_serve_watch(&bus);
    FakedTest::TearDown();
  }

  BusState bus = {.connection = connection, .watch = nullptr, .fd = -1};
  FakeWatch readable = {DBUS_WATCH_READABLE, 7};
  Calls calls;
  MessageOwner first;                       // in the queue
  std::vector<DBusDispatchStatus> results;  // of the first dispatches; later ones are complete
  size_t dispatched = 0;
  std::vector<DBusDispatchStatus> left_by_flushes;  // after the first flushes; later ones leave nothing
  size_t flushed = 0;
  dbus_bool_t handled = TRUE;
};

Calls pauses_among(const Calls& calls) {
  Calls pauses;
  for (const std::string& call : calls) {
    if (call.starts_with("usleep")) pauses.push_back(call);
  }
  return pauses;
}

std::string line(const std::string& function, const std::string& message) {
  return "cs/bus.cpp:#:" + function + ": DEBUG: " + message;
}

dbus_bool_t refuse_watch_functions(DBusConnection*, DBusAddWatchFunction, DBusRemoveWatchFunction,
                                   DBusWatchToggledFunction, void*, DBusFreeFunction) {
  return FALSE;
}

int refuse_name(DBusConnection*, const char*, unsigned, DBusError* error) {
  dbus_set_error(error, DBUS_ERROR_ACCESS_DENIED, "not for you");
  return -1;
}

}  // namespace

// ---- watch functions ----------------------------------------------------------------------------------

TEST_F(Bus, a_readable_watch_is_stored) {
  CapturedLog log;
  EXPECT_EQ(ccs_add_watch(as_watch(&readable), &bus), 1U);
  EXPECT_EQ(bus.watch, as_watch(&readable));
  EXPECT_EQ(bus.fd, 7);
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_add_watch", "Adding a read watch on fd 7 using newly-set watch function"),
                   line("ccs_add_watch", "READ Watch on fd 7")}));
}

TEST_F(Bus, a_readable_and_writable_watch_is_stored) {
  CapturedLog log;
  FakeWatch watch = {3, 8};
  EXPECT_EQ(ccs_add_watch(as_watch(&watch), &bus), 1U);
  EXPECT_EQ(bus.watch, as_watch(&watch));
  EXPECT_EQ(bus.fd, 8);
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_add_watch", "Adding a readwrite watch on fd 8 using newly-set watch function"),
                   line("ccs_add_watch", "READ Watch on fd 8")}));
}

TEST_F(Bus, a_writable_watch_is_not_stored) {
  CapturedLog log;
  FakeWatch watch = {2, 9};
  EXPECT_EQ(ccs_add_watch(as_watch(&watch), &bus), 1U);
  EXPECT_EQ(bus.watch, nullptr);
  EXPECT_EQ(bus.fd, -1);
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_add_watch", "Adding a write watch on fd 9 using newly-set watch function")}));
}

TEST_F(Bus, a_watch_for_neither_is_not_stored) {
  CapturedLog log;
  FakeWatch watch = {DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP, 10};
  EXPECT_EQ(ccs_add_watch(as_watch(&watch), &bus), 1U);
  EXPECT_EQ(bus.watch, nullptr);
  EXPECT_EQ(bus.fd, -1);
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_add_watch",
                        "Adding a no read or write watch on fd 10 using newly-set watch function")}));
}

TEST_F(Bus, other_flags_of_a_readable_watch_change_nothing) {
  CapturedLog log;
  FakeWatch watch = {DBUS_WATCH_READABLE | DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP, 11};
  ccs_add_watch(as_watch(&watch), &bus);
  EXPECT_EQ(bus.fd, 11);
  EXPECT_EQ(log.lines().front(),
            line("ccs_add_watch", "Adding a read watch on fd 11 using newly-set watch function"));
}

TEST_F(Bus, the_last_readable_watch_replaces_the_others) {
  FakeWatch second = {1, 12};
  FakeWatch writable = {2, 13};
  ccs_add_watch(as_watch(&readable), &bus);
  ccs_add_watch(as_watch(&second), &bus);
  ccs_add_watch(as_watch(&writable), &bus);
  EXPECT_EQ(bus.watch, as_watch(&second));
  EXPECT_EQ(bus.fd, 12);
  EXPECT_EQ(bus.connection, connection);
}

TEST_F(Bus, toggling_and_removing_only_log) {
  ccs_add_watch(as_watch(&readable), &bus);
  CapturedLog log;
  ccs_toggle_watch(as_watch(&readable), &bus);
  ccs_remove_watch(as_watch(&readable), &bus);
  EXPECT_EQ(log.lines(), (Lines{line("ccs_toggle_watch", "{II} ccs_toggle_watch()"),
                                line("ccs_remove_watch", "{II} ccs_remove_watch()")}));
  EXPECT_EQ(bus.watch, as_watch(&readable));
  EXPECT_EQ(bus.fd, 7);
}

// ---- setting up ---------------------------------------------------------------------------------------

TEST_F(Bus, the_connection_is_requested_as_the_session_bus) {
  bus.connection = nullptr;
  CapturedLog log;
  fakes.dbus_bus_get = [](DBusBusType type, DBusError* error) {
    EXPECT_EQ(static_cast<int>(type), 0);
    EXPECT_EQ(dbus_error_is_set(error), 0U);
    return connection;
  };
  EXPECT_TRUE(ccs_get_system_conn(&bus));
  EXPECT_EQ(bus.connection, connection);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(calls, (Calls{"at most 253 descriptors in a message", "at most 253 descriptors at a time"}));
}

TEST_F(Bus, an_error_while_connecting_is_logged_and_is_a_failure) {
  bus.connection = nullptr;
  CapturedLog log;
  fakes.dbus_bus_get = [](DBusBusType, DBusError* error) -> DBusConnection* {
    dbus_set_error(error, DBUS_ERROR_FAILED, "no bus today");
    return nullptr;
  };
  EXPECT_FALSE(ccs_get_system_conn(&bus));
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_get_system_conn", "{EE}Failed to connect system DBus: no bus today")}));
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(Bus, a_failed_step_frees_its_error) {
  fakes.dbus_error_free = [this](DBusError* error) {
    calls.push_back(dbus_error_is_set(error) ? error->message : "unset");
    __real_dbus_error_free(error);
  };
  fakes.dbus_bus_get = [](DBusBusType, DBusError* error) -> DBusConnection* {
    dbus_set_error(error, DBUS_ERROR_FAILED, "no bus today");
    return nullptr;
  };
  fakes.dbus_connection_set_watch_functions = refuse_watch_functions;
  fakes.dbus_bus_request_name = refuse_name;
  EXPECT_FALSE(ccs_get_system_conn(&bus));
  EXPECT_FALSE(ccs_set_watch_functions(&bus));
  EXPECT_FALSE(ccs_request_service_name(&bus));
  EXPECT_EQ(calls, (Calls{"no bus today", "unset", "not for you"}));
}

TEST_F(Bus, an_error_is_a_failure_even_with_a_connection) {
  bus.connection = nullptr;
  CapturedLog log;
  fakes.dbus_bus_get = [](DBusBusType, DBusError* error) {
    dbus_set_error(error, DBUS_ERROR_FAILED, "half a bus");
    return connection;
  };
  EXPECT_FALSE(ccs_get_system_conn(&bus));
  EXPECT_EQ(bus.connection, nullptr);
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_get_system_conn", "{EE}Failed to connect system DBus: half a bus")}));
}

TEST_F(Bus, a_missing_connection_without_an_error_is_a_failure_without_a_message) {
  bus.connection = nullptr;
  CapturedLog log;
  fakes.dbus_bus_get = [](DBusBusType, DBusError*) -> DBusConnection* { return nullptr; };
  EXPECT_FALSE(ccs_get_system_conn(&bus));
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(Bus, the_functions_for_removing_and_toggling_are_crossed) {
  CapturedLog log;
  fakes.dbus_connection_set_watch_functions =
      [this](DBusConnection* on, DBusAddWatchFunction add, DBusRemoveWatchFunction remove,
             DBusWatchToggledFunction toggled, void* data, DBusFreeFunction free_data) {
        EXPECT_EQ(on, connection);
        EXPECT_EQ(add, ccs_add_watch);
        EXPECT_EQ(remove, ccs_toggle_watch);
        EXPECT_EQ(toggled, ccs_remove_watch);
        EXPECT_EQ(data, &bus);
        EXPECT_EQ(free_data, nullptr);
        calls.push_back("set");
        return dbus_bool_t{TRUE};
      };
  results = {DBUS_DISPATCH_DATA_REMAINS};
  EXPECT_TRUE(ccs_set_watch_functions(&bus));
  EXPECT_EQ(calls, (Calls{"set", "dispatch"})) << "dispatched once, even if data remains";
  EXPECT_EQ(log.text(), "");
}

TEST_F(Bus, the_error_of_a_step_is_freed_after_its_dispatch) {
  fakes.dbus_error_free = [this](DBusError*) { calls.push_back("free"); };
  fakes.dbus_connection_set_watch_functions = [](DBusConnection*, DBusAddWatchFunction,
                                                 DBusRemoveWatchFunction, DBusWatchToggledFunction, void*,
                                                 DBusFreeFunction) { return dbus_bool_t{TRUE}; };
  EXPECT_TRUE(ccs_set_watch_functions(&bus));
  EXPECT_EQ(calls, (Calls{"dispatch", "free"}));
  calls.clear();
  fakes.dbus_bus_request_name = [](DBusConnection*, const char*, unsigned, DBusError*) { return 1; };
  EXPECT_TRUE(ccs_request_service_name(&bus));
  EXPECT_EQ(calls, (Calls{"dispatch", "free"}));
}

TEST_F(Bus, watch_functions_that_cannot_be_set_are_a_failure) {
  CapturedLog log;
  fakes.dbus_connection_set_watch_functions = refuse_watch_functions;
  EXPECT_FALSE(ccs_set_watch_functions(&bus));
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_set_watch_functions", "dbus_connection_set_watch_functions(): (null)")}));
  EXPECT_EQ(calls, (Calls{})) << "nothing is dispatched";
}

TEST_F(Bus, the_name_is_requested_to_replace_its_owner_and_every_result_except_minus_1_is_accepted) {
  for (const int answer : {0, 1, 2, 3, 4, -2}) {
    CapturedLog log;
    calls.clear();
    fakes.dbus_bus_request_name = [&](DBusConnection* on, const char* name, unsigned flags,
                                      DBusError* error) {
      EXPECT_EQ(on, connection);
      EXPECT_STREQ(name, "com.corvane.ControlServer");
      EXPECT_EQ(flags, 2U);
      EXPECT_EQ(dbus_error_is_set(error), 0U);
      calls.push_back("request");
      return answer;
    };
    EXPECT_TRUE(ccs_request_service_name(&bus));
    EXPECT_EQ(calls, (Calls{"request", "dispatch"})) << answer;
    EXPECT_EQ(log.lines(),
              (Lines{line("ccs_request_service_name", "Request service name: com.corvane.ControlServer")}))
        << answer;
  }
}

TEST_F(Bus, the_name_request_is_followed_by_one_dispatch_even_if_data_remains) {
  fakes.dbus_bus_request_name = [](DBusConnection*, const char*, unsigned, DBusError*) { return 1; };
  results = {DBUS_DISPATCH_DATA_REMAINS};
  EXPECT_TRUE(ccs_request_service_name(&bus));
  EXPECT_EQ(calls, (Calls{"dispatch"}));
}

TEST_F(Bus, a_name_that_cannot_be_requested_is_a_failure) {
  CapturedLog log;
  fakes.dbus_bus_request_name = refuse_name;
  EXPECT_FALSE(ccs_request_service_name(&bus));
  EXPECT_EQ(log.lines(),
            (Lines{line("ccs_request_service_name", "Request service name: com.corvane.ControlServer"),
                   line("ccs_request_service_name", "{EE} dbus_bus_request_name(): not for you")}));
  EXPECT_EQ(calls, (Calls{})) << "nothing is dispatched";
}

// ---- the main loop's steps ----------------------------------------------------------------------------

TEST_F(Bus, the_read_set_has_only_the_descriptor_of_the_watch) {
  for (const int fd : {0, 7, 1023}) {
    fd_set set;
    for (int other = 0; other < FD_SETSIZE; ++other) FD_SET(other, &set);
    bus.fd = fd;
    CapturedLog log;
    EXPECT_TRUE(ccs_build_read_set(&bus, &set));
    for (int other = 0; other < FD_SETSIZE; ++other) {
      EXPECT_EQ(FD_ISSET(other, &set) != 0, other == fd) << other << " in the set for " << fd;
    }
    EXPECT_EQ(log.text(), "");
  }
}

TEST_F(Bus, a_descriptor_that_select_cannot_hold_is_a_failure) {
  for (const int fd : {1024, 1025, 100000, -1, -7}) {
    bus.fd = fd;
    CapturedLog log;
    fd_set set;
    EXPECT_FALSE(ccs_build_read_set(&bus, &set)) << fd;
    EXPECT_EQ(log.lines(), (Lines{line("ccs_build_read_set", "{EE} Watch on fd " + std::to_string(fd) +
                                                                 " is beyond what select() can hold")}));
  }
}

TEST_F(Bus, a_step_of_the_set_up_dispatches_even_without_a_message) {
  ccs_dispatch_one(connection);
  EXPECT_EQ(calls, (Calls{"dispatch"}));
}

TEST_F(Bus, a_step_of_the_set_up_dispatches_every_message_except_a_call) {
  for (const int type :
       {DBUS_MESSAGE_TYPE_METHOD_RETURN, DBUS_MESSAGE_TYPE_ERROR, DBUS_MESSAGE_TYPE_SIGNAL}) {
    calls.clear();
    first.reset(dbus_message_new(type));
    ccs_dispatch_one(connection);
    EXPECT_EQ(calls, (Calls{"return", "dispatch"})) << type;
  }
  calls.clear();
  first.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
  ccs_dispatch_one(connection);
  EXPECT_EQ(calls, (Calls{"return"}));
}

TEST_F(Bus, a_call_stays_in_the_queue_while_the_watch_is_set_and_the_name_requested) {
  first.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
  fakes.dbus_connection_set_watch_functions = [](DBusConnection*, DBusAddWatchFunction,
                                                 DBusRemoveWatchFunction, DBusWatchToggledFunction, void*,
                                                 DBusFreeFunction) { return dbus_bool_t{TRUE}; };
  fakes.dbus_bus_request_name = [](DBusConnection*, const char*, unsigned, DBusError*) { return 1; };
  EXPECT_TRUE(ccs_set_watch_functions(&bus));
  EXPECT_TRUE(ccs_request_service_name(&bus));
  EXPECT_EQ(calls, (Calls{"return", "return"}));
}

TEST_F(Bus, dispatching_continues_while_data_remains) {
  results = {DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_COMPLETE,
             DBUS_DISPATCH_DATA_REMAINS};
  EXPECT_EQ(ccs_dispatch_all(connection), DBUS_DISPATCH_COMPLETE);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "dispatch", "dispatch", "unref"}));
}

TEST_F(Bus, dispatching_stops_when_memory_is_short) {
  results = {DBUS_DISPATCH_NEED_MEMORY, DBUS_DISPATCH_DATA_REMAINS};
  EXPECT_EQ(ccs_dispatch_all(connection), DBUS_DISPATCH_NEED_MEMORY);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "unref"}));
}

TEST_F(Bus, a_message_that_is_still_first_after_its_dispatch_means_a_shortage_of_memory) {
  first.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
  results.assign(9, DBUS_DISPATCH_DATA_REMAINS);
  EXPECT_EQ(ccs_dispatch_all(connection), DBUS_DISPATCH_NEED_MEMORY);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "return", "dispatch", "return", "unref"}));
}

TEST_F(Bus, a_new_first_message_after_each_dispatch_does_not_mean_a_shortage_of_memory) {
  std::vector<MessageOwner> queue;
  fakes.dbus_connection_borrow_message = [&](DBusConnection*) {
    queue.emplace_back(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
    return queue.back().get();
  };
  fakes.dbus_connection_return_message = [&](DBusConnection*, DBusMessage* message) {
    EXPECT_EQ(message, queue.back().get());
    queue.clear();  // so that the next one may get the same address
  };
  results.assign(50, DBUS_DISPATCH_DATA_REMAINS);
  EXPECT_EQ(ccs_dispatch_all(connection), DBUS_DISPATCH_COMPLETE);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "dispatch"), 51);
}

TEST_F(Bus, every_dispatch_ends_with_a_flush) {
  ccs_dispatch_and_flush(connection);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "unref", "flush"}));
}

TEST_F(Bus, a_dispatch_without_memory_is_retried_after_one_millisecond_and_then_after_two) {
  results = {DBUS_DISPATCH_NEED_MEMORY, DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_NEED_MEMORY};
  ccs_dispatch_and_flush(connection);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "unref", "usleep 1000", "ref", "dispatch", "dispatch", "unref",
                          "usleep 2000", "ref", "dispatch", "unref", "flush"}));
}

TEST_F(Bus, messages_read_by_a_flush_are_dispatched_and_flushed_too) {
  left_by_flushes = {DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_NEED_MEMORY};
  ccs_dispatch_and_flush(connection);
  EXPECT_EQ(calls, (Calls{"ref", "dispatch", "unref", "flush", "ref", "dispatch", "unref", "flush", "ref",
                          "dispatch", "unref", "flush"}));
}

TEST_F(Bus, a_shortage_of_memory_is_logged_once_and_waited_out_with_growing_pauses) {
  CapturedLog log;
  results.assign(20000, DBUS_DISPATCH_NEED_MEMORY);
  ccs_dispatch_and_flush(connection);
  Calls expected;
  for (int pause = 1; pause <= 512; pause *= 2) expected.push_back("usleep " + std::to_string(pause) + "000");
  expected.resize(20000, "usleep 1000000");
  EXPECT_EQ(pauses_among(calls), expected);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "dispatch"), 20001);
  EXPECT_EQ(calls.back(), "flush");
  EXPECT_EQ(log.lines(), (Lines{line("pause_for_memory", "{EE} No memory for the next message")}));
}

TEST_F(Bus, after_a_watch_that_cannot_be_handled_come_a_dispatch_and_a_pause) {
  ccs_add_watch(as_watch(&readable), &bus);
  CapturedLog log;
  handled = FALSE;
  ccs_serve_watch(&bus);
  EXPECT_EQ(calls, (Calls{"handle 1", "ref", "dispatch", "unref", "flush", "usleep 1000"}));
  for (int i = 0; i < 12; ++i) ccs_serve_watch(&bus);
  EXPECT_EQ(pauses_among(calls),
            (Calls{"usleep 1000", "usleep 2000", "usleep 4000", "usleep 8000", "usleep 16000", "usleep 32000",
                   "usleep 64000", "usleep 128000", "usleep 256000", "usleep 512000", "usleep 1000000",
                   "usleep 1000000", "usleep 1000000"}));
  EXPECT_EQ(log.lines(), (Lines{line("pause_for_memory", "{EE} No memory for the next message")}));
}

TEST_F(Bus, a_handled_watch_ends_a_shortage_and_the_next_one_starts_with_the_first_pause) {
  ccs_add_watch(as_watch(&readable), &bus);
  CapturedLog log;
  for (const bool result : {false, false, true, false}) {
    handled = result ? TRUE : FALSE;
    ccs_serve_watch(&bus);
  }
  EXPECT_EQ(pauses_among(calls), (Calls{"usleep 1000", "usleep 2000", "usleep 1000"}));
  EXPECT_EQ(log.lines(), (Lines(2, line("pause_for_memory", "{EE} No memory for the next message"))));
}

TEST_F(Bus, a_shortage_before_the_first_wait_ends_with_it_and_the_next_one_starts_with_the_first_pause) {
  ccs_add_watch(as_watch(&readable), &bus);
  CapturedLog log;
  results = {DBUS_DISPATCH_NEED_MEMORY, DBUS_DISPATCH_NEED_MEMORY, DBUS_DISPATCH_COMPLETE,
             DBUS_DISPATCH_NEED_MEMORY};
  ccs_dispatch_and_flush(connection);
  ccs_serve_watch(&bus);
  EXPECT_EQ(pauses_among(calls), (Calls{"usleep 1000", "usleep 2000", "usleep 1000"}));
  EXPECT_EQ(log.lines(), (Lines(2, line("pause_for_memory", "{EE} No memory for the next message"))));
}

TEST_F(Bus, failed_dispatches_after_an_unhandled_watch_belong_to_the_same_shortage) {
  ccs_add_watch(as_watch(&readable), &bus);
  CapturedLog log;
  handled = FALSE;
  ccs_serve_watch(&bus);
  results = {DBUS_DISPATCH_NEED_MEMORY, DBUS_DISPATCH_NEED_MEMORY};
  handled = TRUE;
  ccs_serve_watch(&bus);
  EXPECT_EQ(pauses_among(calls), (Calls{"usleep 1000", "usleep 2000", "usleep 4000"}));
  EXPECT_EQ(log.lines(), (Lines{line("pause_for_memory", "{EE} No memory for the next message")}));
}

TEST_F(Bus, a_watch_is_ready_when_its_descriptor_is_in_the_set) {
  fd_set ready;
  for (const int fd : {0, 7, 1023}) {
    bus.fd = fd;
    FD_ZERO(&ready);
    EXPECT_FALSE(ccs_is_ready(&bus, &ready)) << fd;
    FD_SET(fd, &ready);
    EXPECT_TRUE(ccs_is_ready(&bus, &ready)) << fd;
    bus.fd = 8;
    EXPECT_FALSE(ccs_is_ready(&bus, &ready)) << fd << " is not 8";
  }
}

TEST_F(Bus, a_descriptor_that_select_cannot_hold_is_never_ready) {
  std::vector<unsigned char> memory(100000 / 8 + 2 * sizeof(fd_set), 0xff);
  const auto* ready = reinterpret_cast<const fd_set*>(memory.data() + sizeof(fd_set));
  for (const int fd : {-1, 1024, 100000}) {
    bus.fd = fd;
    EXPECT_FALSE(ccs_is_ready(&bus, ready)) << fd;
  }
}

TEST_F(Bus, a_ready_watch_is_handled_as_readable_and_then_dispatched_and_flushed) {
  ccs_add_watch(as_watch(&readable), &bus);
  results = {DBUS_DISPATCH_DATA_REMAINS};
  ccs_serve_watch(&bus);
  EXPECT_EQ(calls, (Calls{"handle 1", "ref", "dispatch", "dispatch", "unref", "flush"}));
}

TEST_F(Bus, a_ready_watch_is_served_completely_even_if_memory_was_short) {
  ccs_add_watch(as_watch(&readable), &bus);
  results = {DBUS_DISPATCH_NEED_MEMORY};
  ccs_serve_watch(&bus);
  EXPECT_EQ(calls, (Calls{"handle 1", "ref", "dispatch", "unref", "usleep 1000", "ref", "dispatch", "unref",
                          "flush"}));
}
