// SPDX-License-Identifier: MIT
// explorer.cpp: coroutines, the depth-first search over their orders, and the hash of a state.
#include "tests/interleavings/explorer.h"

#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <unordered_map>

namespace {

constexpr size_t stack_size = size_t{128} * 1024;
constexpr size_t most_steps = 4000;
constexpr uint64_t awake = 0;

uint64_t mix(uint64_t value, uint64_t other) {
  value = (value + 1) * 0x9e3779b97f4a7c15ULL + (other + 1) * 0xc2b2ae3d27d4eb4fULL;
  value = (value ^ (value >> 32U)) * 0xd6e8feb86659fd93ULL;
  return value ^ (value >> 29U);
}

struct Coroutine : Thread {
  ucontext_t context;
  char* stack;
  int made = 0;  // threads that it has made
  uint64_t hash;
  uint64_t wake_at = awake;
  Step next;
  std::function<bool()> can_go;
};

// What has been done to an object: the last change, and what was read since.
struct History {
  uint64_t change = 0;
  uint64_t reads = 0;
  uint64_t order = 0;  // the one in which this holds
};

// One way to go on.
struct Option {
  Coroutine* thread;  // null: the happening
  int happening;
  int cost;
};

// A point with several ways, and the one that was taken.
struct Choice {
  size_t ways;
  size_t taken;
};

class Explorer {
 public:
  Explorer(const World& world, int bound) : world_(world), bound_(bound) {}

  void run_all(Finding* finding, uint64_t only);

  // All that follows is of the order that runs.
  void leave();
  void choose();
  void count(Coroutine* thread, const Step& step);
  void count_for(uint64_t* hash, const Step& step);

  std::vector<Thread*> threads;
  std::vector<std::unique_ptr<Coroutine>> owned;
  Coroutine* current = nullptr;
  uint64_t now = 1;
  uint64_t sum = 0;  // of the hashes of all threads and objects
  std::map<int, uint64_t> happening_hashes;
  std::unordered_map<const void*, History> objects;
  uint64_t order = 0;
  std::string failure;
  bool is_listing = false;
  std::vector<std::string> list;
  ucontext_t outside = {};
  const World& world_;

 private:
  void find_options();
  void take(const Option& option);
  void run_one();
  bool next_order();
  bool is_known();

  int bound_;
  int used_ = 0;
  size_t steps_ = 0;
  size_t depth_ = 0;
  std::vector<Choice> path_;
  std::unordered_map<uint64_t, int> known_;  // states, and the fewest preemptions that led there
  std::vector<Happening> happenings_;
  std::vector<Option> options_;
};

Explorer* explorer;

// The stacks of all threads. An id has a digit of three bits for each generation, so that it is the same in
// every order; not all are used.
char* map_for_all(size_t size) {
  void* area = mmap(nullptr, most_threads * size, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) abort();
  return static_cast<char*>(area);
}

char* stack_of(int id) {
  static char* const stacks = map_for_all(stack_size);
  char* stack = stacks + static_cast<size_t>(id) * stack_size;
  return stack;
}

void body() {
  Coroutine* self = explorer->current;
  explorer->count(self, self->next);
  self->body(self->data);
  self->has_ended = true;
  tell(self->name + " ends");
  self->can_go = [] { return false; };
  explorer->choose();
  abort();
}

void Explorer::count_for(uint64_t* hash, const Step& step) {
  History& history = objects[step.object];
  if (history.order != order) history = {.order = order};
  sum -= *hash + mix(history.change, history.reads);
  if (step.changes) {
    *hash = mix(mix(*hash, history.change), history.reads);
    history = {*hash, 0, order};
  } else {
    *hash = mix(*hash, history.change);
    history.reads += *hash;
  }
  sum += *hash + mix(history.change, history.reads);
}

void Explorer::count(Coroutine* thread, const Step& step) {
  count_for(&thread->hash, step);
  if (is_listing) tell(thread->name + " " + world_.describe(step));
}

// Ends the order that runs.
void Explorer::leave() {
  swapcontext(&current->context, &outside);
  abort();
}

bool Explorer::is_known() {
  const uint64_t state = mix(mix(sum, static_cast<uint64_t>(current->id)), now);
  const auto [known, is_new] = known_.try_emplace(state, used_);
  if (is_new) return false;
  if (known->second <= used_) return true;
  known->second = used_;
  return false;
}

void Explorer::find_options() {
  std::vector<Option>& found = options_;
  found.clear();
  const auto can_go = [this](const Coroutine& thread) {
    return thread.wake_at <= now && !thread.has_ended && (!thread.can_go || thread.can_go());
  };
  if (can_go(*current)) found.push_back({current, 0, 0});
  const int cost = found.empty() ? 0 : 1;
  for (const auto& thread : owned) {
    if (thread.get() != current && can_go(*thread)) found.push_back({thread.get(), 0, cost});
  }
  // The clock goes on, and children die, by themselves when no thread can go on. Earlier, that costs as much
  // as a preemption.
  const int early = found.empty() ? 0 : 1;
  uint64_t first = UINT64_MAX;
  for (const auto& thread : owned) {
    if (thread->wake_at > now) first = std::min(first, thread->wake_at);
  }
  for (const auto& thread : owned) {
    if (thread->wake_at > now) found.push_back({thread.get(), 0, thread->wake_at == first ? early : 1});
  }
  happenings_.clear();
  world_.find_happenings(&happenings_);
  const bool is_at_rest = found.empty() && std::none_of(happenings_.begin(), happenings_.end(),
                                                        [](const Happening& each) { return each.is_urgent; });
  if (is_at_rest) world_.rest();
  for (const Happening& each : happenings_) found.push_back({nullptr, each.id, early});
  std::erase_if(found, [this](const Option& option) { return used_ + option.cost > bound_; });
}

void Explorer::take(const Option& option) {
  used_ += option.cost;
  if (option.thread) {
    now = std::max(now, option.thread->wake_at);
    option.thread->wake_at = awake;
    Coroutine* from = current;
    current = option.thread;
    if (from != current) swapcontext(&from->context, &current->context);
    return;
  }
  world_.happen(option.happening);
}

// Returns on the running coroutine when it is chosen.
void Explorer::choose() {
  Coroutine* self = current;
  for (bool is_chosen = false; !is_chosen;) {
    if (++steps_ > most_steps) fail("this never rests");
    find_options();
    const std::vector<Option>& found = options_;
    if (found.empty()) leave();
    const bool is_new = depth_ == path_.size();
    if (is_new && !is_listing && is_known()) leave();
    if (is_new && found.size() > 1) path_.push_back({found.size(), 0});
    const Option option = found.size() > 1 ? found[path_[depth_++].taken] : found[0];
    is_chosen = option.thread != nullptr;
    take(option);
  }
  if (current != self) abort();
}

void Explorer::run_one() {
  threads.clear();
  owned.clear();
  ++order;
  happening_hashes.clear();
  list.clear();
  current = nullptr;
  failure.clear();
  sum = 0;
  now = 1;
  used_ = 0;
  steps_ = depth_ = 0;
  world_.begin();
  current = owned.front().get();
  swapcontext(&outside, &current->context);
  current = nullptr;
}

// The next order by depth: the last point that has another way goes on with it.
bool Explorer::next_order() {
  while (!path_.empty() && ++path_.back().taken == path_.back().ways) path_.pop_back();
  return !path_.empty();
}

void Explorer::run_all(Finding* finding, uint64_t only) {
  explorer = this;
  do {
    ++finding->schedules;
    is_listing = finding->schedules == only;
    run_one();
    if (is_listing || !failure.empty()) break;
  } while (next_order());
  finding->states = known_.size();
  finding->bound = bound_;
  finding->failure = failure;
  finding->steps = list;
  if (!failure.empty() && !is_listing) {  // once more, with its steps
    is_listing = true;
    run_one();
    finding->steps = list;
  }
  explorer = nullptr;
}

}  // namespace

char* const arenas = map_for_all(arena_size);

Finding explore(const World& world, int bound) {
  Finding finding;
  for (int each = 0; each <= bound && finding.failure.empty(); ++each)
    Explorer(world, each).run_all(&finding, 0);
  return finding;
}

Finding replay(const World& world, int bound, uint64_t number) {
  Finding finding;
  for (int each = 0; each <= bound && finding.schedules < number && finding.failure.empty(); ++each)
    Explorer(world, each).run_all(&finding, number);
  return finding;
}

Thread* make_thread(const std::string& name, void* (*body_of_it)(void*), void* data) {
  Coroutine* maker = explorer->current;
  auto made = std::make_unique<Coroutine>();
  made->id = maker ? maker->id * 8 + ++maker->made : 0;
  made->name = name;
  made->body = body_of_it;
  made->data = data;
  if (made->id >= static_cast<int>(most_threads)) fail("more threads than the story is made for");
  made->stack = stack_of(made->id);
  made->arena = arenas + static_cast<size_t>(made->id) * arena_size;
  made->hash = mix(static_cast<uint64_t>(made->id), maker ? maker->hash : 1);
  explorer->sum += made->hash;
  made->next = {"begins", made->arena};
  getcontext(&made->context);
  made->context.uc_stack.ss_sp = made->stack;
  made->context.uc_stack.ss_size = stack_size;
  makecontext(&made->context, body, 0);
  explorer->threads.push_back(made.get());
  explorer->owned.push_back(std::move(made));
  return explorer->threads.back();
}

Thread* running_thread() {
  return explorer ? explorer->current : nullptr;
}

const std::vector<Thread*>& all_threads() {
  return explorer->threads;
}

void schedule(const Step& step, const std::function<bool()>& can_go) {
  Coroutine* self = explorer->current;
  self->next = step;
  self->can_go = can_go;
  explorer->choose();
  self->can_go = nullptr;
  explorer->count(self, step);
}

void schedule_sleep(uint64_t microseconds) {
  Coroutine* self = explorer->current;
  self->wake_at = explorer->now + microseconds;
  explorer->sum -= self->hash;
  self->hash = mix(self->hash, self->wake_at);
  explorer->sum += self->hash;
  schedule({"has slept", self->arena});
}

void note(const Step& step) {
  explorer->count_for(&explorer->current->hash, step);
}

void note_happening(int id, const Step& step) {
  uint64_t& hash = explorer->happening_hashes[id];
  explorer->count_for(&hash, step);
  tell(explorer->world_.describe(step));
}

void tell(const std::string& text) {
  if (explorer->is_listing) explorer->list.push_back(text);
}

void fail(const std::string& why) {
  explorer->failure = why;
  tell("FAILURE: " + why);
  explorer->leave();
  abort();
}
