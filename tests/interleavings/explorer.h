// SPDX-License-Identifier: MIT
// explorer: runs a story again and again, each time with another order of its threads' steps.
//
// The threads of a story are coroutines of one real thread. Before each step that other threads could notice
// (a schedule point), the explorer decides which thread goes on. It tries every decision that needs at most
// `bound` preemptions: switches away from a thread that could have gone on. A sleep that ends, or a death,
// while a thread could go on counts as one.
//
// Two orders that differ only in steps that do not affect each other lead to the same state. The explorer
// gives each state a hash of what its threads have done, and of what affected that (the happens-before
// relation), and leaves a state that it has seen before with no fewer preemptions left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/** What a thread is about to do at a schedule point. */
struct Step {
  const char* what;              // "locks", "reads"
  const void* object = nullptr;  // two steps affect each other if they have it in common, and one changes it
  bool changes = true;
};

/** Something that can happen beside the threads, such as a death. */
struct Happening {
  int id;          // the same for the same happening in every order
  bool is_urgent;  // it comes by itself when no thread can go on; without it, the story may also rest
};

/** What the explorer asks of the story's world. */
struct World {
  std::function<void()> begin;  // puts everything back and makes the first thread
  std::function<void(std::vector<Happening>* all)> find_happenings;
  std::function<void(int id)> happen;
  std::function<void()> rest;                        // checks what is left when nothing happens any more
  std::function<std::string(const Step&)> describe;  // a step, for the list of a failing order
};

struct Finding {
  uint64_t schedules = 0;  // orders tried, the failing one included
  uint64_t states = 0;
  int bound = 0;                   // that was reached, or of the failure
  std::string failure;             // empty: none
  std::vector<std::string> steps;  // of the failing order
};

/** Tries all orders of up to `bound` preemptions, those with fewer first; stops at the first failure. */
Finding explore(const World& world, int bound);

/** The steps of schedule `number` of the orders with up to `bound` preemptions, as explore counts them. */
Finding replay(const World& world, int bound, uint64_t number);

// ---- for the world ------------------------------------------------------------------------------------

inline constexpr size_t arena_size = size_t{64} * 1024;
inline constexpr size_t most_threads = 256;

/** The arenas of all threads, one after the other in the order of their ids. */
extern char* const arenas;

/** A thread of the story. Its identity, stack and memory do not depend on the order of the steps. */
struct Thread {
  int id;
  std::string name;
  void* (*body)(void*);
  void* data;
  bool has_ended = false;
  std::vector<std::string> lines;  // that it has logged
  char* arena;                     // arena_size bytes, for its memory
  size_t arena_used = 0;
};

/** Makes a thread that begins with `body(data)`. It does not run before it is chosen. */
Thread* make_thread(const std::string& name, void* (*body)(void*), void* data);

/** The thread that runs; null outside a story. */
Thread* running_thread();

/** All threads made so far. */
const std::vector<Thread*>& all_threads();

/** A schedule point: returns when the running thread is chosen, which it is only while `can_go` is true. */
void schedule(const Step& step, const std::function<bool()>& can_go = {});

/** The same for a thread that sleeps until the story's clock, in microseconds, says so. */
void schedule_sleep(uint64_t microseconds);

/** Notes a step that is no schedule point, so that it counts for what affects what. */
void note(const Step& step);

/** Notes a step of something beside the threads. */
void note_happening(int id, const Step& step);

/** Adds a line to the list of steps. */
void tell(const std::string& text);

/** Ends this order as a failure. */
[[noreturn]] void fail(const std::string& why);

/** Whether some thread sleeps, or can go on. */
bool something_moves();
