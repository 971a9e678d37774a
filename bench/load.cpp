// SPDX-License-Identifier: MIT
// load.cpp: reads one command from each line, executes it and prints its figures; see load.h.
//
// It runs until the end of the bench. bench.py decides what comes next, and none of its work falls into a
// measured time.
#include "bench/load.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <sstream>

DBusConnection* bus;

struct Command {
  const char* name;
  size_t least_words;
  void (*carry_out)(const Words& words);
};

static constexpr Command commands[] = {
    {"await", 1, load_await},     {"calls", 6, load_calls},     {"call", 4, load_call},
    {"ready", 5, load_ready},     {"start", 5, load_start},     {"run", 1, load_run},
    {"restart", 2, load_restart}, {"started", 0, load_started},
};

void fail(const std::string& what) {
  fprintf(stderr, "bench-load: %s\n", what.c_str());
  exit(1);
}

int64_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

pid_t spawn(const Words& command, int64_t* begin) {
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  *begin = now();
  const pid_t child = fork();
  if (child == 0) {
    dup2(nowhere, STDOUT_FILENO);  // standard output is for the figures
    execvp(argv[0], argv.data());
    _exit(127);
  }
  return child;
}

Target target_of(const Words& words) {
  return {words[0], words[1], words[2], words[3]};
}

dbus_uint32_t send_call(const Target& target, const Words& strings) {
  DBusMessage* message = dbus_message_new_method_call(target.name.c_str(), target.path.c_str(),
                                                      target.interface.c_str(), target.member.c_str());
  for (const std::string& string : strings) {
    const char* text = string.c_str();
    dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  }
  dbus_uint32_t serial = 0;
  dbus_connection_send(bus, message, &serial);
  dbus_connection_flush(bus);
  dbus_message_unref(message);
  return serial;
}

DBusMessage* next_message(bool wait) {
  DBusMessage* message = dbus_connection_pop_message(bus);
  if (message) return message;
  if (!dbus_connection_read_write(bus, wait ? most_seconds * 1000 : 0)) fail("the bus is gone");
  message = dbus_connection_pop_message(bus);
  if (!message && wait) fail("no message came");
  return message;
}

bool is_reply(DBusMessage* message, dbus_uint32_t serial) {
  if (dbus_message_get_reply_serial(message) != serial) return false;
  if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR) fail(dbus_message_get_error_name(message));
  return true;
}

void await_reply(dbus_uint32_t serial) {
  for (bool found = false; !found;) {
    DBusMessage* message = next_message(true);
    found = is_reply(message, serial);
    dbus_message_unref(message);
  }
}

static void carry_out(const std::string& line) {
  std::istringstream text(line);
  std::string name;
  text >> name;
  Words words;
  for (std::string word; text >> word;) words.push_back(word);
  for (const Command& command : commands) {
    if (name != command.name) continue;
    if (words.size() < command.least_words) fail("too few words: " + line);
    command.carry_out(words);
    putchar('\n');
    fflush(stdout);
    return;
  }
  fail("no such command: " + line);
}

int main() {
  starts_open();
  bus = dbus_bus_get(DBUS_BUS_SESSION, nullptr);
  if (!bus) fail("no bus");
  for (std::string line; std::getline(std::cin, line);) carry_out(line);
}
