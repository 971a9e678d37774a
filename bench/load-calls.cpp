// SPDX-License-Identifier: MIT
// load-calls.cpp: times calls on the bus, and the start of a service up to its first answer.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>

#include "bench/load.h"

void load_await(const Words& words) {
  const int64_t begin = now();
  while (!dbus_bus_name_has_owner(bus, words[0].c_str(), nullptr)) {
    if (now() - begin > int64_t{most_seconds} * 1000000000) fail("no process owns the name " + words[0]);
    usleep(1000);
  }
}

void load_calls(const Words& words) {
  const Target target = target_of(words);
  const size_t outstanding = std::stoul(words[4]);
  const size_t count = std::stoul(words[5]);
  std::vector<int64_t> times;
  times.reserve(count);
  std::unordered_map<dbus_uint32_t, int64_t> sent;
  size_t left = count;
  const int64_t begin = now();
  while (times.size() < count) {
    for (; left > 0 && sent.size() < outstanding; --left) {
      const int64_t sending = now();
      sent[send_call(target, {})] = sending;
    }
    DBusMessage* message = next_message(true);
    const auto call = sent.find(dbus_message_get_reply_serial(message));
    if (call != sent.end() && is_reply(message, call->first)) {
      times.push_back(now() - call->second);
      sent.erase(call);
    }
    dbus_message_unref(message);
  }
  const int64_t all = now() - begin;
  std::nth_element(times.begin(), times.begin() + static_cast<long>(count / 2), times.end());
  printf("%lld %lld", static_cast<long long>(times[count / 2]), static_cast<long long>(all));
}

void load_call(const Words& words) {
  const int64_t begin = now();
  await_reply(send_call(target_of(words), Words(words.begin() + 4, words.end())));
  printf("%lld", static_cast<long long>(now() - begin));
}

static bool is_owner_change(DBusMessage* message, const std::string& name, bool taken) {
  if (!dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged")) return false;
  const char* changed = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &changed, DBUS_TYPE_STRING, &before,
                        DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID);
  return changed == name && (*after != '\0') == taken;
}

static void await_owner_change(const std::string& name, bool taken) {
  for (bool found = false; !found;) {
    DBusMessage* message = next_message(true);
    found = is_owner_change(message, name, taken);
    dbus_message_unref(message);
  }
}

// Waits for the reply; false while the object does not exist, because a service may take its name first.
static bool is_answered(dbus_uint32_t serial) {
  for (;;) {
    DBusMessage* message = next_message(true);
    const bool found = dbus_message_get_reply_serial(message) == serial;
    const bool too_early = found && dbus_message_is_error(message, DBUS_ERROR_UNKNOWN_METHOD);
    const bool answered = found && !too_early && is_reply(message, serial);
    dbus_message_unref(message);
    if (found) return answered;
  }
}

void load_ready(const Words& words) {
  const Target target = target_of(words);
  const std::string rule = "type='signal',member='NameOwnerChanged',arg0='" + target.name + "'";
  dbus_bus_add_match(bus, rule.c_str(), nullptr);
  dbus_connection_flush(bus);
  int64_t begin = 0;
  const pid_t child = spawn(Words(words.begin() + 4, words.end()), &begin);
  await_owner_change(target.name, true);
  while (!is_answered(send_call(target, {}))) {
  }
  printf("%lld", static_cast<long long>(now() - begin));

  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  await_owner_change(target.name, false);
  dbus_bus_remove_match(bus, rule.c_str(), nullptr);
}
