// SPDX-License-Identifier: MIT
// rules.cpp: the daemon's decisions, followed by its messages, and a transcript for each kind of thread.
#include "tests/interleavings/rules.h"

#include <cstdlib>
#include <map>
#include <optional>
#include <regex>
#include <set>

#include "tests/interleavings/memory.h"

namespace {

constexpr const char* transcript_of_main =
    "(station thread for :\\d exists.\n|Start a new station thread for :\\d\n"
    "(\\{DM\\} Unable to start thread for display=\\d, rc=11\n)?|"
    "\\{DM\\} Unable to find station entry for display \\d\n)*";
constexpr const char* transcript_of_worker =
    "Thread for Display \\d started...\n("
    "group:\\d, is_running:1\nSub thread of actor group for \\d is already running.\n|"
    "group:\\d, is_running:0\nStart method_start_thread for actor:\\d\n"
    "(\\{DM\\} Unable to start thread for event:\\d\n)?|"
    "proc_method_stop\n(\\{DM\\} sub process is not running\n|proc_method_stop: child_pid \\d+\n))*";
constexpr const char* transcript_of_supervisor =
    "method_start_thread\\(\\) for actor_code:\\d, display_num:\\d\n"
    "((\\{DM\\} method_start_thread\\(\\): .*\n)+DISPLAY=:\\d, actor_code=\\d, child=(\\d+)\n"
    "Child process died: \\3\n)*"
    "(keep_alive field is FALSE. Exit from the current thread\n|"
    "(\\{DM\\} method_start_thread\\(\\): .*\n)*"
    "Another process on the same actor group has been started: -?\\d+. Exit from the current thread\n|"
    "\\{DM\\} Unable to allocate memory\n|"
    "(\\{DM\\} method_start_thread\\(\\): .*\n)+(DISPLAY=:\\d, actor_code=\\d, child=\\d+\n|"
    "\\{DM\\} Unable to create child process. Login thread for display \\d\n))";
constexpr const char* transcript_of_group_0 =
    "init_group_thread\\(\\) for actor_code:1, display_num:\\d\n"
    "No action needed for INIT_STATION. display_num: \\d\n";

// The number that follows this beginning of a message.
std::optional<int> number_after(std::string_view beginning, std::string_view message) {
  if (!message.starts_with(beginning)) return {};
  return static_cast<int>(strtol(message.data() + beginning.size(), nullptr, 10));
}

// Between a fault and its message, a group may count as running or as idle.
void check_is_supervised(const ExpectedGroup& group, const char* failure) {
  if (!group.newest || !group.newest->runs_or_will() || group.newest->has_failed) fail(failure);
}
void check_is_idle(const ExpectedGroup& group, const char* failure) {
  if (group.newest && group.newest->runs_or_will() && !group.newest->met_fault) fail(failure);
}

void begin_request(ExpectedStation& station, Action action) {
  if (station.begun == station.accepted.size()) fail("a request runs twice");
  if (station.accepted[station.begun++].action != action) fail("requests run out of order");
}

void check_stop(ExpectedGroup& group, pid_t child) {
  check_is_supervised(group, "a stop of a group that does not run");
  Supervisor& stopped = *group.newest;
  if (stopped.child != child) fail("a stop of a child that is not the group's last");
  stopped.is_stopped = true;
  stopped.may_launch = stopped.has_reaped;
  stopped.must_launch = stopped.is_in_pause;
  stopped.launched_after_stop = false;
  group.keep_alive = group.child_pid = 0;
}

// Whether the last child exists, running or dead. Another thread's child may have its pid.
bool has_child(const Supervisor& self) {
  return is_child(self.child) && child_of(self.child).parent == self.thread;
}

void check_transcript(const Thread& thread) {
  static std::map<const char*, std::set<std::string>> known;
  const char* const expected = thread.id == 0                          ? transcript_of_main
                               : thread.body == process_station_events ? transcript_of_worker
                               : thread.body == method_start_thread    ? transcript_of_supervisor
                                                                       : transcript_of_group_0;
  if (known[expected].contains(thread.log)) return;
  if (!std::regex_match(thread.log, std::regex(expected)))
    report("the log of " + thread.name + " is:\n" + thread.log);
  known[expected].insert(thread.log);
}

// A worker must wait for requests. A supervisor may wait for its child. All other threads must have ended.
void check_thread(const Thread& thread) {
  check_transcript(thread);
  if (thread.owes) report(thread.name + " never did this: " + thread.owes);
  const std::string_view step = thread.next.what;
  const Supervisor* self = supervisor_of(&thread);
  const bool waits_for_child = self && step == "sees the death of" && has_child(*self);
  const bool is_right = thread.body == process_station_events
                            ? !thread.has_ended && step == "is woken through"
                            : thread.has_ended || waits_for_child;
  if (!is_right)
    report(thread.name + " is blocked, or has ended too early. Its last step: " + thread.next.what);
}

void check_group(const ActorGroup& group, const ExpectedGroup& expected) {
  const Supervisor* last = expected.newest && !expected.newest->met_fault ? expected.newest : nullptr;
  if (last) {
    const bool runs = has_child(*last) && !child_of(last->child).has_sigterm;
    if (!last->is_stopped && !runs) report("an accepted start has no child");
    if (runs && !last->runs_or_will()) report("a child outlives its stop");
    if (last->must_launch && !last->launched_after_stop)
      report("a stop in the pause prevents the next launch");
  }
  if (group.is_running.load() != (last && last->runs_or_will() ? 1 : 0))
    report("is_running is wrong at the end");
  if (group.keep_alive.load() != expected.keep_alive) report("keep_alive is wrong at the end");
  if (group.child_pid.load() != expected.child_pid) report("child_pid is wrong at the end");
}

}  // namespace

void check_owed(Thread* thread, std::string_view what) {
  if (thread->owes && !what.starts_with(thread->owes))
    fail(thread->name + " must do this first: " + thread->owes);
  thread->owes = nullptr;
}

void check_decision(ExpectedStation& station, std::string_view message) {
  if (const auto group = number_after("group:", message)) {
    begin_request(station, Action::start);
    if (*group != station.running().actor->group) fail("requests run out of order");
  } else if (message == "proc_method_stop") {
    begin_request(station, Action::stop);
  } else if (message.starts_with("Sub thread of actor group")) {
    check_is_supervised(station.running_group(), "a start is refused although the group does not run");
  } else if (message.starts_with("Start method_start_thread")) {
    running_thread()->owes = a_new_thread;
    if (station.running().actor->group == 0) return;
    check_is_idle(station.running_group(), "a group that runs is started again");
    station.running_group().keep_alive = 1;
  } else if (message == "{DM} sub process is not running") {
    check_is_idle(station.running_group(), "a stop finds no child although the group runs");
  } else if (const auto child = number_after("proc_method_stop: child_pid ", message)) {
    check_stop(station.running_group(), *child);
  }
}

void check_launch(Supervisor& self, pid_t child) {
  if (&self != self.group->newest) fail("a thread launches in a group that belongs to a newer thread");
  if (self.is_stopped && !self.may_launch) fail("a launch after a stop");
  if (self.is_stopped && self.launched_after_stop) fail("a second launch after a stop in the pause");
  for (const Child& other : state.children) {
    if (other.state == Child::runs && other.group == self.group && !other.has_sigterm)
      fail("two supervised children of one group");
  }
  self.has_reaped = self.is_in_pause = false;
  self.launched_after_stop = self.is_stopped;
  self.child = self.group->child_pid = child;
}

void check_end() {
  for (const Thread* thread : all_threads()) check_thread(*thread);
  for (const ExpectedStation& station : state.stations) {
    if (station.begun != station.accepted.size()) report("an accepted request never runs");
  }
  for (const Station* station = state.context.stations; station; station = station->next) {
    if (!memory_is_in_use(station, sizeof *station)) return report("a station is listed that was freed");
    const auto& expected = state.stations[static_cast<size_t>(station->display_num)].groups;
    for (size_t i = 0; i < expected.size(); ++i) check_group(station->groups[i], expected[i]);
  }
}
