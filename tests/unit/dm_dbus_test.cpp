// SPDX-License-Identifier: MIT
// dm_dbus_test.cpp: display texts, and how Start and Stop check a call, queue an event and reply.
//
// Stations have no workers here, so that the tests can inspect queued events.
#include "plugins/display-manager/dm-dbus.h"

#include <cerrno>
#include <climits>

#include "tests/unit/bus_calls.h"
#include "tests/unit/capture.h"
#include "tests/unit/dm_support.h"

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
  ~DisplayManagerCalls() override { free_stations(context); }

  DBusHandlerResult start(const std::vector<const char*>& texts) {
    return dbus_dm_start(fake_connection, method_call(path, interface, "Start", texts).get(), &plugin);
  }
  DBusHandlerResult stop(const std::vector<const char*>& texts) {
    return dbus_dm_stop(fake_connection, method_call(path, interface, "Stop", texts).get(), &plugin);
  }

  /** Takes the stations away when memory is allocated for an event; real stations never go. */
  void lose_stations_before_the_event() {
    fakes.malloc = [this, allocate = fakes.malloc](size_t size) {
      if (size == sizeof(StationEvent)) context.stations = nullptr;
      return allocate(size);
    };
  }

  /** Calls `look` when the reply is sent. */
  void on_reply(const std::function<void()>& look) {
    fakes.dbus_connection_send = [look, send = fakes.dbus_connection_send](
                                     DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial) {
      look();
      return send(on, reply, serial);
    };
  }

  /** The events of the first station. */
  size_t events_queued() const {
    const Station* station = context.stations;
    size_t count = 0;
    for (const StationEvent* event = station ? station->events : nullptr; event; event = event->next) ++count;
    return count;
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

}  // namespace

// ---- dm_parse_display ---------------------------------------------------------------------------------

TEST(ParseDisplay, a_display_is_a_colon_and_a_number_within_int) {
  const struct {
    const char* text;
    int display;
  } cases[] = {{":0", 0},
               {":10", 10},
               {":007", 7},
               {"host:3", 3},
               {"host:0.0", 0},
               {"127.0.0.1:6", 6},
               {"a b c:12", 12},
               {":2.1", 2},
               {" :4", 4},
               {": 4", 4},
               {":\t\n 4", 4},
               {":+5", 5},
               {":5.+1", 5},
               {":5. 1", 5},
               {":5.-1", 5},
               {":5.00", 5},
               {":6.2147483647", 6},
               {":6.-2147483648", 6},
               {":2147483647.1", INT_MAX},
               {":-2147483648", INT_MIN},
               {":-5.1", -5},
               {":-0", 0}};
  for (const auto& [text, display] : cases) EXPECT_EQ(dm_parse_display(text), display) << '"' << text << '"';
}

TEST(ParseDisplay, any_other_text_is_minus_1) {
  for (const char* text :
       {"",     "0",     "7",     "host",  ":",    "host:",  ":x",   ":1x", ":1 ",  ":1.",
        ":1..", ":1.x",  ":1.2x", ":1.2 ", "::",   ":1.2.3", ":1:2", "::1", ":.1",  ": .1",
        ":1,2", ":0x10", ":+",    ":-",    ":+-1", ":1.+",   ":1e1", "1.2", ":1\n", ":1.2\n"})
    EXPECT_EQ(dm_parse_display(text), -1) << '"' << text << '"';
}

TEST(ParseDisplay, numbers_beyond_int_are_minus_1) {
  for (const char* text :
       {":2147483648", ":-2147483649", ":4294967299", ":9223372036854775808", ":-9223372036854775809",
        ":1.2147483648", ":1.-2147483649", ":1.4294967296", ":1.99999999999999999999999"})
    EXPECT_EQ(dm_parse_display(text), -1) << text;
}

TEST(ParseDisplay, an_earlier_error_is_ignored) {
  errno = ERANGE;
  EXPECT_EQ(dm_parse_display(":2.1"), 2);
}

// ---- Start --------------------------------------------------------------------------------------------

TEST_F(Start, a_valid_call_queues_an_event_and_then_gets_true) {
  size_t queued_at_reply = 0;
  on_reply([&] { queued_at_reply = events_queued(); });
  EXPECT_EQ(start({"host:3.1", "press-fkey", "USB"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(queued_at_reply, 1U);
  EXPECT_EQ(sent, answered_true);
  EXPECT_EQ(log.lines(),
            (Lines{in_start("dbus_dm_start(): display=host:3.1, actor=press-fkey, stationtype=USB"),
                   dm_line("dm_start_station_thread", "Start a new station thread for :3"),
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

TEST_F(Start, a_second_call_uses_the_existing_station) {
  start({":1", "local-login", "PCI"});
  log.forget();
  start({":1", "xhotkey", "USB"});
  EXPECT_EQ(log.lines(), (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=USB"),
                                dm_line("dm_start_station_thread", "station thread for :1 exists."),
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

TEST_F(Start, too_few_arguments_are_logged_and_left_unhandled_without_a_reply) {
  int freed = 0;
  fakes.dbus_error_free = [&](DBusError* error) {
    freed += dbus_error_is_set(error) ? 1 : 0;
    __real_dbus_error_free(error);
  };
  EXPECT_EQ(start({":1", "xhotkey"}), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), (Lines{in_start("{DM} Unable to get args from DBus message: "
                                         "Message has only 2 arguments, but more were expected")}));
  EXPECT_EQ(context.stations, nullptr);
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

TEST_F(Start, surplus_arguments_are_ignored) {
  start({":1", "xhotkey", "PCI", "and", "more"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Start, a_failed_check_is_logged_and_answered_with_false_the_display_first_and_the_actor_last) {
  const struct {
    std::vector<const char*> arguments;  // display, actor, station type
    const char* message;
  } cases[] = {{{"1", "bad", "bad"}, "{DM} Invalid DISPLAY value : 1"},
               {{":-1", "xhotkey", "PCI"}, "{DM} Invalid DISPLAY value : :-1"},
               {{":-5", "xhotkey", "PCI"}, "{DM} Invalid DISPLAY value : :-5"},
               {{"", "xhotkey", "PCI"}, "{DM} Invalid DISPLAY value : "},
               {{":1", "bad", "pci"}, "{DM} Invalid station type: pci"},
               {{":1", "xclock", "PCI"}, "{DM} Invalid actor name: xclock"}};
  for (const auto& [arguments, message] : cases) {
    log.forget();
    sent.clear();
    EXPECT_EQ(start(arguments), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(sent, answered_false);
    EXPECT_EQ(log.lines(), (Lines{in_start(std::string("dbus_dm_start(): display=") + arguments[0] +
                                           ", actor=" + arguments[1] + ", stationtype=" + arguments[2]),
                                  in_start(message)}));
  }
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, a_station_that_cannot_be_created_is_answered_with_false) {
  thread_result = EAGAIN;
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines(),
            (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=PCI"),
                   dm_line("dm_start_station_thread", "Start a new station thread for :1"),
                   dm_line("dm_start_station_thread", "{DM} Unable to start thread for display=1, rc=11")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Start, without_memory_for_the_event_the_reply_is_false_and_the_station_stays) {
  MemoryBook memory;
  memory.fail_malloc(2);  // the first is the station's
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(log.lines().back(), in_start("{DM} Unable to allocate memory"));
  EXPECT_EQ(log.lines().size(), 3U);
  Station* station = context.stations;
  ASSERT_NE(station, nullptr);
  EXPECT_EQ(station->events, nullptr);
  context.stations = nullptr;  // the book frees it
}

TEST_F(Start, an_event_that_cannot_be_queued_is_freed_before_the_reply_which_is_false) {
  MemoryBook memory;
  lose_stations_before_the_event();
  std::vector<size_t> left_at_reply;
  on_reply([&] { left_at_reply = memory.sizes_left(); });
  EXPECT_EQ(start({":1", "xhotkey", "PCI"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(left_at_reply, (std::vector<size_t>{sizeof(Station)}));
  EXPECT_EQ(log.lines(),
            (Lines{in_start("dbus_dm_start(): display=:1, actor=xhotkey, stationtype=PCI"),
                   dm_line("dm_start_station_thread", "Start a new station thread for :1"),
                   in_start("Start requested actor code: 7 on display :1"),
                   dm_line("add_station_event", "{DM} Unable to find station entry for display 1"),
                   in_start("{DM} Unable to add event")}));
}

// ---- Stop ---------------------------------------------------------------------------------------------

TEST_F(Stop, a_valid_call_queues_an_event_and_then_gets_true) {
  start({":3", "press-fkey", "USB"});
  log.forget();
  sent.clear();
  size_t queued_at_reply = 0;
  on_reply([&] { queued_at_reply = events_queued(); });
  EXPECT_EQ(stop({":3.0", "click-mouse"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(queued_at_reply, 2U);
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

TEST_F(Stop, a_display_without_a_station_gets_none_and_the_event_is_freed_before_the_reply_which_is_false) {
  MemoryBook memory;
  size_t left_at_reply = 99;
  on_reply([&] { left_at_reply = memory.blocks_left(); });
  EXPECT_EQ(stop({":1", "xhotkey"}), DBUS_HANDLER_RESULT_HANDLED);
  EXPECT_EQ(sent, answered_false);
  EXPECT_EQ(left_at_reply, 0U);
  EXPECT_EQ(log.lines(),
            (Lines{in_stop("display_num=1, actor_code=7"),
                   dm_line("add_station_event", "{DM} Unable to find station entry for display 1"),
                   in_stop("{DM} Unable to add event")}));
  EXPECT_EQ(context.stations, nullptr);
}

TEST_F(Stop, too_few_arguments_are_logged_and_left_unhandled_without_a_reply) {
  int freed = 0;
  fakes.dbus_error_free = [&](DBusError* error) {
    freed += dbus_error_is_set(error) ? 1 : 0;
    __real_dbus_error_free(error);
  };
  EXPECT_EQ(stop({":1"}), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(sent, (Sent{}));
  EXPECT_EQ(log.lines(), (Lines{in_stop("{DM} Unable to get args from DBus message: "
                                        "Message has only 1 arguments, but more were expected")}));
}

TEST_F(Stop, arguments_of_other_types_are_left_unhandled_without_a_reply) {
  const MessageOwner call = method_call(path, interface, "Stop", {});
  const dbus_int32_t number = 7;
  const char* actor = "xhotkey";
  dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_STRING, &actor, DBUS_TYPE_INVALID);
  EXPECT_EQ(dbus_dm_stop(fake_connection, call.get(), &plugin), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
  EXPECT_EQ(sent, (Sent{}));
}

TEST_F(Stop, surplus_arguments_are_ignored) {
  start({":1", "xhotkey", "PCI"});
  sent.clear();
  stop({":1", "xhotkey", "PCI"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Stop, a_failed_check_is_logged_and_answered_with_false_the_display_first) {
  const struct {
    std::vector<const char*> arguments;  // display, actor
    const char* message;
  } cases[] = {{{"1", "bad"}, "{DM} Invalid DISPLAY value : 1"},
               {{":-1", "xhotkey"}, "{DM} Invalid DISPLAY value : :-1"},
               {{":-5", "xhotkey"}, "{DM} Invalid DISPLAY value : :-5"},
               {{":1", "xclock"}, "{DM} Invalid actor name: xclock"}};
  for (const auto& [arguments, message] : cases) {
    log.forget();
    sent.clear();
    EXPECT_EQ(stop(arguments), DBUS_HANDLER_RESULT_HANDLED);
    EXPECT_EQ(sent, answered_false);
    EXPECT_EQ(log.lines(), (Lines{in_stop(message)}));
  }
}

TEST_F(Stop, display_0_is_valid_for_a_start_and_a_stop) {
  start({":0", "xhotkey", "PCI"});
  EXPECT_EQ(sent, answered_true);
  sent.clear();
  stop({":0", "xhotkey"});
  EXPECT_EQ(sent, answered_true);
}

TEST_F(Stop, without_memory_for_the_event_the_reply_is_false) {
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
  EXPECT_EQ(lines_at_malloc, (Lines{in_stop("display_num=1, actor_code=7")})) << "logged before";
  const Station* station = context.stations;
  EXPECT_EQ(station->events->next, nullptr);
}
