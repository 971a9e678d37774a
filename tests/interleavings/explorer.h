// SPDX-License-Identifier: MIT
// explorer: runs a story many times, each time with another schedule: another order of its threads' steps.
//
// The threads of a story are coroutines of one real thread. Before each step that other threads could notice
// (a schedule point), the explorer chooses the thread that runs next. It tries every choice that needs at
// most `bound` preemptions. A preemption is a switch away from a thread that could have continued. If a
// thread can run, the end of a sleep and an external event also count as preemptions. So does the end of a
// sleep before that of a shorter one.
//
// Schedules that differ only in steps that do not affect each other lead to the same state. The explorer
// hashes what each thread has done and what affected that (the happens-before relation). It abandons a
// schedule in a state that it has reached before with as few preemptions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/interleavings/coroutine.h"

/** What a thread does at a schedule point. */
struct Step {
  const char* what;              // "locks", "reads"
  const void* object = nullptr;  // two steps affect each other if they share it and one of them changes it
  bool changes = true;
};

/** Something that can happen without a thread, such as the death of a process. */
struct ExternalEvent {
  int id;          // the same in every schedule
  bool is_urgent;  // it must happen when no thread can run; a schedule may end without the others
};

/** A thread of the story. Its id and its memory do not depend on the schedule. */
struct Thread {
  int id;
  std::string name;
  void* (*body)(void*);
  void* data;
  const char* memory;  // its heap
  Step next;           // what it is about to do
  bool has_ended = false;

  // Used by the world only.
  std::string log;             // its messages, one on each line
  const char* owes = nullptr;  // what it must log or do next
};

struct Result {
  uint64_t schedules = 0;          // that were run, the failed one included
  uint64_t states = 0;             // different ones, in the schedules with the most preemptions
  int bound = 0;                   // the most preemptions of the last schedules
  std::string failure;             // empty: none
  std::vector<std::string> steps;  // of the failed or listed schedule
};

/**
 * Runs all schedules with up to `bound` preemptions, those with fewer first. Stops at the first failure, or
 * at schedule `listed`, and lists its steps.
 */
Result explore(int bound, uint64_t listed = 0);

// ---- defined by the story (world.cpp, rules.cpp), called between steps ---------------------------------

/** Restores the initial state and makes the first thread. */
void begin_story();

std::vector<ExternalEvent> find_events();
void raise_event(int id);

/** Called when nothing more will happen, except events that are not urgent. */
void check_end();

/** A step, for the list. */
std::string describe(const Step& step);

// ---- for the world ------------------------------------------------------------------------------------

inline constexpr size_t most_threads = most_coroutines;

/** Makes a thread that begins with `body(data)`. It does not run before it is chosen. */
Thread* make_thread(const std::string& name, void* (*body)(void*), void* data);

/** The thread that runs, or that ran last; null outside a story. */
Thread* running_thread();

std::vector<const Thread*> all_threads();

/** A schedule point: returns when the running thread is chosen, which it is only while `can_run` is true. */
void schedule(const Step& step, const std::function<bool()>& can_run = {});

/** A schedule point of a thread that sleeps. Time is simulated. */
void schedule_sleep(uint64_t microseconds);

/** Records a step that is no schedule point but can affect others. */
void record(const Step& step);

/** Records the effect of an external event. */
void record_event(int id, const Step& step);

/** Adds a line, made of these texts, to the list of steps if this schedule is listed. */
void list_step(std::string_view start, std::string_view end);

/** Ends this schedule as a failure. Threads only. */
[[noreturn]] void fail(const std::string& why);

/** The same, between steps: returns. Only the first failure of a schedule counts. */
void report(const std::string& why);
