// SPDX-License-Identifier: MIT
// world.cpp: made-up threads, locks, time, memory and children, and the rules that every order must keep.
//
// The linker sends the calls of display-manager.cpp here (ld(1), --wrap); what it takes from common/ besides
// the formatting of texts is defined here. atomics.cpp has its atomic variables.
#include "tests/interleavings/world.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <regex>
#include <set>

#include "common/heap.h"
#include "common/logger.h"
#include "common/signals.h"
#include "common/stack-pool.h"
#include "plugins/display-manager/display-manager.h"
#include "tests/interleavings/memory.h"

using GroupKey = std::pair<int, int>;  // display and group

namespace {

constexpr pid_t first_pid = 100;
constexpr size_t most_children = 32;
constexpr int polls_for_the_worker = 100;

struct Child {
  const Thread* maker = nullptr;
  GroupKey group;
  enum { none, runs, dead } state = none;
  bool has_sigterm = false;
};

// A thread of method_start_thread, and what became of it.
struct Supervisor {
  Thread* thread;
  GroupKey group;
  pid_t child = 0;  // the last one
  bool met_fault = false;
  bool has_failed = false;        // and said so
  bool has_logged_death = false;  // and looks whether it launches again
  bool is_in_pause = false;       // from its sleep to the next launch
  bool is_stopped = false;
  bool may_launch = false;   // because the stop came after a death was logged
  bool must_launch = false;  // because the stop came in the pause
  bool launched_after_stop = false;
};

struct Everything {
  PluginContext context = {};
  std::map<const void*, Thread*> holders;  // of the mutexes that are held
  std::map<const void*, bool> signalled;   // threads that wait for a condition variable
  std::map<const void*, int> semaphores;
  std::map<Thread*, std::string> waiting;  // what a thread waits for
  std::array<Child, most_children> children;
  size_t children_made = 0;
  std::vector<Supervisor> supervisors;
  std::map<int, std::vector<Request>> accepted;  // of each display
  std::map<int, size_t> begun;                   // of these
  std::map<GroupKey, int> keep_alive;
  std::map<GroupKey, pid_t> child_pid;
  std::map<Thread*, std::string> owed;  // what a thread must log next, or "a thread" that it must make
  int forks = 0, threads = 0, arguments = 0, deaths = 0, polls = 0;
  bool main_waits_for_pause = false, pause_has_come = false;
};

const Story* story;
Everything* all;
std::set<std::string> known_transcripts;

Child& child_of(pid_t pid) {
  return all->children[static_cast<size_t>(pid - first_pid)];
}

bool is_child(pid_t pid) {
  return pid >= first_pid && pid < first_pid + static_cast<pid_t>(most_children) &&
         child_of(pid).state != Child::none;
}

const ActorDefinition* actor_of(const char* name) {
  return dm_find_actor(dm_lookup_actor_code(name));
}

Supervisor* newest(const GroupKey& group) {
  Supervisor* found = nullptr;
  for (Supervisor& each : all->supervisors) {
    if (each.group == group) found = &each;
  }
  return found;
}

Supervisor* supervisor_of(const Thread* thread) {
  for (Supervisor& each : all->supervisors) {
    if (each.thread == thread) return &each;
  }
  return nullptr;
}

// Whether the last child is there, dead or alive. Its pid may be another child's by now.
bool has_child(const Supervisor& self) {
  return is_child(self.child) && child_of(self.child).maker == self.thread;
}

bool counts(int* counter, int failing) {
  return ++*counter == failing;
}

// Waits as a thread that is blocked in `what`.
void wait_for(const Step& step, const std::function<bool()>& can_go) {
  Thread* self = running_thread();
  all->waiting[self] = step.what;
  schedule(step, can_go);
  all->waiting.erase(self);
}

// ---- what the daemon decided --------------------------------------------------------------------------

bool may_launch_again(const Supervisor& last) {
  return !last.is_stopped || last.launched_after_stop;
}

// The request that the worker of this display runs, and its group.
const Request& request_now(int display) {
  return all->accepted[display].at(all->begun[display] - 1);
}
GroupKey group_now(int display) {
  return {display, actor_of(request_now(display).actor)->group};
}

void check_order(int display, Ask ask) {
  size_t& begun = all->begun[display];
  if (begun == all->accepted[display].size()) fail("a request runs twice");
  if (all->accepted[display][begun++].ask != ask) fail("requests run in another order");
}

// What was to come next has come, or comes now.
void check_owed(Thread* self, const std::string& what) {
  const auto owed = all->owed.find(self);
  if (owed == all->owed.end()) return;
  if (!what.starts_with(owed->second)) fail(self->name + " owes " + owed->second);
  all->owed.erase(owed);
}

void check_stop(const GroupKey& group, pid_t child) {
  Supervisor* last = newest(group);
  if (!last || last->has_failed || !may_launch_again(*last)) fail("a stop of what does not run");
  if (last->child != child) fail("a stop of another child than the group's last");
  last->is_stopped = true;
  last->may_launch = last->has_logged_death;
  last->must_launch = last->is_in_pause;
  last->launched_after_stop = false;
  all->keep_alive[group] = all->child_pid[group] = 0;
}

// A line of a worker tells what it decided.
void check_decision(int display, const std::string& line) {
  pid_t child = 0;
  int number = 0;
  if (sscanf(line.c_str(), "group:%d", &number) == 1) {  // NOLINT(cert-err34-c): the daemon's own line
    check_order(display, Ask::start);
    if (number != group_now(display).second) fail("requests run in another order");
  } else if (line == "proc_method_stop") {
    check_order(display, Ask::stop);
  } else if (line.starts_with("Sub thread of actor group")) {
    const Supervisor* last = newest(group_now(display));
    if (!last || last->has_failed || !may_launch_again(*last)) fail("a start is refused, and nothing runs");
  } else if (line.starts_with("Start method_start_thread")) {
    all->owed[running_thread()] = "a thread";
    if (group_now(display).second == 0) return;
    const Supervisor* last = newest(group_now(display));
    if (last && !last->met_fault && may_launch_again(*last)) fail("a second start of what runs");
    all->keep_alive[group_now(display)] = 1;
  } else if (line == "{DM} sub process is not running") {
    const Supervisor* last = newest(group_now(display));
    if (last && !last->met_fault && may_launch_again(*last)) fail("a stop finds nothing, and something runs");
    // NOLINTNEXTLINE(cert-err34-c): the daemon's own line
  } else if (sscanf(line.c_str(), "proc_method_stop: child_pid %d", &child) == 1) {
    check_stop(group_now(display), child);
  }
}

void check_launch(Supervisor& self, pid_t child) {
  if (&self != newest(self.group)) fail("a thread launches in a group that a newer one has");
  if (self.is_stopped && !self.may_launch) fail("a launch after a stop");
  if (self.is_stopped && self.launched_after_stop) fail("a second launch after a stop in the pause");
  for (const Child& other : all->children) {
    if (other.state == Child::runs && other.group == self.group && !other.has_sigterm)
      fail("two supervised children of one group");
  }
  self.has_logged_death = self.is_in_pause = false;
  self.launched_after_stop = self.is_stopped;
  self.child = all->child_pid[self.group] = child;
}

// ---- at rest ------------------------------------------------------------------------------------------

const char* const transcript_of_main =
    "(station thread for :\\d exists.\n|Start a new station thread for :\\d\n"
    "(\\{DM\\} Unable to start thread for display=\\d, rc=11\n)?|"
    "\\{DM\\} Unable to find station entry for display \\d\n)*";
const char* const transcript_of_worker =
    "Thread for Display \\d started...\n("
    "group:\\d, is_running:1\nSub thread of actor group for \\d is already running.\n|"
    "group:\\d, is_running:0\nStart method_start_thread for actor:\\d\n"
    "(\\{DM\\} Unable to start thread for event:\\d\n)?|"
    "proc_method_stop\n(\\{DM\\} sub process is not running\n|proc_method_stop: child_pid \\d+\n))*";
const char* const transcript_of_supervisor =
    "method_start_thread\\(\\) for actor_code:\\d, display_num:\\d\n"
    "((\\{DM\\} method_start_thread\\(\\): .*\n)+DISPLAY=:\\d, actor_code=\\d, child=(\\d+)\n"
    "Child process died: \\3\n)*"
    "(keep_alive field is FALSE. Exit from the current thread\n|"
    "(\\{DM\\} method_start_thread\\(\\): .*\n)*Another process on the same actor group has been started: "
    "-?\\d+. "
    "Exit from the current thread\n|"
    "\\{DM\\} Unable to allocate memory\n|"
    "(\\{DM\\} method_start_thread\\(\\): .*\n)+(DISPLAY=:\\d, actor_code=\\d, child=\\d+\n|"
    "\\{DM\\} Unable to create child process. Login thread for display \\d\n))";
const char* const transcript_of_group_0 =
    "init_group_thread\\(\\) for actor_code:1, display_num:\\d\n"
    "No action needed for INIT_STATION. display_num: \\d\n";

void check_transcript(const Thread& thread) {
  const char* const expected = thread.id == 0                          ? transcript_of_main
                               : thread.body == process_station_events ? transcript_of_worker
                               : thread.body == method_start_thread    ? transcript_of_supervisor
                                                                       : transcript_of_group_0;
  std::string lines;
  for (const std::string& line : thread.lines) lines += line + "\n";
  if (known_transcripts.contains(expected + lines)) return;
  if (!std::regex_match(lines, std::regex(expected))) fail("the log of " + thread.name + " is:\n" + lines);
  known_transcripts.insert(expected + lines);
}

void check_thread(Thread& thread) {
  check_transcript(thread);
  check_owed(&thread, "nothing");
  const std::string waits_for = all->waiting[&thread];
  if (thread.id == 0) {
    if (!thread.has_ended) fail("the main thread waits for ever: it " + waits_for);
  } else if (thread.body == process_station_events) {
    if (waits_for != "is woken through") fail(thread.name + " waits for ever: it " + waits_for);
  } else if (!thread.has_ended) {
    const Supervisor* self = supervisor_of(&thread);
    if (!self || waits_for != "sees the death of" || !has_child(*self))
      fail(thread.name + " waits for ever: it " + waits_for);
  }
}

void check_group(const Station& station, int number) {
  const GroupKey key = {station.display_num, number};
  const ActorGroup& group = station.groups[number];
  const Supervisor* last = newest(key);
  const bool runs = last && has_child(*last) && !child_of(last->child).has_sigterm && !last->met_fault;
  if (last && !last->met_fault && !last->is_stopped && !runs) fail("a start that was accepted runs nothing");
  if (runs && last->is_stopped && !last->launched_after_stop) fail("a child outlives its stop");
  if (last && last->must_launch && !last->met_fault && !last->launched_after_stop)
    fail("a stop in the pause keeps the next launch away");
  const bool counts_as_running = last && !last->met_fault && may_launch_again(*last);
  if (group.is_running.load() != (counts_as_running ? 1 : 0)) fail("is_running is wrong at rest");
  if (group.keep_alive.load() != all->keep_alive[key]) fail("keep_alive is wrong at rest");
  if (group.child_pid.load() != all->child_pid[key]) fail("child_pid is wrong at rest");
}

void check_rest() {
  for (Thread* thread : all_threads()) check_thread(*thread);
  for (const auto& [display, requests] : all->accepted) {
    if (all->begun[display] != requests.size()) fail("a request that was accepted never runs");
  }
  for (const Station* station = all->context.stations; station; station = station->next) {
    for (int number = 0; number < actor_group_count; ++number) check_group(*station, number);
  }
}

// ---- the story ----------------------------------------------------------------------------------------

void ask(const Request& request) {
  const ActorDefinition* actor = actor_of(request.actor);
  const bool is_start = request.ask == Ask::start;
  const std::string display = ":" + std::to_string(request.display);
  if (is_start && dm_start_station_thread(&all->context, display.c_str(), request.display, 1) != 0) return;
  EventOwner event = dm_new_event(&all->context, is_start ? event_kind_start : event_kind_stop);
  event->display_num = request.display;
  event->actor_code = actor->code;
  event->proc = is_start ? proc_method_start : proc_method_stop;
  all->accepted[request.display].push_back(request);  // before the worker can run it
  if (add_station_event(event, request.display) != 0) all->accepted[request.display].pop_back();
}

// Whether a pause is over or will never come.
bool pause_is_past() {
  if (all->pause_has_come) return true;
  for (const auto& [display, requests] : all->accepted) {
    if (all->begun[display] != requests.size()) return false;
  }
  return std::all_of(all->supervisors.begin(), all->supervisors.end(),
                     [](const Supervisor& each) { return each.thread->has_ended; });
}

void* main_thread(void*) {
  for (const Request& request : story->requests) {
    if (request.ask == Ask::wait_for_pause) {
      all->main_waits_for_pause = true;
      wait_for({"waits for a pause", &all->forks}, pause_is_past);
      all->main_waits_for_pause = false;
    } else {
      ask(request);
    }
  }
  return nullptr;
}

void begin() {
  std::destroy_at(all);
  std::construct_at(all);  // in place: a step's object is known by its address
  memory_begin();
  make_thread("the main thread", main_thread, nullptr);
}

void die(pid_t pid) {
  Child& child = child_of(pid);
  child.state = Child::dead;
  if (!child.has_sigterm) ++all->deaths;
  note_happening(pid, {"dies", &child});
}

void find_happenings(std::vector<Happening>* found) {
  for (size_t made = 0; made < all->children_made; ++made) {
    const pid_t pid = first_pid + static_cast<pid_t>(made);
    const Child& child = child_of(pid);
    if (child.state != Child::runs) continue;
    const bool obeys = child.has_sigterm && !story->conditions.are_deaf;
    if (!obeys && all->deaths >= story->conditions.deaths) continue;
    found->push_back({pid, obeys || all->main_waits_for_pause});
  }
}

std::string name_in_group(size_t offset) {
  const std::map<size_t, std::string> members = {{offsetof(ActorGroup, is_running), "is_running"},
                                                 {offsetof(ActorGroup, keep_alive), "keep_alive"},
                                                 {offsetof(ActorGroup, child_pid), "child_pid"},
                                                 {offsetof(ActorGroup, newest), "newest"},
                                                 {offsetof(ActorGroup, child_mutex), "child_mutex"}};
  const size_t group = offset / sizeof(ActorGroup);
  const auto member = members.find(offset % sizeof(ActorGroup));
  return (member == members.end() ? "a field" : member->second) + " of group " + std::to_string(group);
}

std::string name_of(const void* object) {
  if (object == &station_table_mutex) return "station_table_mutex";
  if (object == &all->context.stations) return "the list of stations";
  for (pid_t pid = first_pid; pid < first_pid + static_cast<pid_t>(most_children); ++pid) {
    if (object == &child_of(pid)) return "child " + std::to_string(pid);
  }
  const std::map<size_t, std::string> members = {{offsetof(Station, mutex), "the station's mutex"},
                                                 {offsetof(Station, cond), "the station's cond"},
                                                 {offsetof(Station, ready), "ready"},
                                                 {offsetof(Station, next), "the next station"},
                                                 {offsetof(Station, waiting), "waiting"},
                                                 {offsetof(Station, launched), "launched"}};
  const size_t offset = memory_offset(object, sizeof(Station));
  if (offset >= sizeof(Station)) return "";
  const size_t groups = offsetof(Station, groups);
  if (offset >= groups && offset < groups + sizeof(Station::groups)) return name_in_group(offset - groups);
  const auto member = members.find(offset);
  return member == members.end() ? "a field of the station" : member->second;
}

std::string describe(const Step& step) {
  const std::string name = name_of(step.object);
  return strcmp(step.what, "dies") == 0 ? name + " dies"
         : name.empty()                 ? step.what
                                        : step.what + (" " + name);
}

}  // namespace

World world_of(const Story& of) {
  static Everything everything;
  story = &of;
  all = &everything;
  return {begin, find_happenings, die, check_rest, describe};
}

// ---- common/ ------------------------------------------------------------------------------------------

static void write_line(Logger*, const char* format, ...) __attribute__((format(printf, 2, 3)));
static void write_line(Logger*, const char* format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  std::string line(strstr(buffer, "DEBUG: ") + strlen("DEBUG: "));
  line.pop_back();
  Thread* self = running_thread();
  schedule({"logs", self->arena});
  tell("    " + line);
  if (line.find(freed_byte) != std::string::npos) fail("a line is made of memory that was freed");
  check_owed(self, line);
  self->lines.push_back(line);
  if (self->body == process_station_events) {
    note({"decides", &all->forks});
    check_decision(static_cast<Station*>(self->data)->display_num, line);
  }
  if (line.starts_with("Child process died")) supervisor_of(self)->has_logged_death = true;
  if (line.starts_with("{DM} Unable to create child") || line == "{DM} Unable to allocate memory") {
    if (Supervisor* supervisor = supervisor_of(self)) supervisor->has_failed = true;
  }
}

static Logger logger = {.level = LOG_LEVEL_DEBUG, .name = "", .fp = nullptr, .write = write_line};
Logger* plogger = &logger;

void heap_set_up() {}
int heap_keep_for_children(void*, size_t) {
  return 0;
}
void heap_leave_out_growth() {}
void signals_give_back() {}
void stack_expect_worker() {}
void stack_expect_no_worker() {}
void stack_prepare_own() {}
void stack_return(void*) {}
void* stack_take() {
  return all;
}

pid_t stack_fork(void*) {
  schedule({"forks", &all->forks});
  Supervisor* self = supervisor_of(running_thread());
  if (counts(&all->forks, story->conditions.failing_fork)) {
    self->met_fault = true;
    all->child_pid[self->group] = -1;
    all->owed[running_thread()] = "{DM} Unable to create child process";
    return -1;
  }
  pid_t pid = first_pid;
  if (story->conditions.reuses_pids) {
    while (is_child(pid)) ++pid;
  } else {
    pid += static_cast<pid_t>(all->children_made);
  }
  ++all->children_made;
  if (pid >= first_pid + static_cast<pid_t>(most_children)) fail("more children than the story is made for");
  check_launch(*self, pid);
  child_of(pid) = {self->thread, self->group, Child::runs, false};
  note({"begins", &child_of(pid)});
  return pid;
}

// ---- the calls of libc --------------------------------------------------------------------------------

extern "C" {
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex);
int __wrap_pthread_cond_signal(pthread_cond_t* cond);
int __wrap_sem_init(sem_t* semaphore, int shared, unsigned value);
int __wrap_sem_wait(sem_t* semaphore);
int __wrap_sem_post(sem_t* semaphore);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* data);
int __wrap_usleep(useconds_t microseconds);
unsigned __wrap_sleep(unsigned seconds);
int __wrap_waitid(idtype_t type, id_t id, siginfo_t* death, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options);
int __wrap_kill(pid_t pid, int sig);
char* __wrap_strdup(const char* text);
}

// Whether the main thread polls on while no other thread gets a processor: this is no schedule point.
static bool polls_alone() {
  return story->conditions.is_worker_late && running_thread()->id == 0 && all->polls > 1;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  memory_check(mutex);
  if (polls_alone() && !all->holders.contains(mutex)) {
    note({"locks", mutex});
    all->holders[mutex] = running_thread();
    return 0;
  }
  if (all->holders.contains(mutex) && all->holders[mutex] == running_thread())
    fail("a thread locks what it holds");
  wait_for({"locks", mutex}, [mutex] { return !all->holders.contains(mutex); });
  all->holders[mutex] = running_thread();
  return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  memory_check(mutex);
  if (polls_alone()) {
    note({"unlocks", mutex});
  } else {
    schedule({"unlocks", mutex});
  }
  if (!all->holders.contains(mutex) || all->holders[mutex] != running_thread())
    fail("a thread unlocks what it does not hold");
  all->holders.erase(mutex);
  return 0;
}

int __wrap_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  schedule({"waits on", cond});
  if (all->holders[mutex] != running_thread()) fail("a thread waits without the mutex");
  note({"unlocks", mutex});
  all->holders.erase(mutex);
  all->signalled[cond] = false;
  wait_for({"is woken through", cond},
           [cond, mutex] { return all->signalled[cond] && !all->holders.contains(mutex); });
  note({"locks", mutex});
  all->signalled.erase(cond);
  all->holders[mutex] = running_thread();
  return 0;
}

int __wrap_pthread_cond_signal(pthread_cond_t* cond) {
  schedule({"signals", cond});
  const auto* station = reinterpret_cast<Station*>(reinterpret_cast<char*>(cond) - offsetof(Station, cond));
  if (station->events->next && all->polls < polls_for_the_worker)
    fail("a request is queued behind one that the worker could have taken");
  all->polls = 0;
  const auto waiter = all->signalled.find(cond);
  if (waiter != all->signalled.end()) waiter->second = true;
  return 0;
}

int __wrap_sem_init(sem_t* semaphore, int, unsigned value) {
  all->semaphores[semaphore] = static_cast<int>(value);
  return 0;
}

int __wrap_sem_wait(sem_t* semaphore) {
  memory_check(semaphore);
  wait_for({"takes", semaphore}, [semaphore] { return all->semaphores[semaphore] > 0; });
  --all->semaphores[semaphore];
  return 0;
}

int __wrap_sem_post(sem_t* semaphore) {
  memory_check(semaphore);
  schedule({"posts", semaphore});
  ++all->semaphores[semaphore];
  return 0;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*), void* data) {
  schedule({"makes a thread", &all->threads, story->conditions.failing_thread != 0});
  const bool is_worker = body == process_station_events;
  if (!is_worker) check_owed(running_thread(), "a thread");
  if (counts(&all->threads, story->conditions.failing_thread)) {
    all->owed[running_thread()] =
        is_worker ? "{DM} Unable to start thread for display" : "{DM} Unable to start thread for event";
    return EAGAIN;
  }
  std::string name = "the worker of :";
  if (is_worker) {
    name += std::to_string(static_cast<Station*>(data)->display_num);
  } else {
    const StationEvent& event = static_cast<ThreadStart*>(data)->event;
    if (event.actor_code != actor_of(request_now(event.display_num).actor)->code)
      fail("requests run in another order");
    const GroupKey group = {event.display_num, dm_find_actor(event.actor_code)->group};
    name = "thread " + std::to_string(all->supervisors.size() + 1) + " (" +
           dm_find_actor(event.actor_code)->name + " on :" + std::to_string(event.display_num) + ")";
    if (body == method_start_thread) all->supervisors.push_back({.thread = nullptr, .group = group});
  }
  Thread* made = make_thread(name, body, data);
  if (body == method_start_thread) all->supervisors.back().thread = made;
  *thread = static_cast<pthread_t>(made->id);
  return 0;
}

int __wrap_usleep(useconds_t microseconds) {
  if (++all->polls == 1 || !polls_alone()) schedule_sleep(microseconds);
  return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
  if (seconds != 2) fail("a pause of other than two seconds");
  Supervisor* self = supervisor_of(running_thread());
  self->is_in_pause = all->pause_has_come = true;
  note({"begins its pause", &all->forks});
  schedule_sleep(uint64_t{seconds} * 1000 * 1000);
  return 0;
}

int __wrap_waitid(idtype_t, id_t id, siginfo_t*, int options) {
  const auto pid = static_cast<pid_t>(id);
  if (!is_child(pid)) fail("a thread waits for a process that is no child");
  wait_for({"sees the death of", &child_of(pid)}, [pid] { return child_of(pid).state != Child::runs; });
  if (child_of(pid).state == Child::none) fail("a thread waits for a process that is no child any more");
  if ((options & WNOWAIT) == 0) child_of(pid).state = Child::none;
  return 0;
}

pid_t __wrap_waitpid(pid_t pid, int*, int) {
  if (!is_child(pid)) {
    errno = ECHILD;
    return -1;
  }
  wait_for({"reaps", &child_of(pid)}, [pid] { return child_of(pid).state != Child::runs; });
  note({"reaps", &all->forks});
  child_of(pid).state = Child::none;
  return pid;
}

int __wrap_kill(pid_t pid, int sig) {
  schedule({"signals", is_child(pid) ? &child_of(pid) : nullptr});
  if (!is_child(pid)) fail("process " + std::to_string(pid) + " is signalled, which is no child");
  if (sig != SIGTERM) fail("another signal than SIGTERM");
  const Station* station = static_cast<Station*>(running_thread()->data);
  if (child_of(pid).group != group_now(station->display_num)) fail("a child of another group is signalled");
  child_of(pid).has_sigterm = true;
  return 0;
}

char* __wrap_strdup(const char* text) {
  Supervisor* self = supervisor_of(running_thread());
  if (self && story->conditions.failing_argument != 0) {
    note({"takes memory", &all->arguments});
    if (counts(&all->arguments, story->conditions.failing_argument)) {
      self->met_fault = true;
      all->owed[running_thread()] = "{DM} Unable to allocate memory";
      return nullptr;
    }
  }
  auto* copy = static_cast<char*>(malloc(strlen(text) + 1));
  return strcpy(copy, text);  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): it has that size
}
