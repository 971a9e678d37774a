// SPDX-License-Identifier: MIT
// dm_support.cpp: a station without threads, with fake children.
#include "tests/unit/dm_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "common/stack-pool.h"
#include "common/verbose.h"

std::string dm_line(const std::string& function, const std::string& message) {
  return "plugins/display-manager/display-manager.cpp:#:" + function + ": DEBUG: " + message;
}

Lines dm_lines(const std::string& function, const std::vector<std::string>& messages) {
  Lines lines;
  for (const std::string& message : messages) lines.push_back(dm_line(function, message));
  return lines;
}

bool is_held(pthread_mutex_t& mutex) {
  if (pthread_mutex_trylock(&mutex) != 0) return true;
  pthread_mutex_unlock(&mutex);
  return false;
}

int value_of(sem_t& semaphore) {
  int value = -1;
  sem_getvalue(&semaphore, &value);
  return value;
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

StackPoolRunDry::StackPoolRunDry() {
  fakes.mmap = [](size_t, int, int) { return MAP_FAILED; };
  while (void* stack = stack_take()) taken_.push_back(stack);
}

StackPoolRunDry::~StackPoolRunDry() {
  fakes.mmap = nullptr;
  for (void* stack : taken_) stack_return(stack);
}

DisplayManagerTest::DisplayManagerTest() {
  verbose = 0;
}
DisplayManagerTest::~DisplayManagerTest() {
  verbose = 0;
}

void WorkersTest::queue(int display_num, int actor_code, void (*proc)(Station*, StationEvent*)) {
  EventOwner event = dm_new_event(&context, event_kind_start);
  event->display_num = display_num;
  event->actor_code = actor_code;
  event->station_type = 1;
  event->proc = proc;
  ASSERT_EQ(add_station_event(event, display_num), 0);
}

void WorkersTest::let_workers_rest() {
  for (Station* station = context.stations; station; station = station->next) {
    while (station->ready == 0) usleep(500);
    for (bool resting = false; !resting;) {
      pthread_mutex_lock(&station->mutex);  // the worker releases it only to wait
      resting = station->events == nullptr;
      pthread_mutex_unlock(&station->mutex);
    }
  }
}

OneStationTest::OneStationTest() : stack(stack_take()) {
  sem_init(&station.waiting, 0, 1);
  sem_init(&station.launched, 0, 0);
  station.display_num = 3;
  context.stations = &station;
  fakes.fork = [this] {
    EXPECT_TRUE(is_held(child_mutex())) << "while a child is forked and recorded";
    calls.push_back("fork");
    if (on_fork) on_fork();
    return fork_fails ? -1 : next_child++;
  };
  fakes.waitid = [this](idtype_t type, id_t id, siginfo_t*, int options) {
    EXPECT_EQ(type, P_PID);
    EXPECT_EQ(options, WEXITED | WNOWAIT);
    EXPECT_FALSE(is_held(child_mutex())) << "a stop must be able to signal during the wait";
    calls.push_back("wait " + std::to_string(id));
    if (on_wait) on_wait();
    return 0;
  };
  fakes.waitpid = [this](pid_t pid, int* status, int options) {
    EXPECT_EQ(status, nullptr);
    EXPECT_EQ(options, 0);
    EXPECT_TRUE(is_held(child_mutex())) << "while a child is reaped";
    calls.push_back("reap " + std::to_string(pid));
    return pid;
  };
  fakes.kill = [this](pid_t pid, int sig) {
    EXPECT_TRUE(is_held(child_mutex())) << "while a child is signalled";
    calls.push_back("kill " + std::to_string(pid) + " " + std::to_string(sig));
    return 0;
  };
  fakes.sleep = [this](unsigned seconds) {
    EXPECT_FALSE(is_held(child_mutex()));
    calls.push_back("sleep " + std::to_string(seconds));
    if (on_sleep) on_sleep();
    return 0U;
  };
}

OneStationTest::~OneStationTest() {
  stack_return(stack);
}

ThreadStart* OneStationTest::new_start(int actor_code, unsigned number, int display_num) {
  auto* start = static_cast<ThreadStart*>(malloc(sizeof(ThreadStart)));
  *start = {.event = event_for(actor_code), .number = number, .launched = &station.launched, .stack = stack};
  start->event.display_num = display_num;
  return start;
}

void OneStationTest::supervise(int actor_code, unsigned number, int display_num) {
  EXPECT_EQ(method_start_thread(new_start(actor_code, number, display_num)), nullptr);
}

void OneStationTest::claim(unsigned number) {
  entry().keep_alive = 1;
  entry().newest = number;
}

StationEvent OneStationTest::event_for(int actor_code) {
  return {.kind = event_kind_start,
          .display_num = 3,
          .actor_code = actor_code,
          .station_type = 1,
          .context = &context,
          .proc = proc_method_start,
          .next = nullptr};
}

void OneStationTest::stop(int actor_code) {
  StationEvent event = event_for(actor_code);
  proc_method_stop(&station, &event);
}
