// SPDX-License-Identifier: MIT
// world: the simulated machine on which a story runs, and what each request must lead to.
//
// Memory, threads, locks, time and processes are simulated. What display-manager.cpp calls is a schedule
// point. A rule that a schedule breaks ends it as a failure.
#pragma once

#include <array>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tests/interleavings/explorer.h"
#include "tests/interleavings/stories.h"

inline constexpr pid_t first_pid = 100;
inline constexpr size_t most_children = 32;

struct Supervisor;

/** The expected state of a station's group. */
struct ExpectedGroup {
  int keep_alive = 0;
  pid_t child_pid = 0;
  Supervisor* newest = nullptr;
};

struct ExpectedStation {
  std::vector<Request> accepted;
  size_t begun = 0;  // how many of them
  std::array<ExpectedGroup, actor_group_count> groups;

  const Request& running() const { return accepted.at(begun - 1); }
  ExpectedGroup& running_group() { return groups[static_cast<size_t>(running().actor->group)]; }
};

struct Child {
  const Thread* parent = nullptr;
  const ExpectedGroup* group = nullptr;
  enum { none, runs, dead } state = none;
  bool has_sigterm = false;
};

/** A thread that runs method_start_thread, and what happened to it. */
struct Supervisor {
  ExpectedGroup* group;
  const Thread* thread = nullptr;
  pid_t child = 0;           // the last one
  bool met_fault = false;    // the story made one of its calls fail
  bool has_failed = false;   // it has logged that failure
  bool has_reaped = false;   // its last child, and then checks whether to launch again
  bool is_in_pause = false;  // from its sleep to the next launch
  bool is_stopped = false;
  bool may_launch = false;   // one launch is allowed: the child was reaped before the stop
  bool must_launch = false;  // one launch must come: the stop came in the pause
  bool launched_after_stop = false;

  bool runs_or_will() const { return !is_stopped || launched_after_stop; }
};

/** The state of the running schedule. */
struct State {
  PluginContext context = {};
  std::array<Child, most_children> children;
  size_t children_made = 0;
  std::deque<Supervisor> supervisors;
  std::array<ExpectedStation, 3> stations;                // by display number
  int forks = 0, threads = 0, arguments = 0, deaths = 0;  // counted for the story's conditions
  int polls = 0;                                          // of the main thread since it last queued a request
  bool main_waits_for_pause = false, pause_has_come = false;
};

extern State state;
extern Story running_story;  // set by main before it is explored

/** An object for steps that affect each other because supervisors and children take part in them. */
inline const void* const supervision = &state.forks;

Child& child_of(pid_t pid);

/** Whether this is the pid of a child that is not reaped. */
bool is_child(pid_t pid);

/** Null if the thread does not run method_start_thread. */
Supervisor* supervisor_of(const Thread* thread);

/** Counts a call; true if it is the one that the story makes fail. */
inline bool fails(int* counter, int failing) {
  return ++*counter == failing;
}
