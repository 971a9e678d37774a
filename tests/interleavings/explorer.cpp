// SPDX-License-Identifier: MIT
// explorer.cpp: the depth-first search over all schedules, and the hash of a state.
//
// The search keeps the options of each point on the path of the running schedule. The next schedule follows
// the same path up to the last point that has another option, and need not look for options before it.
#include "tests/interleavings/explorer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <map>
#include <unordered_map>

#include "tests/interleavings/memory.h"

namespace {

constexpr size_t most_steps = 4000;
constexpr uint64_t awake = 0;
constexpr int no_thread = -1;

uint64_t mix(uint64_t value, uint64_t other) {
  value = (value + 1) * 0x9e3779b97f4a7c15ULL + (other + 1) * 0xc2b2ae3d27d4eb4fULL;
  value = (value ^ (value >> 32U)) * 0xd6e8feb86659fd93ULL;
  return value ^ (value >> 29U);
}

struct SimulatedThread : Thread {
  int index = 0;  // in the explorer's list
  Coroutine* coroutine = nullptr;
  int threads_made = 0;
  uint64_t hash = 0;
  uint64_t wake_at = awake;
  const std::function<bool()>* can_run = nullptr;  // on its stack; null: always
};

// What was done to an object: the last change, and the reads since.
struct History {
  const void* object = nullptr;
  uint64_t schedule = 0;  // to which this belongs
  uint64_t change = 0;
  uint64_t reads = 0;
};

// The histories of all objects: a hash table. A row of an earlier schedule counts as empty.
class Histories {
 public:
  void begin() {
    ++schedule_;
    used_ = 0;
  }
  History& operator[](const void* object) {
    size_t row = static_cast<size_t>(mix(reinterpret_cast<uintptr_t>(object), 0)) % rows_.size();
    while (rows_[row].schedule == schedule_ && rows_[row].object != object) row = (row + 1) % rows_.size();
    if (rows_[row].schedule != schedule_) {
      if (++used_ == rows_.size()) abort();
      rows_[row] = {.object = object, .schedule = schedule_};
    }
    return rows_[row];
  }

 private:
  std::array<History, 4096> rows_;
  uint64_t schedule_ = 0;
  size_t used_ = 0;
};

// One way to continue: a thread or an external event.
struct Option {
  int thread;  // its index, or no_thread
  int event;
  int cost;
};

// A schedule point. Its options end where those of the next point begin.
struct Point {
  size_t first;
  size_t taken;
};

// The running schedule.
struct Schedule {
  std::deque<SimulatedThread> threads;
  SimulatedThread* current = nullptr;  // runs, or ran last
  uint64_t now = 1;                    // in microseconds
  uint64_t sum = 0;                    // of the hashes of all threads, objects and external events
  std::map<int, uint64_t> event_hashes;
  int preemptions = 0;
  size_t depth = 0;  // how many points of the path it has passed
  std::string failure;
  std::vector<std::string> steps;
} run;

// The search for schedules with up to `bound` preemptions.
struct Search {
  int bound = 0;
  std::vector<Point> path;
  std::vector<Option> options;
  std::unordered_map<uint64_t, int> known;  // states, and the fewest preemptions that led there
} search;

Histories histories;
bool is_listed = false;

// Adds a step to the hash of a thread or an external event.
void add_step(uint64_t* hash, const Step& step) {
  History& history = histories[step.object];
  run.sum -= *hash + mix(history.change, history.reads);
  if (step.changes) {
    *hash = mix(mix(*hash, history.change), history.reads);
    history.change = *hash;
    history.reads = 0;
  } else {
    *hash = mix(*hash, history.change);
    history.reads += *hash;
  }
  run.sum += *hash + mix(history.change, history.reads);
}

void count(SimulatedThread* thread, const Step& step) {
  add_step(&thread->hash, step);
  if (is_listed) list_step(thread->name + " ", describe(step));
}

void run_thread() {
  SimulatedThread* self = run.current;
  count(self, self->next);
  self->body(self->data);
  self->has_ended = true;
  list_step(self->name, " ends");
  coroutine_leave();
  abort();
}

bool is_known() {
  const uint64_t state = mix(mix(run.sum, static_cast<uint64_t>(run.current->id)), run.now);
  const auto [known, is_new] = search.known.try_emplace(state, run.preemptions);
  if (is_new) return false;
  if (known->second <= run.preemptions) return true;
  known->second = run.preemptions;
  return false;
}

void add_option(int thread, int event, int cost) {
  if (run.preemptions + cost <= search.bound) search.options.push_back({thread, event, cost});
}

// Appends the options of a new point, except those that need too many preemptions.
void find_options() {
  const auto can_run = [](const SimulatedThread& thread) {
    return thread.wake_at <= run.now && !thread.has_ended && (!thread.can_run || (*thread.can_run)());
  };
  const bool current_can_run = can_run(*run.current);
  if (current_can_run) add_option(run.current->index, 0, 0);
  bool none_can_run = !current_can_run;
  uint64_t first_wake = UINT64_MAX;
  for (const SimulatedThread& thread : run.threads) {
    if (thread.wake_at > run.now) first_wake = std::min(first_wake, thread.wake_at);
    if (&thread == run.current || !can_run(thread)) continue;
    add_option(thread.index, 0, current_can_run ? 1 : 0);
    none_can_run = false;
  }
  const int early = none_can_run ? 0 : 1;
  for (const SimulatedThread& thread : run.threads) {
    if (thread.wake_at > run.now) add_option(thread.index, 0, thread.wake_at == first_wake ? early : 1);
  }
  const std::vector<ExternalEvent> events = find_events();
  for (const ExternalEvent& event : events) add_option(no_thread, event.id, early);
  if (none_can_run && first_wake == UINT64_MAX && std::ranges::none_of(events, &ExternalEvent::is_urgent))
    check_end();
}

// Adds the point that the schedule has reached to the path. Returns false if the schedule ends here.
bool add_point() {
  const size_t first = search.options.size();
  find_options();
  if (search.options.size() == first || !run.failure.empty() || (!is_listed && is_known())) {
    search.options.resize(first);
    return false;
  }
  search.path.push_back({first, first});
  return true;
}

// Chooses the thread that runs next. External events may happen first. Returns false if the schedule ends.
bool choose() {
  for (;;) {
    if (run.depth == most_steps) report("this never ends");
    if (!run.failure.empty() || (run.depth == search.path.size() && !add_point())) return false;
    const Option option = search.options[search.path[run.depth++].taken];
    run.preemptions += option.cost;
    if (option.thread != no_thread) {
      run.current = &run.threads[static_cast<size_t>(option.thread)];
      run.now = std::max(run.now, run.current->wake_at);
      run.current->wake_at = awake;
      return true;
    }
    raise_event(option.event);
  }
}

void run_one() {
  run = {};
  histories.begin();
  begin_story();
  run.current = &run.threads.front();
  do {
    coroutine_resume(run.current->coroutine);
  } while (choose());
}

bool next_schedule() {
  while (!search.path.empty()) {
    if (++search.path.back().taken < search.options.size()) return true;
    search.options.resize(search.path.back().first);
    search.path.pop_back();
  }
  return false;
}

}  // namespace

Result explore(int bound, uint64_t listed) {
  Result result;
  is_listed = false;
  for (int each = 0; each <= bound && !is_listed && run.failure.empty(); ++each) {
    search = {};
    search.bound = each;
    do {
      is_listed = ++result.schedules == listed;
      run_one();
    } while (!is_listed && run.failure.empty() && next_schedule());
  }
  if (!run.failure.empty() && !is_listed) {
    is_listed = true;
    run_one();
  }
  result.states = search.known.size();
  result.bound = search.bound;
  result.failure = run.failure;
  result.steps = run.steps;
  run = {};
  return result;
}

Thread* make_thread(const std::string& name, void* (*body)(void*), void* data) {
  SimulatedThread* maker = run.current;
  const int id = maker ? maker->id * 8 + ++maker->threads_made : 0;  // the same in every schedule
  if (id >= static_cast<int>(most_threads) || (maker && maker->threads_made > 8))
    fail("the story creates too many threads");
  SimulatedThread& made = run.threads.emplace_back();
  made.id = id;
  made.index = static_cast<int>(run.threads.size()) - 1;
  made.name = name;
  made.body = body;
  made.data = data;
  made.memory = memory_of_thread(id);
  made.next = {"begins", made.memory};
  made.coroutine = coroutine_begin(id, run_thread);
  made.hash = mix(static_cast<uint64_t>(id), maker ? maker->hash : 1);
  run.sum += made.hash;
  return &made;
}

Thread* running_thread() {
  return run.current;
}

std::vector<const Thread*> all_threads() {
  std::vector<const Thread*> all;
  for (const Thread& thread : run.threads) all.push_back(&thread);
  return all;
}

void schedule(const Step& step, const std::function<bool()>& can_run) {
  SimulatedThread* self = run.current;
  self->next = step;
  self->can_run = can_run ? &can_run : nullptr;
  coroutine_leave();
  self->can_run = nullptr;
  count(self, step);
}

void schedule_sleep(uint64_t microseconds) {
  SimulatedThread* self = run.current;
  self->wake_at = run.now + microseconds;
  run.sum -= self->hash;
  self->hash = mix(self->hash, self->wake_at);
  run.sum += self->hash;
  schedule({"has slept", self->memory});
}

void record(const Step& step) {
  add_step(&run.current->hash, step);
}

void record_event(int id, const Step& step) {
  add_step(&run.event_hashes[id], step);
  if (is_listed) list_step("", describe(step));
}

void list_step(std::string_view start, std::string_view end) {
  if (is_listed) run.steps.emplace_back(start).append(end);
}

void report(const std::string& why) {
  if (!run.failure.empty()) return;
  run.failure = why;
  list_step("FAILURE: ", why);
}

void fail(const std::string& why) {
  report(why);
  coroutine_leave();
  abort();
}
