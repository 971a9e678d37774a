// SPDX-License-Identifier: MIT
// launch-stress.cpp: launches actors with the daemon's code, but without a bus, while eight threads log.
//
// usage: launch-stress LAUNCHES
//
// It launches actors on sixteen stations, 48 at a time, and waits until each has written a byte. Then it
// stops them and launches the next 48. An actor that hangs between fork and exec writes nothing. The actors
// are this program under other names on PATH. An actor writes 'y', or 'n' if a signal is blocked or ignored.
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/logger.h"
#include "common/signals.h"
#include "plugins/display-manager/display-manager.h"

namespace {

constexpr int station_count = 16;
constexpr int actor_codes[] = {2, 4, 7};  // one of each group that runs a program
constexpr int launches_at_a_time = station_count * 3;
constexpr int logging_threads = 8;
constexpr int most_milliseconds_of_a_launch = 20000;
constexpr int pipe_end_of_actors = 100;  // file descriptor

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "launch-stress: %s\n", what);
  _exit(2);
}

[[noreturn]] void be_an_actor() {
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  char answer = 'y';
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) != 0) continue;
    if (action.sa_handler != SIG_DFL || sigismember(&blocked, number)) answer = 'n';
  }
  if (write(pipe_end_of_actors, &answer, 1) != 1) _exit(3);
  for (;;) pause();
}

void start_from_a_clean_shell() {
  for (int number = 1; number < NSIG; ++number) signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void* log_without_pause(void* number) {
  for (int line = 0;; ++line) log_debug("line %d of thread %d\n", line, *static_cast<int*>(number));
}

void request(PluginContext* context, int kind, int display, int actor_code) {
  EventOwner event = dm_new_event(context, kind);
  if (!event) fail("no memory for an event");
  event->display_num = display;
  event->actor_code = actor_code;
  event->station_type = 1;
  event->proc = kind == event_kind_start ? proc_method_start : proc_method_stop;
  if (add_station_event(event, display) != 0) fail("an event was not queued");
}

void request_all(PluginContext* context, int kind) {
  for (int display = 0; display < station_count; ++display) {
    for (const int actor_code : actor_codes) request(context, kind, display, actor_code);
  }
}

// Waits for launches_at_a_time answers or the deadline; returns how many of them were `wanted`.
int count_answers(int pipe_end, char wanted, int* came) {
  int matching = 0;
  *came = 0;
  while (*came < launches_at_a_time) {
    pollfd ready = {.fd = pipe_end, .events = POLLIN, .revents = 0};
    if (poll(&ready, 1, most_milliseconds_of_a_launch) != 1) break;
    char answer = '\0';
    if (read(pipe_end, &answer, 1) != 1) fail("the pipe broke");
    ++*came;
    if (answer == wanted) ++matching;
  }
  return matching;
}

}  // namespace

int main(int argc, char** argv) {
  if (!strstr(argv[0], "launch-stress")) be_an_actor();
  const int wanted = argc == 2 ? atoi(argv[1]) : 0;
  if (wanted <= 0) fail("usage: launch-stress LAUNCHES");

  start_from_a_clean_shell();
  signals_take_over();
  signal(SIGPIPE, SIG_IGN);  // as libdbus does
  int ends[2];
  if (pipe(ends) != 0 || dup2(ends[1], pipe_end_of_actors) < 0) fail("no pipe");
  pthread_mutex_init(&station_table_mutex, nullptr);
  plogger = log_open("null");
  PluginContext context = {};
  for (int display = 0; display < station_count; ++display) {
    if (dm_start_station_thread(&context, ":0", display, 1) != 0) fail("no station");
  }
  static int numbers[logging_threads];
  for (int& number : numbers) {
    number = static_cast<int>(&number - numbers);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, log_without_pause, &number) != 0) fail("no thread");
  }

  int launched = 0;
  int clean = 0;
  int stuck = 0;
  while (launched < wanted && stuck == 0) {
    request_all(&context, event_kind_start);
    int came = 0;
    clean += count_answers(ends[0], 'y', &came);
    launched += launches_at_a_time;
    stuck = launches_at_a_time - came;
    request_all(&context, event_kind_stop);
  }
  printf("launched %d stuck %d clean %d\n", launched, stuck, clean);
  fflush(stdout);
  _exit(stuck == 0 && clean == launched ? 0 : 1);
}
