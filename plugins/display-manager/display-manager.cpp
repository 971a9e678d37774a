// SPDX-License-Identifier: MIT
// display-manager.cpp: stations, their workers, and the children they supervise.
//
// First come the stations and their queues (main thread, worker), then the launch and the supervision (group
// threads), and last the procedures of the events (worker), which make those threads. The idea is in
// display-manager.h: which threads run, who owns what, and what each lock guards.
#include "plugins/display-manager/display-manager.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/heap.h"
#include "common/logger.h"
#include "common/signals.h"
#include "common/stack-pool.h"
#include "common/verbose.h"

static constexpr unsigned restart_pause_seconds = 2;
static constexpr useconds_t ready_poll_microseconds = 500;
static constexpr useconds_t taken_poll_microseconds = 100;
static constexpr int max_taken_polls = 100;

pthread_mutex_t station_table_mutex;

namespace {

class MutexHold {
 public:
  explicit MutexHold(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~MutexHold() { pthread_mutex_unlock(&mutex_); }
  MutexHold(const MutexHold&) = delete;
  MutexHold& operator=(const MutexHold&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

// Lets the worker go on, once: at the thread's first launch, or else when the thread ends.
class LaunchNotice {
 public:
  explicit LaunchNotice(sem_t* launched) : launched_(launched) {}
  ~LaunchNotice() { give(); }
  LaunchNotice(const LaunchNotice&) = delete;
  LaunchNotice& operator=(const LaunchNotice&) = delete;

  void give() {
    if (launched_) sem_post(launched_);
    launched_ = nullptr;
  }

 private:
  sem_t* launched_;  // the station's
};

}  // namespace

// ---- stations and their queues ------------------------------------------------------------------------

// Walks the list without a lock. The main thread may unlink and free a station whose worker it could not
// make. That station is always the last one. Other threads look up only their own station, which comes before
// it.
//
// One Start looks its station up three times: to make it, to queue the event, and in the group's thread. Each
// of the three gets a display number and has its own line of the log for what it finds.
static Station* find_station(const PluginContext* context, int display_num) {
  Station* station = context->stations;
  while (station && station->display_num != display_num) station = station->next;
  return station;
}

// Returns null when memory is short.
static Station* new_station(const char* display, int display_num, int station_type) {
  void* memory = malloc(sizeof(Station));
  if (!memory) return nullptr;
  TextOwner display_copy(strdup(display));
  if (!display_copy || heap_keep_for_children(memory, sizeof(Station)) != 0) {
    free(memory);
    return nullptr;
  }
  auto* station = new (memory) Station{};
  sem_init(&station->waiting, 0, 0);
  sem_init(&station->launched, 0, 0);
  station->display_num = display_num;
  station->display = display_copy.release();
  station->station_type = station_type;
  return station;
}

static void free_station(Station* station) {
  free(station->display);
  free(station);
}

static void link_station(PluginContext* context, Station* station) {
  const MutexHold hold(station_table_mutex);
  Station* tail = context->stations;
  if (!tail) {
    context->stations = station;
    return;
  }
  while (tail->next) tail = tail->next;
  station->prev = tail;
  tail->next = station;
}

static void unlink_station(PluginContext* context, Station* station) {
  const MutexHold hold(station_table_mutex);
  Station* next = station->next;
  if (next) next->prev = station->prev;
  if (station->prev) {
    station->prev->next = next;
  } else {
    context->stations = next;
  }
}

int dm_start_station_thread(PluginContext* context, const char* display, int display_num, int station_type) {
  if (find_station(context, display_num)) {
    log_debug("station thread for :%d exists.\n", display_num);
    return 0;
  }
  log_debug("Start a new station thread for :%d\n", display_num);
  Station* station = new_station(display, display_num, station_type);
  if (!station) {
    log_debug("{DM} Unable to allocate memory.\n");
    return -1;
  }
  link_station(context, station);
  stack_expect_worker();
  const int rc = pthread_create(&station->thread, nullptr, process_station_events, station);
  if (rc != 0) {
    stack_expect_no_worker();
    log_debug("{DM} Unable to start thread for display=%d, rc=%d\n", display_num, rc);
    unlink_station(context, station);
    free_station(station);
    return -1;
  }
  if (verbose) {
    int position = 0;
    for (const Station* listed = context->stations; listed; listed = listed->next) {
      log_debug("#%d station: display_num=%d, type=%d\n", ++position, listed->display_num,
                listed->station_type);
    }
  }
  return 0;
}

EventOwner dm_new_event(PluginContext* context, int kind) {
  EventOwner event(static_cast<StationEvent*>(malloc(sizeof(StationEvent))));
  if (event) {
    event->kind = kind;
    event->context = context;
    event->next = nullptr;
  }
  return event;
}

// The caller holds the station's mutex, before and after. Lets the worker take each queued event before the
// next one is queued. Otherwise the main thread would take the mutex again before the worker has woken: a
// burst could queue hundreds of events, and the call after them would wait for all their launches. This way
// no call waits for more than one launch, unless the worker gets no processor for ten milliseconds: then the
// next event is queued after the first, and the worker runs both.
static void let_worker_take(Station* station) {
  for (int polls = 0; station->events && polls < max_taken_polls; ++polls) {
    pthread_mutex_unlock(&station->mutex);
    usleep(taken_poll_microseconds);
    pthread_mutex_lock(&station->mutex);
  }
}

// Waits for a new worker on `waiting` first, so that the first look at `ready` succeeds: a look that came too
// early would cost the caller 500 microseconds.
static void wait_for_worker(Station* station) {
  while (!station->was_waiting) station->was_waiting = sem_wait(&station->waiting) == 0;
  while (station->ready == 0) usleep(ready_poll_microseconds);
}

int add_station_event(EventOwner& event, int display_num) {
  Station* station = find_station(event->context, display_num);
  if (!station) {
    log_debug("{DM} Unable to find station entry for display %d\n", display_num);
    return -1;
  }
  wait_for_worker(station);
  pthread_mutex_lock(&station->mutex);
  let_worker_take(station);
  StationEvent** end = &station->events;
  while (*end) end = &(*end)->next;
  *end = event.release();
  pthread_cond_signal(&station->cond);
  pthread_mutex_unlock(&station->mutex);
  return 0;
}

void* process_station_events(void* worker_station) {
  auto* station = static_cast<Station*>(worker_station);
  stack_prepare_own();
  log_debug("Thread for Display %d started...\n", station->display_num);
  const MutexHold hold(station->mutex);
  for (bool is_first_wait = true;; is_first_wait = false) {
    station->ready = 1;
    if (is_first_wait) sem_post(&station->waiting);
    // Waits once, without a look at the queue: no event can be queued before the wait.
    pthread_cond_wait(&station->cond, &station->mutex);
    while (station->events) {
      const EventOwner event(station->events);
      station->events = event->next;
      event->proc(station, event.get());
    }
  }
}

// ---- supervision --------------------------------------------------------------------------------------

// An argument vector on the stack. Of the heap, only the stations are certain to be in the child: it stores
// the result of the fork there.
struct ChildArguments {
  char texts[max_arguments][argument_size];
  char* vector[max_arguments + 1];
};

static void copy_arguments(char* const* argv, ChildArguments& copy) {
  int count = 0;
  for (; argv[count]; ++count) {
    text_format(copy.texts[count], argument_size, "%s", argv[count]);
    copy.vector[count] = copy.texts[count];
  }
  copy.vector[count] = nullptr;
}

// The child's side of a launch, which makes only async-signal-safe calls. If the program cannot be run, the
// child ends without flushing the daemon's buffers or running its exit handlers.
[[noreturn]] static void run_actor(char* const* argv) {
  signals_give_back();
  execvp(argv[0], argv);
  _exit(0);
}

// Forks and records the child. The caller holds the group's mutex. Returns the child's pid; or -1 when the
// fork failed, and the caller then marks the group idle; or 0 when a thread newer than `number` owns the
// group: then only that thread may launch.
static pid_t launch(ActorGroup& group, unsigned number, void* stack, char* const* argv) {
  if (group.newest != number) return 0;
  ChildArguments copy;
  copy_arguments(argv, copy);
  heap_leave_out_growth();
  const pid_t child = stack_fork(stack);
  group.child_pid = child;
  if (child == 0) run_actor(copy.vector);
  if (child > 0) group.is_running = 1;
  group.child_reaped = false;
  return child;
}

// Waits for the child's death and only then reaps it, under the lock. Until it is reaped, the system does not
// reuse its pid. A stop that comes later finds child_reaped and does not signal the pid.
static void reap(ActorGroup& group, pid_t child) {
  siginfo_t death;
  // Retries on every error except ECHILD, so that the wait under the lock below is short.
  while (waitid(P_PID, static_cast<id_t>(child), &death, WEXITED | WNOWAIT) != 0 && errno != ECHILD) {
  }
  const MutexHold hold(group.child_mutex);
  if (group.child_pid == child) group.child_reaped = true;
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Marks the group idle, unless a newer thread owns it by now.
static void mark_idle(ActorGroup& group, unsigned number) {
  const MutexHold hold(group.child_mutex);
  if (group.newest == number) group.is_running = 0;
}

void* method_start_thread(void* thread_start) {
  Owned<ThreadStart> start(static_cast<ThreadStart*>(thread_start));
  LaunchNotice notice(start->launched);
  const unsigned number = start->number;
  void* stack = start->stack;
  const int display_num = start->event.display_num;
  const int actor_code = start->event.actor_code;
  const PluginContext* context = start->event.context;
  start.reset();

  log_debug("method_start_thread() for actor_code:%d, display_num:%d\n", actor_code, display_num);
  Station* station = find_station(context, display_num);
  if (!station) {
    log_debug("{DM} Unable to find station info for display %d\n", display_num);
    return nullptr;
  }
  const ActorDefinition* actor = dm_find_actor(actor_code);
  if (!actor) {
    log_debug("{DM} Unable to find ACTOR definition for %d\n", actor_code);
    return nullptr;
  }
  ActorGroup& group = station->groups[actor->group];
  if (group.is_running == 1) {
    log_debug("{DM} Sub thread of actor group for %d is already running.\n", actor->group);
    return nullptr;
  }
  if (!actor->argv[0]) {
    log_debug("{DM} No program specified in argv.\n");
    return nullptr;
  }

  for (;;) {
    char* argv[max_arguments + 1];
    if (dm_expand_argv(actor, display_num, argv) != 0) {
      mark_idle(group, number);
      log_debug("{DM} Unable to allocate memory\n");
      return nullptr;
    }
    for (char** argument = argv; *argument; ++argument) {
      log_debug("{DM} method_start_thread(): %s\n", *argument);
    }
    pid_t child = 0;
    {
      const MutexHold hold(group.child_mutex);
      child = launch(group, number, stack, argv);
      if (child < 0) {
        log_debug("{DM} Unable to create child process. Login thread for display %d\n", display_num);
        group.is_running = 0;
      }
    }
    dm_free_argv(argv);
    if (child < 0) return nullptr;
    if (child > 0) {
      log_debug("DISPLAY=:%d, actor_code=%d, child=%d\n", display_num, actor_code, child);
      notice.give();
      reap(group, child);
      log_debug("Child process died: %d\n", child);
      if (group.keep_alive == 0) {
        log_debug("keep_alive field is FALSE. Exit from the current thread\n");
        return nullptr;
      }
    }
    // The pid alone is not enough: the system may have reused it for the child of a newer thread.
    if (group.newest != number || group.child_pid != child) {
      log_debug(
          "Another process on the same actor group has been started: %d. Exit from the current thread\n",
          group.child_pid.load());
      return nullptr;
    }
    sleep(restart_pause_seconds);
  }
}

void* init_group_thread(void* thread_start) {
  Owned<ThreadStart> start(static_cast<ThreadStart*>(thread_start));
  const LaunchNotice notice(start->launched);
  const int display_num = start->event.display_num;
  const int actor_code = start->event.actor_code;
  start.reset();

  log_debug("init_group_thread() for actor_code:%d, display_num:%d\n", actor_code, display_num);
  if (actor_code == init_station_code) {
    log_debug("No action needed for INIT_STATION. display_num: %d\n", display_num);
  } else {
    log_debug("Invalid actor code for INIT_GROUP: actor_code:%d, display_num:%d\n", actor_code, display_num);
  }
  return nullptr;
}

// Makes a thread on a stack from the pool. Returns 0 or an error number, like pthread_create(3).
static int create_group_thread(pthread_t* thread, void* (*body)(void*), ThreadStart* start) {
  start->stack = stack_take();
  if (!start->stack) return ENOMEM;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);  // on Linux it always succeeds (pthread_attr_init(3))
  // Cannot fail: stacks of the pool are aligned and larger than the least size (pthread_attr_setstack(3)).
  pthread_attr_setstack(&attributes, start->stack, pool_stack_size);
  const int rc = pthread_create(thread, &attributes, body, start);
  pthread_attr_destroy(&attributes);
  if (rc != 0) stack_return(start->stack);
  return rc;
}

void proc_method_start(Station* station, StationEvent* event) {
  Owned<ThreadStart> start(static_cast<ThreadStart*>(malloc(sizeof(ThreadStart))));
  if (!start) {
    log_debug("{DM} Unable to allocate memory\n");
    return;
  }
  *start = {.event = *event, .number = 0, .launched = &station->launched, .stack = nullptr};
  const ActorDefinition* actor = dm_find_actor(event->actor_code);
  if (!actor) {
    log_debug("{DM} Start: Unable to find right actor for actor type=%d\n", event->actor_code);
    return;
  }

  ActorGroup& group = station->groups[actor->group];
  int rc = 0;
  {
    // Tests and claims the group in one step. An older thread of the group may be about to launch again. If
    // it has launched before, this start is refused. If not, it will find that the group has a new owner. The
    // new thread's first launch waits until this hold ends.
    const MutexHold hold(group.child_mutex);
    log_debug("group:%d, is_running:%d\n", actor->group, group.is_running.load());
    if (group.is_running != 0) {
      log_debug("Sub thread of actor group for %d is already running.\n", actor->group);
      [[maybe_unused]] const ThreadStart* leaked = start.release();
      return;  // NOLINT(clang-analyzer-unix.Malloc): the copy of a refused start is deliberately never freed
    }
    log_debug("Start method_start_thread for actor:%d\n", event->actor_code);
    if (actor->group == 0) {
      rc = create_group_thread(&group.thread, init_group_thread, start.get());
    } else {
      group.keep_alive = 1;
      start->number = group.newest + 1;
      rc = create_group_thread(&group.thread, method_start_thread, start.get());
      if (rc == 0) ++group.newest;
    }
  }
  if (rc != 0) {
    log_debug("{DM} Unable to start thread for event:%d\n", event->actor_code);
    return;
  }
  [[maybe_unused]] const ThreadStart* handed_over = start.release();
  while (sem_wait(&station->launched) != 0) {
  }
}

void proc_method_stop(Station* station, StationEvent* event) {
  log_debug("proc_method_stop\n");
  const ActorDefinition* actor = dm_find_actor(event->actor_code);
  if (!actor) {
    log_debug("{DM} Stop: Unable to find right actor for actor type=%d\n", event->actor_code);
    return;
  }
  ActorGroup& group = station->groups[actor->group];
  const MutexHold hold(group.child_mutex);
  const pid_t child = group.child_pid;
  if (group.is_running == 0 || child == 0) {
    log_debug("{DM} sub process is not running\n");
    return;
  }
  log_debug("proc_method_stop: child_pid %d\n", child);
  group.keep_alive = 0;
  if (!group.child_reaped) kill(child, SIGTERM);
  group.is_running = 0;
  group.child_pid = 0;
}
