// SPDX-License-Identifier: MIT
// children.cpp: simulated processes: fork, wait and kill.
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "common/signals.h"
#include "common/stack-pool.h"
#include "tests/interleavings/rules.h"

void signals_give_back() {}

pid_t stack_fork(void*) {
  schedule({"forks", supervision});
  Thread* thread = running_thread();
  Supervisor* self = supervisor_of(thread);
  if (fails(&state.forks, running_story.conditions.failing_fork)) {
    self->met_fault = true;
    self->group->child_pid = -1;
    thread->owes = "{DM} Unable to create child process";
    return -1;
  }
  pid_t pid = first_pid;
  if (running_story.conditions.reuse_pids) {
    while (is_child(pid)) ++pid;
  } else {
    pid += static_cast<pid_t>(state.children_made);
  }
  if (++state.children_made > most_children) fail("the story forks too many children");
  check_launch(*self, pid);
  child_of(pid) = {.parent = thread, .group = self->group, .state = Child::runs};
  record({"begins", &child_of(pid)});
  return pid;
}

// Returns when the child is dead.
static void wait_for_death(const char* what, pid_t pid) {
  schedule({what, &child_of(pid)}, [pid] { return child_of(pid).state != Child::runs; });
}

extern "C" {
int __wrap_waitid(idtype_t, id_t id, siginfo_t*, int options) {
  const auto pid = static_cast<pid_t>(id);
  if (!is_child(pid)) fail("a thread waits for a process that is not a child");
  wait_for_death("sees the death of", pid);
  if (child_of(pid).state == Child::none) fail("a thread waits for a process that is no longer a child");
  if ((options & WNOWAIT) == 0) child_of(pid).state = Child::none;
  return 0;
}

pid_t __wrap_waitpid(pid_t pid, int*, int) {
  if (!is_child(pid)) {
    errno = ECHILD;
    return -1;
  }
  wait_for_death("reaps", pid);
  record({"reaps", supervision});
  supervisor_of(running_thread())->has_reaped = true;
  child_of(pid).state = Child::none;
  return pid;
}

int __wrap_kill(pid_t pid, int sig) {
  schedule({"signals", is_child(pid) ? &child_of(pid) : nullptr});
  if (!is_child(pid)) fail("process " + std::to_string(pid) + " gets a signal but is not a child");
  if (sig != SIGTERM) fail("a signal other than SIGTERM");
  const auto* station = static_cast<Station*>(running_thread()->data);
  if (child_of(pid).group != &state.stations[static_cast<size_t>(station->display_num)].running_group())
    fail("a child of another group gets a signal");
  child_of(pid).has_sigterm = true;
  return 0;
}
}
