// SPDX-License-Identifier: MIT
// dm_dbus_test.cpp: display texts, and how Start and Stop check a call, queue an event and answer.
//
// Stations have no workers here, so that queued events can be looked at.
#include "plugins/display-manager/dm-dbus.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "plugins/display-manager/display-manager.h"
#include "tests/unit/bus_calls.h"
#include "tests/unit/capture.h"

using Sent = std::vector<std::string>;

namespace {

constexpr const char* path = "/com/corvane/ControlServer/DisplayManager";
constexpr const char* interface = "com.corvane.ControlServer.DisplayManager";

const Sent answered_true = {"send b true to 7", "flush"};
const Sent answered_false = {"send b false to 7", "flush"};

class DisplayManagerCalls : public BusCallTest {
 protected:
  DisplayManagerCalls() {
    fakes.pthread_create = [this](pthread_t*, const pthread_attr_t*, void* (*)(void*), void* data) {
      ++threads;
      if (thread_result == 0) {
        auto* station = static_cast<Station*>(data);
        station->ready = 1;
        sem_post(&station->waiting);
      }
      return thread_result;
    };
  }
  ~DisplayManagerCalls() override {
    for (Station* station = context.stations; station;) {
      while (station->events) {
        const EventOwner event(station->events);
        station->events = event->next;
      }
      Station* next = station->next;
      free(station->display);
      free(station);
      station = next;
    }
  }

  DBusHandlerResult start(const std::vector<const char*>& texts) {
    return dbus_dm_start(fake_connection, method_call(path, interface, "Start", texts).get(), &plugin);
  }
  DBusHandlerResult stop(const std::vector<const char*>& texts) {
    return dbus_dm_stop(fake_connection, method_call(path, interface, "Stop", texts).get(), &plugin);
  }

  PluginContext context = {};
  Plugin plugin = {.name = "DisplayManager",
                   .path = path,
                   .context = &context,
                   .init = nullptr,
                   .fin = nullptr,
                   .handle_message = nullptr};
  CapturedLog log;
  int threads = 0;
  int thread_result = 0;
};
using Start = DisplayManagerCalls;
using Stop = DisplayManagerCalls;

std::string in_start(const std::string& message) {
  return "plugins/display-manager/dm-dbus.cpp:#:dbus_dm_start: DEBUG: " + message;
}
std::string in_stop(const std::string& message) {
  return "plugins/display-manager/dm-dbus.cpp:#:dbus_dm_stop: DEBUG: " + message;
}
std::string in_stations(const std::string& function, const std::string& message) {
  return "plugins/display-manager/display-manager.cpp:#:" + function + ": DEBUG: " + message;
}

}  // namespace

// ---- dm_parse_display ---------------------------------------------------------------------------------

TEST(ParseDisplay, a_display_is_a_colon_and_a_number) {
  const struct {
    const char* text;
    int display;
  } cases[] = {{":0", 0},
               {":3", 3},
               {":10", 10},
               {":007", 7},
               {"host:3", 3},
               {"host:0.0", 0},
               {":2.1", 2},
               {":2.0", 2},
               {" :4", 4},
               {": 4", 4},
               {":\t\n 4", 4},
               {":+5", 5},
               {":5.+1", 5},
               {":5. 1", 5},
               {":5.-1", 5},
               {"::", -1},
               {"a b c:12", 12},
               {":5.00", 5},
               {"127.0.0.1:6", 6},
               {":6.2147483647", 6},
               {":6.-2147483648", 6}};
  for (const auto& [text, display] : cases) EXPECT_EQ(dm_parse_display(text), display) << '"' << text << '"';
}

TEST(ParseDisplay, any_other_text_is_minus_1) {
  for (const char* text :
       {"",      "0",    "7",     "host",  ":",      "host:", ":x",  ":1x",  ":1 ",   ":1.",
        ":1..",  ":1.x", ":1.2x", ":1.2 ", ":1.2.3", ":1:2",  "::1", ":.1",  ": .1",  ":1,2",
        ":0x10", ":+",   ":-",    ":+-1",  ":1.+",   ":1e1",  "1.2", ":1\n", ":1.2\n"})
    EXPECT_EQ(dm_parse_display(text), -1) << '"' << text << '"';
}

TEST(ParseDisplay, negative_numbers_are_returned_as_they_stand) {
  EXPECT_EQ(dm_parse_display(":-1"), -1);
  EXPECT_EQ(dm_parse_display(":-5"), -5);
  EXPECT_EQ(dm_parse_display(":-5.1"), -5);
  EXPECT_EQ(dm_parse_display(":-0"), 0);
}

TEST(ParseDisplay, numbers_reach_to_the_limits_of_int) {
  EXPECT_EQ(dm_parse_display(":2147483647"), INT_MAX);
  EXPECT_EQ(dm_parse_display(":-2147483648"), INT_MIN);
  EXPECT_EQ(dm_parse_display(":2147483647.1"), INT_MAX);
}

TEST(ParseDisplay, display_numbers_beyond_int_are_invalid) {
  for (const char* text :
       {":2147483648", ":-2147483649", ":4294967296", ":4294967299", ":9223372036854775807",
        ":9223372036854775808", ":-9223372036854775809", ":99999999999999999999999"})
    EXPECT_EQ(dm_parse_display(text), -1) << text;
}

TEST(ParseDisplay, screen_numbers_beyond_int_are_invalid) {
  for (const char* text : {":1.2147483648", ":1.-2147483649", ":1.4294967296", ":1.99999999999999999999999"})
    EXPECT_EQ(dm_parse_display(text), -1) << text;
}

TEST(ParseDisplay, an_older_error_is_not_taken_for_one_of_the_conversion) {
  errno = ERANGE;
  EXPECT_EQ(dm_parse_display(":2.1"), 2);
}

// ---- dbus_reply_boolean -------------------------------------------------------------------------------

TEST_F(DisplayManagerCalls, a_boolean_is_answered_and_flushed) {
  const MessageOwner call = method_call(path, interface, "Start", {});
  dbus_reply_boolean(fake_connection, call.get(), 1);
  dbus_reply_boolean(fake_connection, call.get(), 0);
  EXPECT_EQ(sent, (Sent{"send b true to 7", "flush", "send b false to 7", "flush"}));
}

// ---- Start --------------------------------------------------------------------------------------------

TEST_F(Start, a_valid_call_queues_an_event_and_is_answered_true) {
  EXPECT_EQ(start({"host:3.1", "press-fkey", "USB"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_true);
  EXPECT_EQ(log.lines(),
            (Lines{in_start("dbus_dm_start(): display=host:3.1, actor=press-fkey, stationtype=USB"),
                   in_stations("dm_start_station_thread", "Start a new station thread for :3"),
                   in_start("Start requested actor code: 4 on display :3")}));
  const Station* station = context.stations;
  ASSERT_NE(station, nullptr);
  EXPECT_EQ(station->display_num, 3);
  EXPECT_STREQ(station->display, "host:3.1");
  EXPECT_EQ(station->station_type, 3);
  const StationEvent* event = station->events;
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->kind, 1);
  EXPECT_EQ(event->display_num, 3);
  EXPECT_EQ(event->actor_code, 4);
  EXPECT_EQ(event->station_type, 3);
  EXPECT_EQ(event->context, &context);
  EXPECT_EQ(event->proc, proc_method_start);
  EXPECT_EQ(event->next, nullptr);
}

TEST_F(Start, display_0_is_valid) {
  start({":0", "xhotkey", "PCI"});
  EXPECT_EQ(sent, answered_true);
  EXPECT_EQ(log.lines().back(), in_start("Start requested actor code: 7 on display :0"));
}

TEST_F(Start, init_station_is_queued_like_any_other_actor) {
  start({":1", "init-station", "COMMON"});
  EXPECT_EQ(sent, answered_true);
  const Station* station = context.stations;
  EXPECT_EQ(station->events->actor_code, 1);
  EXPECT_EQ(station->events->station_type, 1);
}

TEST_F(Start, a_second_call_uses_the_station_that_is_there) {
  start({":1", "local-login", "PCI"});
  log.forget();
  start({":1", "xhotkey", "USB"});
  EXPECT_EQ(log.lines(), (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=USB"),
                                in_stations("dm_start_station_thread", "station thread for :1 exists."),
                                in_start("Start requested actor code: 7 on display :1")}));
  const Station* station = context.stations;
  EXPECT_EQ(threads, 1);
  EXPECT_EQ(station->station_type, 2) << "that of the first call";
  ASSERT_NE(station->events, nullptr);
  ASSERT_NE(station->events->next, nullptr);
  EXPECT_EQ(station->events->actor_code, 2);
  EXPECT_EQ(station->events->next->actor_code, 7);
  EXPECT_EQ(station->events->next->station_type, 3);
}

TEST_F(Start, too_few_arguments_are_left_unhandled_without_a_reply) {
  EXPECT_EQ(start({":1", "xhotkey"}), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), (Lines{in_start("{DM} Unable to get args from DBus message: "
                                         "Message has only 2 arguments, but more were expected")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, the_error_of_unreadable_arguments_is_freed) {
  int freed = 0;
  fakes.dbus_error_free = [&](DBusError* error) {
    freed += dbus_error_is_set(error) ? 1 : 0;
    __real_dbus_error_free(error);
  };
  start({":1", "xhotkey"});
  EXPECT_EQ(freed, 1);
}

TEST_F(Start, arguments_of_other_types_are_left_unhandled_without_a_reply) {
  const MessageOwner call = method_call(path, interface, "Start", {":1"});
  const dbus_int32_t number = 7;
  const char* type = "PCI";
  dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_STRING, &type, DBUS_TYPE_INVALID);
  EXPECT_EQ(dbus_dm_start(fake_connection, call.get(), &plugin), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().front(),
            in_start("{DM} Unable to get args from DBus message: Argument 1 is specified to be of type "
                     "\"string\", but is actually of type \"int32\""));
}

TEST_F(Start, surplus_arguments_are_not_looked_at) {
  start({":1", "xhotkey", "PCI", "and", "more"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Start, a_display_that_is_none_is_answered_false) {
  for (const char* display : {"1", ":x", ":-1", ":-5", ":2147483648", ""}) {
    log.forget();
    sent.clear();
    EXPECT_EQ(start({display, "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(sent, answered_false);
    EXPECT_EQ(log.lines(), (Lines{in_start(std::string("dbus_dm_start(): display=") + display +
                                           ", actor=xhotkey, stationtype=PCI"),
                                  in_start(std::string("{DM} Invalid DISPLAY value : ") + display)}));
  }
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, a_station_type_that_is_none_is_answered_false) {
  EXPECT_EQ(start({":1", "xhotkey", "pci"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(), (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=pci"),
                                in_start("{DM} Invalid station type: pci")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, an_actor_that_is_none_is_answered_false) {
  EXPECT_EQ(start({":1", "xclock", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(), (Lines{in_start("dbus_dm_start(): display=:1, actor=xclock, stationtype=PCI"),
                                in_start("{DM} Invalid actor name: xclock")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, the_display_is_checked_before_the_station_type_and_that_before_the_actor) {
  start({"bad", "bad", "bad"});
  EXPECT_EQ(log.lines().back(), in_start("{DM} Invalid DISPLAY value : bad"));
  log.forget();
  start({":1", "bad", "bad"});
  EXPECT_EQ(log.lines(), (Lines{in_start("dbus_dm_start(): display=:1, actor=bad, stationtype=bad"),
                                in_start("{DM} Invalid station type: bad")}));
}

TEST_F(Start, a_station_that_cannot_be_made_is_answered_false) {
  thread_result = EAGAIN;
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(
      log.lines(),
      (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=PCI"),
             in_stations("dm_start_station_thread", "Start a new station thread for :1"),
             in_stations("dm_start_station_thread", "{DM} Unable to start thread for display=1, rc=11")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, without_memory_for_the_event_it_is_answered_false_and_the_station_stays) {
  MemoryBook memory;
  memory.fail_malloc(2);  // behind the station
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines().back(), in_start("{DM} Unable to allocate memory"));
  EXPECT_EQ(log.lines().size(), 3U);
  Station* station = context.stations;
  ASSERT_NE(station, nullptr);
  EXPECT_EQ(station->events, nullptr);
  context.stations = nullptr;  // the book frees it
}

TEST_F(Start, an_event_that_cannot_be_queued_is_freed_and_answered_false) {
  // A station never goes, so the test itself takes it away between the steps.
  Station* station = nullptr;
  MemoryBook memory;
  const auto real_malloc = fakes.malloc;
  fakes.malloc = [&](size_t size) {
    if (size == sizeof(StationEvent)) station = context.stations.exchange(nullptr);
    return real_malloc(size);
  };
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(),
            (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=PCI"),
                   in_stations("dm_start_station_thread", "Start a new station thread for :1"),
                   in_start("Start requested actor code: 7 on display :1"),
                   in_stations("add_station_event", "{DM} Unable to find station entry for display 1"),
                   in_start("{DM} Unable to add event")}));
  EXPECT_EQ(memory.sizes_left(), (std::vector<size_t>{sizeof(Station)})) << "the event is freed";
}

TEST_F(Start, an_event_that_cannot_be_queued_is_freed_before_the_caller_is_answered) {
  Station* station = nullptr;
  MemoryBook memory;
  const auto real_malloc = fakes.malloc;
  fakes.malloc = [&](size_t size) {
    if (size == sizeof(StationEvent)) station = context.stations.exchange(nullptr);
    return real_malloc(size);
  };
  std::vector<size_t> left_at_the_answer;
  const auto send = fakes.dbus_connection_send;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    left_at_the_answer = memory.sizes_left();
    return send(on, reply, serial);
  };
  start({":1", "xhotkey", "PCI"});
  EXPECT_EQ(left_at_the_answer, (std::vector<size_t>{sizeof(Station)}));
  EXPECT_EQ(sent, answered_false);
}

TEST_F(Start, the_event_is_queued_before_the_caller_is_answered) {
  const auto send = fakes.dbus_connection_send;
  bool was_queued = false;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    const Station* station = context.stations;
    was_queued = station && station->events;
    return send(on, reply, serial);
  };
  start({":3", "local-login", "USB"});
  EXPECT_TRUE(was_queued);
  EXPECT_EQ(sent, answered_true);
}

// ---- Stop ---------------------------------------------------------------------------------------------

TEST_F(Stop, a_valid_call_queues_an_event_and_is_answered_true) {
  start({":3", "press-fkey", "USB"});
  log.forget();
  sent.clear();
  EXPECT_EQ(stop({":3.0", "click-mouse"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_true);
  EXPECT_EQ(log.lines(), (Lines{in_stop("display_num=3, actor_code=5")}));
  const Station* station = context.stations;
  const StationEvent* event = station->events->next;
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->kind, 2);
  EXPECT_EQ(event->display_num, 3);
  EXPECT_EQ(event->actor_code, 5);
  EXPECT_EQ(event->context, &context);
  EXPECT_EQ(event->proc, proc_method_stop);
  EXPECT_EQ(event->next, nullptr);
}

TEST_F(Stop, display_0_is_valid) {
  start({":0", "xhotkey", "PCI"});
  sent.clear();
  stop({":0", "xhotkey"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Stop, the_event_is_queued_before_the_caller_is_answered) {
  start({":3", "local-login", "USB"});
  sent.clear();
  const auto send = fakes.dbus_connection_send;
  bool was_queued = false;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    was_queued = context.stations.load()->events->next != nullptr;
    return send(on, reply, serial);
  };
  stop({":3", "local-login"});
  EXPECT_TRUE(was_queued);
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Stop, a_display_without_a_station_is_answered_false_and_gets_none) {
  MemoryBook memory;
  EXPECT_EQ(stop({":1", "xhotkey"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(),
            (Lines{in_stop("display_num=1, actor_code=7"),
                   in_stations("add_station_event", "{DM} Unable to find station entry for display 1"),
                   in_stop("{DM} Unable to add event")}));
  EXPECT_EQ(context.stations, nullptr);
  EXPECT_EQ(memory.blocks_left(), 0U) << "the event is freed";
}

TEST_F(Stop, an_event_that_cannot_be_queued_is_freed_before_the_caller_is_answered) {
  MemoryBook memory;
  size_t left_at_the_answer = 99;
  const auto send = fakes.dbus_connection_send;
  fakes.dbus_connection_send = [&](DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
    left_at_the_answer = memory.blocks_left();
    return send(on, reply, serial);
  };
  stop({":1", "xhotkey"});
  EXPECT_EQ(left_at_the_answer, 0U);
  EXPECT_EQ(sent, answered_false);
}

TEST_F(Stop, too_few_arguments_are_left_unhandled_without_a_reply) {
  EXPECT_EQ(stop({":1"}), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), (Lines{in_stop("{DM} Unable to get args from DBus message: "
                                        "Message has only 1 arguments, but more were expected")}));
}

TEST_F(Stop, the_error_of_unreadable_arguments_is_freed) {
  int freed = 0;
  fakes.dbus_error_free = [&](DBusError* error) {
    freed += dbus_error_is_set(error) ? 1 : 0;
    __real_dbus_error_free(error);
  };
  stop({":1"});
  EXPECT_EQ(freed, 1);
}

TEST_F(Stop, arguments_of_other_types_are_left_unhandled_without_a_reply) {
  const MessageOwner call = method_call(path, interface, "Stop", {});
  const dbus_int32_t number = 7;
  const char* actor = "xhotkey";
  dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_STRING, &actor, DBUS_TYPE_INVALID);
  EXPECT_EQ(dbus_dm_stop(fake_connection, call.get(), &plugin), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
}

TEST_F(Stop, surplus_arguments_are_not_looked_at) {
  start({":1", "xhotkey", "PCI"});
  sent.clear();
  stop({":1", "xhotkey", "PCI"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Stop, a_display_that_is_none_is_answered_false) {
  for (const char* display : {"1", ":-1", ":-5", ":2147483648"}) {
    log.forget();
    sent.clear();
    EXPECT_EQ(stop({display, "xhotkey"}), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(sent, answered_false);
    EXPECT_EQ(log.lines(), (Lines{in_stop(std::string("{DM} Invalid DISPLAY value : ") + display)}));
  }
}

TEST_F(Stop, an_actor_that_is_none_is_answered_false) {
  EXPECT_EQ(stop({":1", "xclock"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(), (Lines{in_stop("{DM} Invalid actor name: xclock")}));
}

TEST_F(Stop, the_display_is_checked_before_the_actor) {
  stop({"bad", "bad"});
  EXPECT_EQ(log.lines(), (Lines{in_stop("{DM} Invalid DISPLAY value : bad")}));
}

TEST_F(Stop, without_memory_for_the_event_it_is_answered_false) {
  start({":1", "xhotkey", "PCI"});
  log.forget();
  sent.clear();
  Lines lines_at_malloc;
  {
    MemoryBook memory;
    memory.fail_malloc(1);
    const auto book_malloc = fakes.malloc;
    fakes.malloc = [&](size_t size) {
      lines_at_malloc = log.lines();
      return book_malloc(size);
    };
    EXPECT_EQ(stop({":1", "xhotkey"}), DBUS_HANDLER_RESULT_HANDLED);
  }
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(),
            (Lines{in_stop("display_num=1, actor_code=7"), in_stop("{DM} Unable to allocate memory")}));
  EXPECT_EQ(lines_at_malloc, (Lines{in_stop("display_num=1, actor_code=7")})) << "told before";
  const Station* station = context.stations;
  EXPECT_EQ(station->events->next, nullptr);
}
