// SPDX-License-Identifier: MIT
// messages.cpp: the message handlers, entered through the core's. An input is one or more messages in the
// D-Bus wire format ("Message Protocol").
//
// Every plugin gets each message, whatever its path: the handlers ignore the path. The target intercepts each
// reply when it is sent. Stations have no workers, so queued events can be compared after the last message.
// Thread creation fails for display 13.
#include "tests/fuzz/messages.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "common/logger.h"
#include "common/verbose.h"
#include "cs/plugin-registry.h"
#include "plugins/display-manager/display-manager.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/texts.h"

namespace {

struct ExpectedEvent {
  int kind, actor_code;
};

struct ExpectedStation {
  std::string display;
  int display_num, station_type;
  std::vector<ExpectedEvent> events;
};

using Model = std::vector<ExpectedStation>;

constexpr int threadless_display = 13;

char connection_memory;
DBusConnection* const connection = reinterpret_cast<DBusConnection*>(&connection_memory);
std::vector<std::string> sent;

int code_of(const std::vector<const char*>& names, const char* name) {
  for (size_t i = 0; i < names.size(); ++i) {
    if (strcmp(names[i], name) == 0) return static_cast<int>(i) + 1;
  }
  return 0;
}

int actor_code_of(const char* name) {
  return code_of({"init-station", "local-login", "remote-login", "press-fkey", "click-mouse",
                  "disable-station", "xhotkey"},
                 name);
}

int station_type_of(const char* name) {
  return code_of({"COMMON", "PCI", "USB"}, name);
}

bool is_call(DBusMessage* message, const char* interface, const char* member) {
  const char* called_interface = dbus_message_get_interface(message);
  return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
         strcmp(dbus_message_get_member(message), member) == 0 &&
         (!called_interface || strcmp(called_interface, interface) == 0);
}

// The leading arguments that are strings.
std::vector<const char*> texts_of(DBusMessage* message) {
  std::vector<const char*> texts;
  DBusMessageIter argument;
  dbus_message_iter_init(message, &argument);
  while (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_STRING) {
    dbus_message_iter_get_basic(&argument, &texts.emplace_back());
    dbus_message_iter_next(&argument);
  }
  return texts;
}

ExpectedStation* station_of(Model& model, int display_num) {
  for (ExpectedStation& station : model) {
    if (station.display_num == display_num) return &station;
  }
  return nullptr;
}

bool expect_start(Model& model, const char* display, const char* actor, const char* type) {
  const int display_num = display_named_by(display);
  const int actor_code = actor_code_of(actor);
  const int station_type = station_type_of(type);
  if (display_num < 0 || station_type == 0 || actor_code == 0) return false;
  if (display_num == threadless_display) return false;
  if (!station_of(model, display_num)) model.push_back({display, display_num, station_type, {}});
  station_of(model, display_num)->events.push_back({event_kind_start, actor_code});
  return true;
}

bool expect_stop(Model& model, const char* display, const char* actor) {
  const int actor_code = actor_code_of(actor);
  ExpectedStation* station = station_of(model, display_named_by(display));
  if (actor_code == 0 || !station) return false;
  station->events.push_back({event_kind_stop, actor_code});
  return true;
}

// The one reply of `plugin` to `message`; empty if libdbus must reply.
std::string expected_answer(Model& model, DBusMessage* message, const std::string& plugin) {
  const std::vector<const char*> texts = texts_of(message);
  const char* display_manager = "com.corvane.ControlServer.DisplayManager";
  if (plugin == "Dummy") {
    const bool hello = is_call(message, "com.corvane.ControlServer.Dummy", "HelloWorld");
    return hello ? "s How are you?" : "";
  }
  if (is_call(message, display_manager, "Start") && texts.size() >= 3) {
    return expect_start(model, texts[0], texts[1], texts[2]) ? "b true" : "b false";
  }
  if (is_call(message, display_manager, "Stop") && texts.size() >= 2) {
    return expect_stop(model, texts[0], texts[1]) ? "b true" : "b false";
  }
  return "";
}

std::string answer_in(DBusMessage* reply) {
  const std::string signature = dbus_message_get_signature(reply);
  dbus_bool_t truth = FALSE;
  const char* text = "";
  if (signature == "b") dbus_message_get_args(reply, nullptr, DBUS_TYPE_BOOLEAN, &truth, DBUS_TYPE_INVALID);
  if (signature == "b") return truth ? "b true" : "b false";
  if (signature == "s") dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  return signature + " " + text;
}

std::string address(const std::string& answer, dbus_uint32_t serial, const char* caller) {
  return answer + " to " + std::to_string(serial) + " of " + (caller ? caller : "(no sender)");
}

void deliver(Model& model, DBusMessage* message, Plugin* plugin) {
  sent.clear();
  const DBusHandlerResult result = ccs_dbus_message_handler(connection, message, plugin);

  const std::string answer = expected_answer(model, message, plugin->name);
  if (answer.empty()) {
    expect(result == DBUS_HANDLER_RESULT_NOT_YET_HANDLED, "not handled, not %d", result);
    expect(sent.empty(), "nothing sent, not %s", sent.empty() ? "" : sent[0].c_str());
    return;
  }
  const std::string addressed =
      address(answer, dbus_message_get_serial(message), dbus_message_get_sender(message));
  expect(result == DBUS_HANDLER_RESULT_HANDLED, "handled, not %d", result);
  expect(sent.size() == 2, "a reply and a flush, not %zu steps", sent.size());
  expect(sent[0] == addressed, "%s, not %s", addressed.c_str(), sent[0].c_str());
  expect(sent[1] == "flush", "a flush, not %s", sent[1].c_str());
}

void compare_events(const ExpectedStation& expected, const Station* station, const PluginContext* context) {
  const StationEvent* event = station->events;
  for (const ExpectedEvent& queued : expected.events) {
    const bool start = queued.kind == event_kind_start;
    expect(event, "one more event on display %d", expected.display_num);
    expect(event->kind == queued.kind && event->actor_code == queued.actor_code,
           "kind %d of actor %d, not %d of %d", queued.kind, queued.actor_code, event->kind,
           event->actor_code);
    expect(event->proc == (start ? proc_method_start : proc_method_stop), "the procedure of kind %d",
           queued.kind);
    expect(event->display_num == expected.display_num, "display %d, not %d", expected.display_num,
           event->display_num);
    expect(event->context == context, "the plugins' context");
    event = event->next;
  }
  expect(!event, "no more events on display %d", expected.display_num);
}

void compare_stations(const Model& model, const PluginContext& context) {
  const Station* station = context.stations;
  const Station* previous = nullptr;
  for (const ExpectedStation& expected : model) {
    expect(station, "a station for display %d", expected.display_num);
    expect(station->display_num == expected.display_num, "display %d, not %d", expected.display_num,
           station->display_num);
    expect(station->display == expected.display, "\"%s\", not \"%s\"", expected.display.c_str(),
           station->display);
    expect(station->station_type == expected.station_type, "type %d, not %d", expected.station_type,
           station->station_type);
    expect(station->prev == previous, "a list linked in both directions");
    compare_events(expected, station, &context);
    previous = station;
    station = station->next;
  }
  expect(!station, "%zu stations, not more", model.size());
}

void free_stations(PluginContext& context) {
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

}  // namespace

extern "C" {
dbus_bool_t __wrap_dbus_connection_send(DBusConnection* on, DBusMessage* reply, dbus_uint32_t* serial);
dbus_bool_t __wrap_dbus_connection_send(DBusConnection* on, DBusMessage* reply, dbus_uint32_t*) {
  expect(on == connection, "a reply on the caller's connection");
  expect(dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN, "a method return");
  sent.push_back(
      address(answer_in(reply), dbus_message_get_reply_serial(reply), dbus_message_get_destination(reply)));
  return TRUE;
}

void __wrap_dbus_connection_flush(DBusConnection* on);
void __wrap_dbus_connection_flush(DBusConnection* on) {
  expect(on == connection, "a flush of the caller's connection");
  sent.push_back("flush");
}

// The fuzzer and the sanitizers create threads too.
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* data);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* data);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* data) {
  if (body != process_station_events) return __real_pthread_create(thread, attributes, body, data);
  auto* station = static_cast<Station*>(data);
  if (station->display_num == threadless_display) return EAGAIN;
  station->ready = 1;
  sem_post(&station->waiting);
  return 0;
}
}

std::vector<MessageOwner> messages_of(std::string_view input) {
  std::vector<MessageOwner> messages;
  for (;;) {
    const int size = dbus_message_demarshal_bytes_needed(input.data(), static_cast<int>(input.size()));
    if (size <= 0 || static_cast<size_t>(size) > input.size()) return messages;
    MessageOwner message(dbus_message_demarshal(input.data(), size, nullptr));
    if (!message) return messages;
    messages.push_back(std::move(message));
    input.remove_prefix(static_cast<size_t>(size));
  }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!plogger) {
    plogger = log_open("null");
    verbose = 1;
    pthread_mutex_init(&station_table_mutex, nullptr);
  }
  const std::vector<MessageOwner> messages = messages_of({reinterpret_cast<const char*>(data), size});
  if (messages.empty()) return -1;

  PluginContext context = {};
  Model model;
  for (Plugin* const* plugin = plugin_table; *plugin; ++plugin) (*plugin)->init(*plugin, &context);
  for (const MessageOwner& message : messages) {
    for (Plugin* const* plugin = plugin_table; *plugin; ++plugin) deliver(model, message.get(), *plugin);
  }
  compare_stations(model, context);
  free_stations(context);
  return 0;
}
