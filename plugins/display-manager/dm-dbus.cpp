// SPDX-License-Identifier: MIT
// dm-dbus.cpp: from a method call to one event in a station's queue.
//
// A handler checks the call against the tables, queues an event and replies without waiting for its result,
// which only the log shows. True means queued. Everything here runs on the main thread. The handler owns the
// event until add_station_event takes it.
#include "plugins/display-manager/dm-dbus.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/dbus-owners.h"
#include "common/logger.h"
#include "common/reply.h"
#include "plugins/display-manager/display-manager.h"

// Reads a number that fits an int, and sets *end to the character after it. Returns false without one.
static bool parse_int(const char* text, int* number, const char** end) {
  char* stop = nullptr;
  errno = 0;
  const long value = strtol(text, &stop, 10);
  if (errno != 0 || stop == text || value < INT_MIN || value > INT_MAX) return false;
  *number = static_cast<int>(value);
  *end = stop;
  return true;
}

int dm_parse_display(const char* text) {
  const char* colon = strchr(text, ':');
  if (!colon) return -1;
  int display_num = 0;
  const char* end = nullptr;
  if (!parse_int(colon + 1, &display_num, &end)) return -1;
  if (*end == '.') {
    int screen_num = 0;  // checked, but not used
    if (!parse_int(end + 1, &screen_num, &end)) return -1;
  }
  return *end == '\0' ? display_num : -1;
}

void dbus_reply_boolean(DBusConnection* connection, DBusMessage* message, dbus_bool_t value) {
  bus_reply(connection, message, DBUS_TYPE_BOOLEAN, &value);
}

static DBusHandlerResult answer(DBusConnection* connection, DBusMessage* message, dbus_bool_t value) {
  dbus_reply_boolean(connection, message, value);
  return DBUS_HANDLER_RESULT_HANDLED;
}

// The checks deliberately do not follow the order of the arguments. The log names only the first that fails.
// A new station stays, even if its event cannot be made or queued.
DBusHandlerResult dbus_dm_start(DBusConnection* connection, DBusMessage* message, Plugin* plugin) {
  BusError error;
  const char* display = nullptr;
  const char* actor = nullptr;
  const char* station_type = nullptr;
  if (!dbus_message_get_args(message, error.get(), DBUS_TYPE_STRING, &display, DBUS_TYPE_STRING, &actor,
                             DBUS_TYPE_STRING, &station_type, DBUS_TYPE_INVALID)) {
    log_debug("{DM} Unable to get args from DBus message: %s\n", error.message());
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  log_debug("dbus_dm_start(): display=%s, actor=%s, stationtype=%s\n", display, actor, station_type);
  const int display_num = dm_parse_display(display);
  if (display_num < 0) {
    log_debug("{DM} Invalid DISPLAY value : %s\n", display);
    return answer(connection, message, FALSE);
  }
  const int station_type_code = dm_lookup_station_type(station_type);
  if (station_type_code == 0) {
    log_debug("{DM} Invalid station type: %s\n", station_type);
    return answer(connection, message, FALSE);
  }
  const int actor_code = dm_lookup_actor_code(actor);
  if (actor_code == 0) {
    log_debug("{DM} Invalid actor name: %s\n", actor);
    return answer(connection, message, FALSE);
  }
  if (dm_start_station_thread(plugin->context, display, display_num, station_type_code) != 0) {
    return answer(connection, message, FALSE);
  }
  EventOwner event = dm_new_event(plugin->context, event_kind_start);
  if (!event) {
    log_debug("{DM} Unable to allocate memory\n");
    return answer(connection, message, FALSE);
  }
  log_debug("Start requested actor code: %d on display :%d\n", actor_code, display_num);
  event->display_num = display_num;
  event->actor_code = actor_code;
  event->station_type = station_type_code;
  event->proc = proc_method_start;
  if (add_station_event(event, display_num) != 0) {
    log_debug("{DM} Unable to add event\n");
    event.reset();
    return answer(connection, message, FALSE);
  }
  return answer(connection, message, TRUE);
}

DBusHandlerResult dbus_dm_stop(DBusConnection* connection, DBusMessage* message, Plugin* plugin) {
  BusError error;
  const char* display = nullptr;
  const char* actor = nullptr;
  if (!dbus_message_get_args(message, error.get(), DBUS_TYPE_STRING, &display, DBUS_TYPE_STRING, &actor,
                             DBUS_TYPE_INVALID)) {
    log_debug("{DM} Unable to get args from DBus message: %s\n", error.message());
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const int display_num = dm_parse_display(display);
  if (display_num < 0) {
    log_debug("{DM} Invalid DISPLAY value : %s\n", display);
    return answer(connection, message, FALSE);
  }
  const int actor_code = dm_lookup_actor_code(actor);
  if (actor_code == 0) {
    log_debug("{DM} Invalid actor name: %s\n", actor);
    return answer(connection, message, FALSE);
  }
  log_debug("display_num=%d, actor_code=%d\n", display_num, actor_code);
  EventOwner event = dm_new_event(plugin->context, event_kind_stop);
  if (!event) {
    log_debug("{DM} Unable to allocate memory\n");
    return answer(connection, message, FALSE);
  }
  event->display_num = display_num;
  event->actor_code = actor_code;
  event->proc = proc_method_stop;
  if (add_station_event(event, display_num) != 0) {
    log_debug("{DM} Unable to add event\n");
    event.reset();
    return answer(connection, message, FALSE);
  }
  return answer(connection, message, TRUE);
}
