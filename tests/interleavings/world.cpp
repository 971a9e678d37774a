// SPDX-License-Identifier: MIT
// world.cpp: the main thread of a story, the deaths of children, and the names of objects.
#include "tests/interleavings/world.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "tests/interleavings/memory.h"
#include "tests/interleavings/rules.h"

State state;
Story running_story;

namespace {

void make_request(const Request& request) {
  char display[16];  // no std::string: a thread that is dropped never frees it
  snprintf(display, sizeof display, ":%d", request.display);
  const bool is_start = request.action == Action::start;
  if (is_start && dm_start_station_thread(&state.context, display, request.display, 1) != 0) return;
  EventOwner event = dm_new_event(&state.context, is_start ? event_kind_start : event_kind_stop);
  event->display_num = request.display;
  event->actor_code = request.actor->code;
  event->proc = is_start ? proc_method_start : proc_method_stop;
  std::vector<Request>& accepted = state.stations[static_cast<size_t>(request.display)].accepted;
  accepted.push_back(request);  // before the worker can run it
  if (add_station_event(event, request.display) != 0) accepted.pop_back();
}

// Whether a pause has come or will never come.
bool waits_no_longer() {
  const auto is_idle = [](const ExpectedStation& each) { return each.begun == each.accepted.size(); };
  const auto has_ended = [](const Supervisor& each) { return each.thread->has_ended; };
  return state.pause_has_come ||
         (std::ranges::all_of(state.stations, is_idle) && std::ranges::all_of(state.supervisors, has_ended));
}

void* main_thread(void*) {
  for (const Request& request : running_story.requests) {
    if (request.action != Action::wait_for_pause) {
      make_request(request);
      continue;
    }
    state.main_waits_for_pause = true;
    schedule({"waits for a pause", supervision}, waits_no_longer);
    state.main_waits_for_pause = false;
  }
  return nullptr;
}

std::string name_of(const void* object) {
  using Names = std::map<size_t, std::string>;  // by offset
  static const Names in_station = {{offsetof(Station, mutex), "the station's mutex"},
                                   {offsetof(Station, cond), "the station's cond"},
                                   {offsetof(Station, ready), "ready"},
                                   {offsetof(Station, next), "the next station"},
                                   {offsetof(Station, waiting), "waiting"},
                                   {offsetof(Station, launched), "launched"}};
  static const Names in_group = {{offsetof(ActorGroup, is_running), "is_running"},
                                 {offsetof(ActorGroup, keep_alive), "keep_alive"},
                                 {offsetof(ActorGroup, child_pid), "child_pid"},
                                 {offsetof(ActorGroup, newest), "newest"},
                                 {offsetof(ActorGroup, child_mutex), "child_mutex"}};
  const auto name = [](const Names& names, size_t offset) {
    const auto found = names.find(offset);
    return found == names.end() ? "a field" : found->second;
  };
  if (object == &station_table_mutex) return "station_table_mutex";
  if (object == &state.context.stations) return "the list of stations";
  for (size_t i = 0; i < most_children; ++i) {
    if (object == &state.children[i]) return "child " + std::to_string(first_pid + static_cast<pid_t>(i));
  }
  const size_t offset = memory_offset(object, sizeof(Station));
  if (offset == 0) return "";  // an arena: the object of a thread's own steps
  if (offset >= sizeof(Station)) return "";
  const size_t in_groups = offset - offsetof(Station, groups);  // huge before them
  if (in_groups >= sizeof(Station::groups)) return name(in_station, offset);
  return name(in_group, in_groups % sizeof(ActorGroup)) + " of group " +
         std::to_string(in_groups / sizeof(ActorGroup));
}

}  // namespace

void begin_story() {
  std::destroy_at(&state);
  std::construct_at(&state);
  station_table_mutex = PTHREAD_MUTEX_INITIALIZER;
  memory_begin();
  make_thread("the main thread", main_thread, nullptr);
}

std::vector<ExternalEvent> find_events() {
  std::vector<ExternalEvent> deaths;
  for (size_t i = 0; i < state.children_made; ++i) {
    const Child& child = state.children[i];
    if (child.state != Child::runs) continue;
    const bool obeys = child.has_sigterm && !running_story.conditions.ignore_sigterm;
    if (!obeys && state.deaths >= running_story.conditions.deaths) continue;
    deaths.push_back({first_pid + static_cast<pid_t>(i), obeys || state.main_waits_for_pause});
  }
  return deaths;
}

void raise_event(int pid) {
  Child& child = child_of(pid);
  child.state = Child::dead;
  if (!child.has_sigterm) ++state.deaths;
  record_event(pid, {"dies", &child});
}

std::string describe(const Step& step) {
  const std::string name = name_of(step.object);
  if (name.empty()) return step.what;
  return strcmp(step.what, "dies") == 0 ? name + " dies" : step.what + (" " + name);
}

Child& child_of(pid_t pid) {
  return state.children[static_cast<size_t>(pid - first_pid)];
}

bool is_child(pid_t pid) {
  return pid >= first_pid && pid < first_pid + static_cast<pid_t>(most_children) &&
         child_of(pid).state != Child::none;
}

Supervisor* supervisor_of(const Thread* thread) {
  const auto found = std::ranges::find(state.supervisors, thread, &Supervisor::thread);
  return found == state.supervisors.end() ? nullptr : &*found;
}
