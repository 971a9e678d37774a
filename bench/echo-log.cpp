// SPDX-License-Identifier: MIT
// echo-log.cpp: the floor for calls with a log: answers HelloWorld and writes the daemon's lines about it.
//
// The lines are those of the daemon for one call; only the time differs. bench.py compares their lengths
// before it measures. This program writes them as a plain program does: it reads and splits the time for each
// line, formats the text, and flushes the stream.
//
// usage: bench-echo-log NAME LOG
#include <fcntl.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "bench/service.h"

static FILE* log_file;

__attribute__((format(printf, 1, 2))) static void log_line(const char* format, ...) {
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  fprintf(log_file, "%04d-%02d-%02d %02d:%02d:%02d:", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
          local.tm_hour, local.tm_min, local.tm_sec);
  va_list arguments;
  va_start(arguments, format);
  vfprintf(log_file, format, arguments);
  va_end(arguments);
  fflush(log_file);
}

// The daemon's names, so that the lines have the same lengths.
static constexpr const char* daemon_path = "/com/corvane/ControlServer/Dummy";
static constexpr const char* daemon_interface = "com.corvane.ControlServer.Dummy";

static DBusHandlerResult handle(DBusConnection* connection, DBusMessage* message, void*) {
  log_line("%s:%i:%s: DEBUG: obj=%s, interface=%s, member=%s, type=%d\n", "cs/plugin-registry.cpp", 14,
           "ccs_dbus_message_handler", dbus_message_get_path(message), dbus_message_get_interface(message),
           dbus_message_get_member(message), dbus_message_get_type(message));
  if (!dbus_message_is_method_call(message, daemon_interface, "HelloWorld"))
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  log_line("%s:%i:%s: DEBUG: {DUMMY} dbus_dummy_hello_world: HelloWorld\n", "plugins/dummy/dummy.cpp", 11,
           "dbus_dummy_hello_world");
  bench_answer_hello(connection, message);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int, char** argv) {
  log_file = fopen(argv[2], "w");
  if (!log_file) {
    perror(argv[2]);
    return 1;
  }
  fcntl(fileno(log_file), F_SETFL, O_APPEND);
  return bench_serve(argv[1], daemon_path, handle);
}
