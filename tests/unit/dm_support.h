// SPDX-License-Identifier: MIT
// dm_support: shared by the tests of stations and actors.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "plugins/display-manager/display-manager.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using Calls = std::vector<std::string>;

/** The log line of `function` in display-manager.cpp for a message, or one line for each message. */
std::string dm_line(const std::string& function, const std::string& message);
Lines dm_lines(const std::string& function, const std::vector<std::string>& messages);

bool is_held(pthread_mutex_t& mutex);
int value_of(sem_t& semaphore);

/** Frees the stations of `context` with their events. They must have no workers. */
void free_stations(PluginContext& context);

/** While this lives, the stack pool is empty and cannot grow. */
class StackPoolRunDry {
 public:
  StackPoolRunDry();
  ~StackPoolRunDry();
  StackPoolRunDry(const StackPoolRunDry&) = delete;
  StackPoolRunDry& operator=(const StackPoolRunDry&) = delete;

 private:
  std::vector<void*> taken_;
};

class DisplayManagerTest : public FakedTest {
 protected:
  DisplayManagerTest();
  ~DisplayManagerTest() override;

  PluginContext context = {};
  CapturedLog log;
};

/** A test with real workers. Workers never end, so their stations stay until the process ends. */
class WorkersTest : public DisplayManagerTest {
 protected:
  void TearDown() override {
    let_workers_rest();
    FakedTest::TearDown();
  }

  /** Queues a start event with these values. */
  void queue(int display_num, int actor_code, void (*proc)(Station*, StationEvent*));
  /** Waits until every worker has run all its events and waits again. */
  void let_workers_rest();
};

/**
 * A test with one station, on display 3, that the test owns and that has no worker. Calls that would affect a
 * process are faked and recorded in `calls`; fake children have the pids 4711, 4712 and so on. Each fake
 * checks whether its caller holds the group's mutex.
 */
class OneStationTest : public DisplayManagerTest {
 protected:
  OneStationTest();
  ~OneStationTest() override;

  ActorGroup& entry() { return station.groups[group]; }
  pthread_mutex_t& child_mutex() { return entry().child_mutex; }

  /** The argument that proc_method_start passes to thread `number` of the actor's group. */
  ThreadStart* new_start(int actor_code, unsigned number = 1, int display_num = 3);
  /** Runs the supervising thread's body on the test's thread. */
  void supervise(int actor_code, unsigned number = 1, int display_num = 3);
  /** Sets the entry as proc_method_start does before its thread runs. */
  void claim(unsigned number = 1);

  StationEvent event_for(int actor_code);
  void stop(int actor_code);

  static Lines thread_lines(const std::vector<std::string>& messages) {
    return dm_lines("method_start_thread", messages);
  }

  Station station = {};
  int group = 1;  // the one under test
  void* stack;    // the supervising thread's
  pid_t next_child = 4711;
  bool fork_fails = false;
  Calls calls;
  std::function<void()> on_fork;
  std::function<void()> on_wait;
  std::function<void()> on_sleep;
};
