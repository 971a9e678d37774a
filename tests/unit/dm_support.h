// SPDX-License-Identifier: MIT
// dm_support: what the tests of stations and actors share.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "plugins/display-manager/display-manager.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using Calls = std::vector<std::string>;

/** The line that `function` of display-manager.cpp writes, or the lines, one for each message. */
std::string dm_line(const std::string& function, const std::string& message);
Lines dm_lines(const std::string& function, const std::vector<std::string>& messages);

bool is_held(pthread_mutex_t& mutex);
int value_of(sem_t& semaphore);

/** As long as this lives, the pool of stacks is empty and the system has no memory for more. */
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

/** A test with real workers. They never end, so their stations stay to the end of the process. */
class WorkersTest : public DisplayManagerTest {
 protected:
  void TearDown() override {
    let_workers_rest();
    FakedTest::TearDown();
  }

  /** Makes a start event of these values and queues it. */
  void queue(int display_num, int actor_code, void (*proc)(Station*, StationEvent*));
  /** Waits until every worker has run all its events and waits for the next. */
  void let_workers_rest();
};

/**
 * A test with one station, on display 3, that belongs to the test and has no worker. Everything that would
 * touch a process is faked and noted in `calls`; made-up children have the numbers 4711, 4712 and so on. That
 * the calls hold or do not hold the group's mutex, as they should, is checked everywhere.
 */
class OneStationTest : public DisplayManagerTest {
 protected:
  OneStationTest();
  ~OneStationTest() override;

  ActorGroup& entry() { return station.groups[group]; }
  pthread_mutex_t& child_mutex() { return entry().child_mutex; }

  /** What proc_method_start gives to thread `number` of the actor's group. */
  ThreadStart* new_start(int actor_code, unsigned number = 1, int display_num = 3);
  /** Runs the supervising thread's body on the test's own thread. */
  void supervise(int actor_code, unsigned number = 1, int display_num = 3);
  /** Leaves the entry as proc_method_start does before its thread runs. */
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
