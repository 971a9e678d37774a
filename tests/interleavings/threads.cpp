// SPDX-License-Identifier: MIT
// threads.cpp: simulated threads, mutexes, condition variables, semaphores and sleeps.
//
// The linker sends the calls of display-manager.cpp here (ld(1), --wrap). The state of a lock is a number in
// its own memory. Zero is an unlocked mutex, a condition variable without a waiter, a semaphore that blocks.
#include <cerrno>

#include "tests/interleavings/memory.h"
#include "tests/interleavings/rules.h"

static constexpr int polls_for_the_worker = 100;  // max_taken_polls of display-manager.cpp
enum { cond_has_waiter = 1, cond_is_signalled = 2 };

// The number that is stored in a mutex while the running thread holds it.
static long holder() {
  return running_thread()->id + 1;
}

// Whether the main thread polls while no other thread gets a processor. Its calls are then no schedule
// points.
static bool polls_alone() {
  return running_story.conditions.is_worker_late && running_thread()->id == 0 && state.polls > 1;
}

static void schedule_unless_alone(const Step& step, const std::function<bool()>& can_run) {
  if (polls_alone() && can_run()) {
    record(step);
  } else {
    schedule(step, can_run);
  }
}

extern "C" {
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  memory_check(mutex, sizeof *mutex);
  if (mutex->__align == holder()) fail("a thread locks a mutex that it holds");
  schedule_unless_alone({"locks", mutex}, [mutex] { return mutex->__align == 0; });
  mutex->__align = holder();
  return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  memory_check(mutex, sizeof *mutex);
  schedule_unless_alone({"unlocks", mutex}, [] { return true; });
  if (mutex->__align != holder()) fail("a thread unlocks a mutex that it does not hold");
  mutex->__align = 0;
  return 0;
}

int __wrap_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  schedule({"waits on", cond});
  if (mutex->__align != holder()) fail("a thread waits without the mutex");
  record({"unlocks", mutex});
  mutex->__align = 0;
  cond->__align = cond_has_waiter;
  schedule({"is woken through", cond},
           [cond, mutex] { return cond->__align == cond_is_signalled && mutex->__align == 0; });
  record({"locks", mutex});
  cond->__align = 0;
  mutex->__align = holder();
  return 0;
}

int __wrap_pthread_cond_signal(pthread_cond_t* cond) {
  schedule({"signals", cond});
  const auto* station = reinterpret_cast<Station*>(reinterpret_cast<char*>(cond) - offsetof(Station, cond));
  if (station->events->next && state.polls < polls_for_the_worker)
    fail("a request is queued after one that the worker could have taken");
  state.polls = 0;
  if (cond->__align == cond_has_waiter) cond->__align = cond_is_signalled;
  return 0;
}

int __wrap_sem_init(sem_t* semaphore, int, unsigned value) {
  semaphore->__align = static_cast<long>(value);
  return 0;
}

int __wrap_sem_wait(sem_t* semaphore) {
  memory_check(semaphore, sizeof *semaphore);
  schedule({"takes", semaphore}, [semaphore] { return semaphore->__align > 0; });
  --semaphore->__align;
  return 0;
}

int __wrap_sem_post(sem_t* semaphore) {
  memory_check(semaphore, sizeof *semaphore);
  schedule({"posts", semaphore});
  ++semaphore->__align;
  return 0;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*), void* data) {
  schedule({"creates a thread", &state.threads, running_story.conditions.failing_thread != 0});
  Thread* self = running_thread();
  const bool is_worker = body == process_station_events;
  if (!is_worker) check_owed(self, a_new_thread);
  if (fails(&state.threads, running_story.conditions.failing_thread)) {
    self->owes =
        is_worker ? "{DM} Unable to start thread for display" : "{DM} Unable to start thread for event";
    return EAGAIN;
  }
  const int display = is_worker ? static_cast<Station*>(data)->display_num
                                : static_cast<ThreadStart*>(data)->event.display_num;
  Thread* made = make_thread("the worker of :" + std::to_string(display), body, data);
  *thread = static_cast<pthread_t>(made->id);
  if (is_worker) return 0;
  ExpectedStation& station = state.stations[static_cast<size_t>(display)];
  const ActorDefinition* actor = station.running().actor;
  if (static_cast<ThreadStart*>(data)->event.actor_code != actor->code) fail("requests run out of order");
  made->name = "thread " + std::to_string(state.threads) + " (" + actor->name +
               " on :" + std::to_string(display) + ")";
  if (body != method_start_thread) return 0;
  ExpectedGroup& group = station.running_group();
  group.newest = &state.supervisors.emplace_back(Supervisor{.group = &group, .thread = made});
  return 0;
}

int __wrap_usleep(useconds_t microseconds) {
  if (++state.polls == 1 || !polls_alone()) schedule_sleep(microseconds);
  return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
  if (seconds != 2) fail("a pause that does not last two seconds");
  supervisor_of(running_thread())->is_in_pause = state.pause_has_come = true;
  record({"begins its pause", supervision});
  schedule_sleep(uint64_t{seconds} * 1000 * 1000);
  return 0;
}
}
