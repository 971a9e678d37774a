// SPDX-License-Identifier: MIT
// world: all that display-manager.cpp calls, for one story at a time.
//
// Mutexes, semaphores, time, memory, threads and children are made up, and each call of them is a schedule
// point. The world knows what each request must lead to, and fails an order that leads elsewhere.
#pragma once

#include <string>
#include <vector>

#include "tests/interleavings/explorer.h"

enum class Ask { start, stop, wait_for_pause };  // the last one: of a dead child

struct Request {
  Ask ask;
  int display = 1;
  const char* actor = "";
};

/** What goes wrong, or differs from the plainest machine. 0: nothing; n: the n-th of the story. */
struct Conditions {
  int failing_fork = 0;
  int failing_thread = 0;
  int failing_argument = 0;     // a word of an actor that finds no memory
  int deaths = 0;               // of children that nobody stopped
  bool are_deaf = false;        // children outlive their SIGTERM
  bool reuses_pids = false;     // as soon as a child is reaped
  bool is_worker_late = false;  // it finds a request only when the next one is queued
};

struct Story {
  std::string name;
  std::vector<Request> requests;
  Conditions conditions;
  int fewer_preemptions = 0;  // than the others, because it is longer
};

/** The world of a story, which must outlive it. One at a time. */
World world_of(const Story& story);
