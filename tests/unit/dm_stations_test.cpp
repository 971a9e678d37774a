// SPDX-License-Identifier: MIT
// dm_stations_test.cpp: creating stations, queueing events, and the workers that run them.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "common/stack-pool.h"
#include "common/verbose.h"
#include "tests/unit/dm_support.h"

namespace {

/** A test whose stations have no workers: thread creation only records its arguments. */
class StartStationThread : public DisplayManagerTest {
 protected:
  StartStationThread() {
    fakes.pthread_create = [this](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                  void* data) {
      created.push_back({thread, attributes, body, static_cast<Station*>(data)});
      return result;
    };
    fakes.seen_lock = [this](pthread_mutex_t* mutex) {
      if (mutex == &station_table_mutex) lines_at_table_locks.push_back(log.lines().size());
    };
  }
  ~StartStationThread() override { free_stations(context); }

  int start(int display_num, int station_type = 1) {
    return dm_start_station_thread(&context, (":" + std::to_string(display_num)).c_str(), display_num,
                                   station_type);
  }

  /** The display numbers in list order. Checks the links in both directions. */
  std::vector<int> listed() const {
    std::vector<int> displays;
    const Station* before = nullptr;
    for (const Station* station = context.stations; station; station = station->next) {
      EXPECT_EQ(station->prev, before) << "the link before :" << station->display_num;
      displays.push_back(station->display_num);
      before = station;
    }
    return displays;
  }

  struct Created {
    pthread_t* thread;
    const pthread_attr_t* attributes;
    void* (*body)(void*);
    Station* station;
  };
  std::vector<Created> created;
  int result = 0;
  std::vector<size_t> lines_at_table_locks;
};

using NewEvent = DisplayManagerTest;
using AddStationEvent = OneStationTest;

}  // namespace

// ---- dm_start_station_thread --------------------------------------------------------------------------

TEST_F(StartStationThread, a_new_station_is_linked_before_its_worker_is_created) {
  const Station* listed_at_creation = nullptr;
  const auto create = fakes.pthread_create;
  fakes.pthread_create = [&](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                             void* data) {
    listed_at_creation = context.stations;
    return create(thread, attributes, body, data);
  };
  EXPECT_EQ(start(5, 2), 0);
  ASSERT_EQ(created.size(), 1U);
  Station* station = context.stations;
  EXPECT_EQ(listed_at_creation, station);
  EXPECT_EQ(created[0].station, station);
  EXPECT_EQ(created[0].thread, &station->thread);
  EXPECT_EQ(created[0].attributes, nullptr) << "workers have default attributes";
  EXPECT_EQ(created[0].body, process_station_events);
  EXPECT_EQ(lines_at_table_locks.size(), 1U);
  EXPECT_FALSE(is_held(station_table_mutex));
  EXPECT_EQ(log.lines(), dm_lines("dm_start_station_thread", {"Start a new station thread for :5"}));
}

TEST_F(StartStationThread, a_new_station_is_idle_and_has_the_given_values) {
  const char text[] = "host:5.1";
  EXPECT_EQ(dm_start_station_thread(&context, text, 5, 2), 0);
  Station* station = context.stations;
  EXPECT_EQ(station->display_num, 5);
  EXPECT_STREQ(station->display, "host:5.1");
  EXPECT_NE(station->display, text) << "a copy";
  EXPECT_EQ(station->station_type, 2);
  EXPECT_EQ(station->ready, 0);
  EXPECT_EQ(station->events, nullptr);
  EXPECT_EQ(station->prev, nullptr);
  EXPECT_EQ(station->next, nullptr);
  EXPECT_EQ(value_of(station->launched), 0);
  for (ActorGroup& entry : station->groups) {
    EXPECT_EQ(entry.is_running, 0);
    EXPECT_EQ(entry.keep_alive, 0);
    EXPECT_EQ(entry.child_pid, 0);
    EXPECT_EQ(entry.newest, 0U);
    EXPECT_FALSE(entry.child_reaped);
    EXPECT_FALSE(is_held(entry.child_mutex));
  }
  EXPECT_FALSE(is_held(station->mutex));
}

TEST_F(StartStationThread, an_existing_station_is_left_unchanged) {
  start(5, 2);
  log.forget();
  EXPECT_EQ(dm_start_station_thread(&context, "other:5", 5, 3), 0);
  EXPECT_EQ(created.size(), 1U);
  EXPECT_EQ(listed(), (std::vector<int>{5}));
  Station* station = context.stations;
  EXPECT_STREQ(station->display, ":5");
  EXPECT_EQ(station->station_type, 2);
  EXPECT_EQ(log.lines(), dm_lines("dm_start_station_thread", {"station thread for :5 exists."}));
  EXPECT_EQ(lines_at_table_locks.size(), 1U) << "lookups take no lock";
}

TEST_F(StartStationThread, new_stations_are_appended) {
  for (const int display_num : {5, 0, 2147483647, 1}) EXPECT_EQ(start(display_num), 0);
  EXPECT_EQ(listed(), (std::vector<int>{5, 0, 2147483647, 1}));
  for (const int display_num : {5, 0, 2147483647, 1}) EXPECT_EQ(start(display_num), 0);
  EXPECT_EQ(created.size(), 4U) << "each is found again";
}

TEST_F(StartStationThread, with_verbose_every_station_is_listed_from_1) {
  start(5, 2);
  verbose = 1;
  log.forget();
  start(0, 3);
  EXPECT_EQ(log.lines(), dm_lines("dm_start_station_thread",
                                  {"Start a new station thread for :0", "#1 station: display_num=5, type=2",
                                   "#2 station: display_num=0, type=3"}));
  log.forget();
  start(5);
  EXPECT_EQ(log.lines(), dm_lines("dm_start_station_thread", {"station thread for :5 exists."}))
      << "not for a station that exists";
}

TEST_F(StartStationThread, without_memory_for_the_record_or_the_display_nothing_is_left) {
  for (const bool has_record : {false, true}) {
    log.forget();
    MemoryBook memory;
    has_record ? memory.fail_strdup(1) : memory.fail_malloc(1);
    EXPECT_EQ(start(5), -1);
    EXPECT_EQ(memory.blocks_left(), 0U);
    EXPECT_EQ(created.size(), 0U);
    EXPECT_EQ(listed(), (std::vector<int>{}));
    EXPECT_EQ(log.lines(), dm_lines("dm_start_station_thread", {"Start a new station thread for :5",
                                                                "{DM} Unable to allocate memory."}));
  }
}

TEST_F(StartStationThread, a_station_without_a_worker_is_logged_and_then_unlinked_and_freed) {
  MemoryBook memory;
  verbose = 1;
  result = EAGAIN;
  EXPECT_EQ(start(5), -1);
  EXPECT_EQ(memory.blocks_left(), 0U);
  EXPECT_EQ(context.stations, nullptr);
  EXPECT_EQ(lines_at_table_locks, (std::vector<size_t>{1, 2})) << "when it is linked and when it is unlinked";
  EXPECT_FALSE(is_held(station_table_mutex));
  EXPECT_EQ(log.lines(),
            dm_lines("dm_start_station_thread", {"Start a new station thread for :5",
                                                 "{DM} Unable to start thread for display=5, rc=11"}));
}

TEST_F(StartStationThread, stations_are_linked_and_unlinked_under_the_tables_mutex) {
  using Displays = std::vector<int>;
  std::vector<Displays> at_lock;
  std::vector<Displays> at_unlock;
  fakes.seen_lock = [&](pthread_mutex_t* mutex) {
    if (mutex == &station_table_mutex) at_lock.push_back(listed());
  };
  fakes.seen_unlock = [&](pthread_mutex_t* mutex) {
    if (mutex == &station_table_mutex) at_unlock.push_back(listed());
  };
  start(1);
  start(2);
  result = EAGAIN;
  start(5);
  result = 0;
  start(5);
  fakes.seen_lock = fakes.seen_unlock = nullptr;
  EXPECT_EQ(at_lock, (std::vector<Displays>{{}, {1}, {1, 2}, {1, 2, 5}, {1, 2}}));
  EXPECT_EQ(at_unlock, (std::vector<Displays>{{1}, {1, 2}, {1, 2, 5}, {1, 2}, {1, 2, 5}}));
}

TEST_F(StartStationThread, if_a_worker_cannot_be_created_the_others_stacks_are_left_out_of_children_again) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  std::thread([] { stack_prepare_own(); }).join();  // a worker
  std::vector<int> advices;
  fakes.madvise = [&](void*, size_t, int advice) {
    advices.push_back(advice);
    return 0;
  };
  fakes.pthread_create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  EXPECT_EQ(dm_start_station_thread(&context, ":0", 0, 1), -1);
  EXPECT_EQ(advices, (std::vector<int>{MADV_DOFORK, MADV_DONTFORK}));
}

TEST_F(StartStationThread, unlinking_keeps_the_stations_after_it) {
  // In the daemon only the main thread links, so no station follows. The links must be right anyway.
  start(1);
  for (const bool with_station_before : {true, false}) {
    Station after = {};
    after.display_num = 9;
    Station* first = context.stations;
    if (!with_station_before) context.stations = nullptr;
    fakes.pthread_create = [&](pthread_t*, const pthread_attr_t*, void* (*)(void*), void* data) {
      auto* station = static_cast<Station*>(data);
      station->next = &after;
      after.prev = station;
      return EAGAIN;
    };
    EXPECT_EQ(start(5), -1);
    EXPECT_EQ(listed(), with_station_before ? (std::vector<int>{1, 9}) : (std::vector<int>{9}));
    context.stations = first;
    first->next = nullptr;
  }
}

// ---- events -------------------------------------------------------------------------------------------

TEST_F(NewEvent, its_kind_context_and_link_are_set) {
  const EventOwner event = dm_new_event(&context, 2);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->kind, 2);
  EXPECT_EQ(event->context, &context);
  EXPECT_EQ(event->next, nullptr);
}

TEST_F(NewEvent, without_memory_it_is_null_and_nothing_is_logged) {
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(dm_new_event(&context, 1), nullptr);
  EXPECT_EQ(log.text(), "");
}

TEST_F(AddStationEvent, without_a_station_the_event_stays_with_the_caller) {
  EventOwner event = dm_new_event(&context, 1);
  EXPECT_EQ(add_station_event(event, 4), -1);
  EXPECT_NE(event, nullptr);
  EXPECT_EQ(log.lines(), dm_lines("add_station_event", {"{DM} Unable to find station entry for display 4"}));
}

TEST_F(AddStationEvent, the_queue_is_first_in_first_out) {
  station.ready = 1;
  StationEvent* in_order[3];
  for (StationEvent*& queued : in_order) {
    EventOwner event = dm_new_event(&context, 1);
    queued = event.get();
    EXPECT_EQ(add_station_event(event, 3), 0);
    EXPECT_EQ(event, nullptr) << "the queue owns it";
  }
  for (StationEvent* queued : in_order) {
    const EventOwner event(station.events);
    ASSERT_EQ(event.get(), queued);
    station.events = event->next;
  }
  EXPECT_EQ(station.events, nullptr);
  EXPECT_EQ(log.text(), "");
}

TEST_F(AddStationEvent, a_ready_worker_is_signalled_once_under_the_stations_mutex_and_without_a_pause) {
  station.ready = 1;
  int signals = 0;
  fakes.pthread_cond_signal = [&](pthread_cond_t* condition) {
    EXPECT_EQ(condition, &station.cond);
    EXPECT_TRUE(is_held(station.mutex));
    EXPECT_NE(station.events, nullptr) << "signalled after the event is queued";
    ++signals;
    return 0;
  };
  fakes.usleep = [](useconds_t) {
    ADD_FAILURE() << "a pause";
    return 0;
  };
  EventOwner event = dm_new_event(&context, 1);
  add_station_event(event, 3);
  EXPECT_EQ(signals, 1);
  EXPECT_FALSE(is_held(station.mutex));
  free(station.events);
}

TEST_F(AddStationEvent, a_worker_that_is_not_ready_is_polled_every_500_microseconds) {
  std::vector<useconds_t> pauses;
  fakes.usleep = [&](useconds_t microseconds) {
    EXPECT_FALSE(is_held(station.mutex)) << "the worker needs the mutex to become ready";
    EXPECT_EQ(station.events, nullptr);
    pauses.push_back(microseconds);
    if (pauses.size() == 3) station.ready = 1;
    return 0;
  };
  EventOwner event = dm_new_event(&context, 1);
  EXPECT_EQ(add_station_event(event, 3), 0);
  EXPECT_EQ(pauses, (std::vector<useconds_t>{500, 500, 500}));
  free(station.events);
}

TEST_F(AddStationEvent, ready_is_first_read_when_the_worker_waits) {
  Calls waits;
  fakes.sem_wait = [&](sem_t* semaphore) {
    EXPECT_EQ(semaphore, &station.waiting);
    EXPECT_FALSE(is_held(station.mutex)) << "the worker needs the mutex to wait";
    waits.push_back("wait");
    if (waits.size() == 1) {
      errno = EINTR;
      return -1;
    }
    station.ready = 1;
    return __real_sem_wait(semaphore);
  };
  fakes.usleep = [&](useconds_t) {
    waits.push_back("pause");
    station.ready = 1;  // ends a test that fails
    return 0;
  };
  for (int i = 0; i < 2; ++i) {
    EventOwner event = dm_new_event(&context, 1);
    EXPECT_EQ(add_station_event(event, 3), 0);
    free(station.events);
    station.events = nullptr;
  }
  EXPECT_EQ(waits, (Calls{"wait", "wait"})) << "the first is interrupted, the second serves both events";
}

TEST_F(AddStationEvent, the_worker_may_take_a_queued_event_before_the_next_is_queued) {
  station.ready = 1;
  EventOwner taken = dm_new_event(&context, 1);
  station.events = taken.get();
  std::vector<useconds_t> pauses;
  fakes.usleep = [&](useconds_t microseconds) {
    EXPECT_FALSE(is_held(station.mutex)) << "the worker needs the mutex to take it";
    pauses.push_back(microseconds);
    if (pauses.size() == 3) station.events = nullptr;
    return 0;
  };
  EventOwner event = dm_new_event(&context, 1);
  const StationEvent* queued = event.get();
  EXPECT_EQ(add_station_event(event, 3), 0);
  EXPECT_EQ(pauses, (std::vector<useconds_t>{100, 100, 100}));
  EXPECT_EQ(station.events, queued);
  EXPECT_EQ(taken->next, nullptr) << "the worker owns it";
  EXPECT_FALSE(is_held(station.mutex));
  free(station.events);
}

TEST_F(AddStationEvent, after_ten_milliseconds_without_the_worker_the_event_is_queued_after_the_other) {
  station.ready = 1;
  EventOwner left = dm_new_event(&context, 1);
  station.events = left.get();
  int pauses = 0;
  fakes.usleep = [&](useconds_t) { return ++pauses, 0; };
  EventOwner event = dm_new_event(&context, 1);
  const StationEvent* queued = event.get();
  EXPECT_EQ(add_station_event(event, 3), 0);
  EXPECT_EQ(pauses, 100);
  EXPECT_EQ(station.events, left.get());
  EXPECT_EQ(left->next, queued);
  free(left->next);
}

TEST_F(AddStationEvent, the_station_is_found_among_others) {
  Station other = {};
  other.display_num = 4;
  other.ready = 1;
  sem_init(&other.waiting, 0, 1);
  station.next = &other;
  EventOwner event = dm_new_event(&context, 1);
  EXPECT_EQ(add_station_event(event, 4), 0);
  EXPECT_EQ(station.events, nullptr);
  EXPECT_NE(other.events, nullptr);
  free(other.events);
}

// ---- the worker ---------------------------------------------------------------------------------------

namespace {

class Worker : public WorkersTest {
 public:
  void make_station(int display_num) {
    ASSERT_EQ(dm_start_station_thread(&context, ":0", display_num, 1), 0);
    ASSERT_TRUE(log.wait_for(dm_line("process_station_events",
                                     "Thread for Display " + std::to_string(display_num) + " started...")));
  }

  Station* station_of(int display_num) {
    Station* station = context.stations;
    while (station->display_num != display_num) station = station->next;
    return station;
  }

  static void note(Station* station, StationEvent* event) {
    log_debug("event %d on :%d, mutex %s\n", event->actor_code, station->display_num,
              is_held(station->mutex) ? "held" : "free");
  }
  static std::string noted(int number, int display_num) {
    return "tests/unit/dm_stations_test.cpp:#:note: DEBUG: event " + std::to_string(number) +
           " on :" + std::to_string(display_num) + ", mutex held";
  }

  /** Queues events 1 to 3 for display 1, wakes its worker once, and returns the lines of the events. */
  Lines run_three_at_one_wake_up(void (*proc)(Station*, StationEvent*)) {
    let_workers_rest();
    log.forget();
    fakes.pthread_cond_signal = [](pthread_cond_t*) { return 0; };
    queue(1, 1, proc);
    queue(1, 2, proc);
    fakes.pthread_cond_signal = nullptr;
    queue(1, 3, proc);
    let_workers_rest();
    return log.lines();
  }
};

}  // namespace

TEST_F(Worker, it_prepares_its_stack_before_it_logs_its_start) {
  std::vector<std::pair<pthread_t, int>> advices;  // by the worker
  Lines lines_at_advice;
  const pthread_t main_thread = pthread_self();
  fakes.madvise = [&](void* where, size_t size, int advice) {
    if (!pthread_equal(pthread_self(), main_thread)) {
      advices.push_back({pthread_self(), advice});
      lines_at_advice = log.lines();
    }
    return __real_madvise(where, size, advice);
  };
  make_station(1);
  let_workers_rest();
  if (!stacks_stay_out_of_children) {
    EXPECT_EQ(advices.size(), 0U);
    return;
  }
  ASSERT_GE(advices.size(), 1U);
  EXPECT_TRUE(pthread_equal(advices.back().first, station_of(1)->thread));
  EXPECT_EQ(advices.back().second, MADV_DONTFORK);
  EXPECT_EQ(lines_at_advice, dm_lines("dm_start_station_thread", {"Start a new station thread for :1"}));
}

TEST_F(Worker, the_first_event_of_a_new_station_is_queued_without_a_pause_and_runs) {
  std::atomic<bool> may_start{false};
  fakes.seen_lock = [&](pthread_mutex_t* mutex) {
    const Station* station = context.stations;
    if (!station || mutex != &station->mutex || !pthread_equal(pthread_self(), station->thread)) return;
    while (!may_start) sched_yield();  // the worker is late
  };
  std::atomic<int> pauses{0};
  fakes.usleep = [&](useconds_t) {
    ++pauses;
    may_start = true;  // ends a test that fails
    return 0;
  };
  fakes.sem_wait = [&](sem_t* semaphore) {
    may_start = true;
    return __real_sem_wait(semaphore);
  };
  ASSERT_EQ(dm_start_station_thread(&context, ":1", 1, 1), 0);
  queue(1, 7, note);
  EXPECT_TRUE(log.wait_for(noted(7, 1)));
  EXPECT_EQ(pauses, 0);
  fakes.usleep = nullptr;
}

TEST_F(Worker, events_run_in_queue_order_under_the_stations_mutex) {
  make_station(1);
  log.forget();
  Lines expected;
  for (int number = 1; number <= 50; ++number) {
    queue(1, number, note);
    expected.push_back(noted(number, 1));
  }
  ASSERT_TRUE(log.wait_for(noted(50, 1)));
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(Worker, it_stays_ready_unlinks_each_event_before_its_procedure_and_frees_it_after_that) {
  make_station(1);
  static const MemoryBook* book;
  const MemoryBook memory;
  book = &memory;
  const Lines lines = run_three_at_one_wake_up([](Station* station, StationEvent* event) {
    const StationEvent* head = station->events;
    log_debug("%d of %zu, then %d, link %s, ready %d\n", event->actor_code, book->blocks_left(),
              head ? head->actor_code : 0, head == event->next ? "kept" : "lost", station->ready.load());
  });
  const std::string start = "tests/unit/dm_stations_test.cpp:#:operator(): DEBUG: ";
  EXPECT_EQ(lines,
            (Lines{start + "1 of 3, then 2, link kept, ready 1", start + "2 of 2, then 3, link kept, ready 1",
                   start + "3 of 1, then 0, link kept, ready 1"}));
  EXPECT_EQ(memory.blocks_left(), 0U);
}

TEST_F(Worker, it_logs_its_start_and_then_becomes_ready_under_the_stations_mutex) {
  std::atomic<int> ready_at_first_lock{-1};
  Lines lines_at_first_lock;
  fakes.seen_lock = [&](pthread_mutex_t* mutex) {
    Station* station = context.stations;
    if (!station || mutex != &station->mutex) return;
    int not_seen = -1;
    if (ready_at_first_lock.compare_exchange_strong(not_seen, station->ready))
      lines_at_first_lock = log.lines();
  };
  make_station(1);
  Station* station = station_of(1);
  while (station->ready == 0) usleep(500);
  EXPECT_EQ(ready_at_first_lock, 0);
  EXPECT_EQ(lines_at_first_lock,
            (Lines{dm_line("dm_start_station_thread", "Start a new station thread for :1"),
                   dm_line("process_station_events", "Thread for Display 1 started...")}));
  let_workers_rest();
  fakes.seen_lock = nullptr;
}
