// SPDX-License-Identifier: MIT
// load-starts.cpp: times the start of an actor up to its first instruction.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>

#include "bench/load.h"

static constexpr const char* pipe_path = "/run/stage/bench-started";
static int started_pipe = -1;

void starts_open() {
  if (mkfifo(pipe_path, 0666) != 0 && errno != EEXIST) fail(std::string("no pipe ") + pipe_path);
  started_pipe = open(pipe_path, O_RDWR | O_CLOEXEC);
  if (started_pipe < 0) fail(std::string("no pipe ") + pipe_path);
}

static Started read_started() {
  Started started;
  if (read(started_pipe, &started, sizeof started) != sizeof started) fail("incomplete record of a start");
  return started;
}

static Started await_started() {
  pollfd ready = {.fd = started_pipe, .events = POLLIN, .revents = 0};
  if (poll(&ready, 1, most_seconds * 1000) != 1) fail("no actor started");
  return read_started();
}

// Waits for the reply and for the actor, in either order.
void load_start(const Words& words) {
  const std::string& display = words[4];
  int descriptor = -1;
  dbus_connection_get_unix_fd(bus, &descriptor);
  Started started = {};
  int64_t replied = 0;
  const int64_t begin = now();
  const dbus_uint32_t serial = send_call(target_of(words), Words(words.begin() + 4, words.end()));
  while (replied == 0 || started.pid == 0) {
    pollfd ready[2] = {{.fd = descriptor, .events = POLLIN, .revents = 0},
                       {.fd = started_pipe, .events = POLLIN, .revents = 0}};
    if (poll(ready, 2, most_seconds * 1000) < 1) fail("no start of " + display);
    if (ready[0].revents) {
      while (DBusMessage* message = next_message(false)) {
        if (is_reply(message, serial)) replied = now();
        dbus_message_unref(message);
      }
    }
    if (ready[1].revents) {
      const Started one = read_started();
      if (one.display == display) started = one;
    }
  }
  printf("%lld %lld %d", static_cast<long long>(replied - begin),
         static_cast<long long>(started.nanoseconds - begin), started.pid);
}

void load_run(const Words& words) {
  int64_t begin = 0;
  const pid_t child = spawn(words, &begin);
  const Started started = await_started();
  printf("%lld %d", static_cast<long long>(started.nanoseconds - begin), started.pid);
  if (started.pid == child) kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

void load_started(const Words&) {
  const Started started = await_started();
  printf("%lld %d", static_cast<long long>(started.nanoseconds), started.pid);
}

void load_restart(const Words& words) {
  std::map<std::string, int64_t> killed;
  for (size_t i = 0; i + 1 < words.size(); i += 2) {
    killed[words[i + 1]] = now();
    kill(std::stoi(words[i]), SIGKILL);
    usleep(20000);  // one after the other, so that the restarts do not delay each other
  }
  while (!killed.empty()) {
    const Started started = await_started();
    const auto before = killed.find(started.display);
    if (before == killed.end()) continue;
    printf("%lld ", static_cast<long long>(started.nanoseconds - before->second));
    killed.erase(before);
  }
}
