// SPDX-License-Identifier: MIT
// stories: requests to stations, and the conditions under which they run.
#pragma once

#include <string>
#include <vector>

#include "plugins/display-manager/display-manager.h"

enum class Action { start, stop, wait_for_pause };  // the last: until a dead child's thread sleeps

struct Request {
  Action action;
  const ActorDefinition* actor = nullptr;
  int display = 1;
};

/** What fails, or differs from an ordinary machine. A number n means the n-th call of the story; 0: none. */
struct Conditions {
  int failing_fork = 0;
  int failing_thread = 0;
  int failing_argument = 0;     // memory for a word of an actor
  int deaths = 0;               // of children that were not stopped
  bool ignore_sigterm = false;  // so do the children
  bool reuse_pids = false;      // as soon as a child is reaped
  bool is_worker_late = false;  // it gets no processor until the next request is queued
};

struct Story {
  std::string name;
  std::vector<Request> requests;
  Conditions conditions;
  int fewer_preemptions = 0;  // than other stories, because this one is longer
};

/** The stories of every run. */
std::vector<Story> short_stories();

/** More stories, for the long form. */
std::vector<Story> long_stories();
