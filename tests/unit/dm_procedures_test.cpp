// SPDX-License-Identifier: MIT
// dm_procedures_test.cpp: the event procedures on the station's worker, and the thread of group 0.
#include <cerrno>
#include <thread>

#include "common/stack-pool.h"
#include "tests/unit/dm_support.h"

namespace {

/** Thread creation only records its arguments, and posts the launch in the thread's place. */
class ProcMethodStart : public OneStationTest {
 protected:
  ProcMethodStart() {
    fakes.pthread_create = [this](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                  void* data) {
      EXPECT_TRUE(is_held(child_mutex())) << "from the check of the entry to its claim";
      EXPECT_NE(log.text().find("Start method_start_thread"), std::string::npos) << "logged before";
      threads.push_back({thread, body, {}, nullptr, 0});
      pthread_attr_getstack(attributes, &threads.back().stack, &threads.back().stack_size);
      if (result != 0) return result;
      Owned<ThreadStart> given(static_cast<ThreadStart*>(data));
      threads.back().start = *given;
      keep_alive_at_creation = entry().keep_alive;
      sem_post(given->launched);
      return 0;
    };
    fakes.sem_wait = [this](sem_t* semaphore) {
      EXPECT_EQ(semaphore, &station.launched);
      EXPECT_FALSE(is_held(child_mutex())) << "the thread needs the mutex to launch";
      calls.push_back("wait for the launch");
      return __real_sem_wait(semaphore);
    };
  }

  void start(int actor_code) {
    StationEvent event = event_for(actor_code);
    proc_method_start(&station, &event);
  }

  struct Thread {
    pthread_t* handle;
    void* (*body)(void*);
    ThreadStart start;
    void* stack;
    size_t stack_size;
  };
  std::vector<Thread> threads;
  int result = 0;
  int keep_alive_at_creation = -1;
};

using InitGroupThread = OneStationTest;
using ProcMethodStop = OneStationTest;

}  // namespace

// ---- init_group_thread --------------------------------------------------------------------------------

TEST_F(InitGroupThread, init_station_needs_no_action) {
  MemoryBook memory;
  std::vector<std::string> log_at_free;
  const auto book_free = fakes.free;
  fakes.free = [&](void* block) {
    log_at_free.push_back(log.text());
    book_free(block);
  };
  EXPECT_EQ(init_group_thread(new_start(1)), nullptr);
  EXPECT_EQ(memory.blocks_left(), 0U) << "the copy is freed";
  EXPECT_EQ(log_at_free, (std::vector<std::string>{""})) << "before the first line";
  EXPECT_EQ(value_of(station.launched), 1) << "posted once";
  EXPECT_EQ(station.groups[0].is_running, 0);
  EXPECT_EQ(log.lines(),
            dm_lines("init_group_thread", {"init_group_thread() for actor_code:1, display_num:3",
                                           "No action needed for INIT_STATION. display_num: 3"}));
}

TEST_F(InitGroupThread, any_other_actor_is_logged_as_invalid) {
  for (const int code : {0, 2, 7}) {
    log.forget();
    EXPECT_EQ(init_group_thread(new_start(code, 0, 4)), nullptr);
    EXPECT_EQ(log.lines(),
              dm_lines("init_group_thread",
                       {"init_group_thread() for actor_code:" + std::to_string(code) + ", display_num:4",
                        "Invalid actor code for INIT_GROUP: actor_code:" + std::to_string(code) +
                            ", display_num:4"}));
  }
  EXPECT_EQ(value_of(station.launched), 3) << "posted once each";
}

TEST_F(InitGroupThread, the_worker_continues_after_the_lines) {
  Lines at_post;
  std::thread waiting([&] {
    while (__real_sem_wait(&station.launched) != 0) {
    }
    at_post = log.lines();
  });
  init_group_thread(new_start(1));
  waiting.join();
  EXPECT_EQ(at_post.size(), 2U);
}

// ---- proc_method_start --------------------------------------------------------------------------------

TEST_F(ProcMethodStart, a_group_is_claimed_and_its_thread_gets_a_copy_of_the_event) {
  group = 2;
  MemoryBook memory;
  start(4);
  ASSERT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads[0].body, method_start_thread);
  EXPECT_EQ(threads[0].handle, &entry().thread);
  EXPECT_EQ(threads[0].start.number, 1U);
  EXPECT_EQ(threads[0].start.launched, &station.launched);
  EXPECT_EQ(threads[0].start.event.kind, 1);
  EXPECT_EQ(threads[0].start.event.display_num, 3);
  EXPECT_EQ(threads[0].start.event.actor_code, 4);
  EXPECT_EQ(threads[0].start.event.station_type, 1);
  EXPECT_EQ(threads[0].start.event.context, &context);
  EXPECT_EQ(keep_alive_at_creation, 1) << "set before the thread is created";
  EXPECT_EQ(entry().newest, 1U);
  EXPECT_EQ(entry().is_running, 0) << "only a launch sets it";
  EXPECT_EQ(memory.sizes_taken(), (std::vector<size_t>{sizeof(ThreadStart)}));
  EXPECT_EQ(memory.blocks_left(), 0U);
  EXPECT_EQ(log.lines(), dm_lines("proc_method_start",
                                  {"group:2, is_running:0", "Start method_start_thread for actor:4"}));
}

TEST_F(ProcMethodStart, it_returns_when_the_thread_has_launched_or_exited) {
  start(2);
  EXPECT_EQ(calls, (Calls{"wait for the launch"}));
  EXPECT_EQ(value_of(station.launched), 0) << "so that the next start waits again";
}

TEST_F(ProcMethodStart, an_interrupted_wait_for_the_launch_is_resumed) {
  int waits = 0;
  fakes.sem_wait = [&](sem_t* semaphore) {
    if (++waits <= 2) {
      errno = EINTR;
      return -1;
    }
    return __real_sem_wait(semaphore);
  };
  start(2);
  EXPECT_EQ(waits, 3);
  EXPECT_EQ(value_of(station.launched), 0);
}

TEST_F(ProcMethodStart, each_thread_gets_a_different_stack_of_the_pool_and_its_address) {
  for (const int code : {1, 2, 4, 7}) {
    group = dm_find_actor(code)->group;
    start(code);
    EXPECT_NE(threads.back().stack, nullptr) << code;
    EXPECT_EQ(threads.back().stack, threads.back().start.stack) << code;
    EXPECT_EQ(threads.back().stack_size, pool_stack_size) << code;
  }
  EXPECT_NE(threads[0].stack, threads[1].stack);
  EXPECT_NE(threads[1].stack, threads[2].stack);
  for (const Thread& thread : threads) stack_return(thread.stack);
}

TEST_F(ProcMethodStart, the_stack_of_a_failed_thread_is_reused_by_the_next) {
  result = EAGAIN;
  start(2);
  result = 0;
  start(2);
  EXPECT_EQ(threads[0].stack, threads[1].stack);
  stack_return(threads[1].stack);
}

TEST_F(ProcMethodStart, without_memory_for_a_stack_no_thread_is_created) {
  MemoryBook memory;
  const StackPoolRunDry dry;
  start(2);
  EXPECT_EQ(threads.size(), 0U);
  EXPECT_EQ(calls, (Calls{})) << "no wait";
  EXPECT_EQ(memory.blocks_left(), 0U) << "the copy is freed";
  EXPECT_EQ(log.lines().back(), dm_line("proc_method_start", "{DM} Unable to start thread for event:2"));
}

TEST_F(ProcMethodStart, each_thread_of_a_group_has_the_next_number) {
  start(2);
  start(3);
  group = 3;
  start(7);
  EXPECT_EQ(threads[0].start.number, 1U);
  EXPECT_EQ(threads[1].start.number, 2U) << "another actor of the same group";
  EXPECT_EQ(threads[2].start.number, 1U) << "another group";
  EXPECT_EQ(station.groups[1].newest, 2U);
}

TEST_F(ProcMethodStart, group_0_has_another_thread_body_and_is_never_claimed) {
  group = 0;
  entry().child_pid = 23;
  entry().newest = 24;
  start(1);
  ASSERT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads[0].body, init_group_thread);
  EXPECT_EQ(threads[0].handle, &entry().thread);
  EXPECT_EQ(threads[0].start.event.actor_code, 1);
  EXPECT_EQ(threads[0].start.launched, &station.launched);
  EXPECT_EQ(entry().keep_alive, 0);
  EXPECT_EQ(entry().child_pid, 23);
  EXPECT_EQ(entry().newest, 24U);
  EXPECT_EQ(calls, (Calls{"wait for the launch"}));
  EXPECT_EQ(log.lines(), dm_lines("proc_method_start",
                                  {"group:0, is_running:0", "Start method_start_thread for actor:1"}));
}

TEST_F(ProcMethodStart, a_start_of_a_running_group_is_refused_and_its_copy_is_not_freed) {
  for (const int running : {1, 2, -1}) {
    log.forget();
    entry().is_running = running;
    MemoryBook memory;
    start(2);
    EXPECT_EQ(memory.sizes_left(), (std::vector<size_t>{sizeof(ThreadStart)})) << "deliberately";
    EXPECT_EQ(log.lines(),
              dm_lines("proc_method_start", {"group:1, is_running:" + std::to_string(running),
                                             "Sub thread of actor group for 1 is already running."}));
  }
  EXPECT_EQ(threads.size(), 0U);
  EXPECT_EQ(calls, (Calls{})) << "no wait";
  EXPECT_EQ(entry().keep_alive, 0);
  EXPECT_EQ(entry().newest, 0U);
  EXPECT_FALSE(is_held(child_mutex()));
}

TEST_F(ProcMethodStart, an_unknown_actor_is_logged_and_the_copy_is_freed) {
  MemoryBook memory;
  start(99);
  EXPECT_EQ(memory.sizes_taken(), (std::vector<size_t>{sizeof(ThreadStart)}));
  EXPECT_EQ(memory.blocks_left(), 0U);
  EXPECT_EQ(threads.size(), 0U);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(log.lines(),
            dm_lines("proc_method_start", {"{DM} Start: Unable to find right actor for actor type=99"}));
}

TEST_F(ProcMethodStart, without_memory_for_the_copy_the_request_is_dropped) {
  MemoryBook memory;
  memory.fail_malloc(1);
  start(2);
  EXPECT_EQ(threads.size(), 0U);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(log.lines(), dm_lines("proc_method_start", {"{DM} Unable to allocate memory"}));
}

TEST_F(ProcMethodStart, a_thread_that_cannot_be_created_is_logged_and_not_waited_for) {
  for (const int code : {1, 2, 4, 7}) {
    group = dm_find_actor(code)->group;
    entry().child_pid = 23;
    entry().newest = 24;
    log.forget();
    MemoryBook memory;
    result = EAGAIN;
    start(code);
    EXPECT_EQ(memory.blocks_left(), 0U) << "the copy is freed";
    EXPECT_EQ(calls, (Calls{}));
    EXPECT_EQ(entry().is_running, 0);
    EXPECT_EQ(entry().keep_alive, group == 0 ? 0 : 1) << "set before the thread is created";
    EXPECT_EQ(entry().child_pid, 23);
    EXPECT_EQ(entry().newest, 24U) << "the group still belongs to its older thread";
    const std::string of_group = std::to_string(group);
    const std::string of_actor = std::to_string(code);
    EXPECT_EQ(log.lines(),
              dm_lines("proc_method_start", {"group:" + of_group + ", is_running:0",
                                             "Start method_start_thread for actor:" + of_actor,
                                             "{DM} Unable to start thread for event:" + of_actor}));
  }
}

TEST_F(ProcMethodStart, a_start_in_the_pause_without_a_thread_leaves_the_group_to_the_older_one) {
  claim();
  bool is_first_pause = true;
  on_sleep = [&] {
    if (!is_first_pause) return;
    is_first_pause = false;
    stop(2);
    result = EAGAIN;
    start(2);
  };
  on_wait = [&, deaths = 0]() mutable {
    if (++deaths == 3) stop(2);
  };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711", "sleep 2", "fork", "wait 4712", "reap 4712",
                          "sleep 2", "fork", "wait 4713", "kill 4713 15", "reap 4713"}));
}

// ---- proc_method_stop ---------------------------------------------------------------------------------

TEST_F(ProcMethodStop, a_running_child_gets_sigterm_and_the_group_becomes_idle) {
  claim();
  entry().is_running = 1;
  entry().child_pid = 4711;
  stop(2);
  EXPECT_EQ(calls, (Calls{"kill 4711 15"}));
  EXPECT_EQ(entry().keep_alive, 0);
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(entry().child_pid, 0);
  EXPECT_FALSE(is_held(child_mutex()));
  EXPECT_EQ(log.lines(),
            dm_lines("proc_method_stop", {"proc_method_stop", "proc_method_stop: child_pid 4711"}));
}

TEST_F(ProcMethodStop, keep_alive_is_cleared_after_the_lines_and_before_the_signal_whose_result_is_ignored) {
  claim();
  entry().is_running = 1;
  entry().child_pid = 4711;
  std::vector<int> kept_alive_at_lines;
  fakes.time = [&] {  // read for each line
    kept_alive_at_lines.push_back(entry().keep_alive);
    return time_t{1};
  };
  fakes.kill = [&](pid_t, int) {
    EXPECT_EQ(entry().keep_alive, 0);
    EXPECT_EQ(entry().is_running, 1);
    EXPECT_EQ(entry().child_pid, 4711);
    EXPECT_EQ(log.lines().size(), 2U);
    calls.push_back("kill");
    return -1;
  };
  stop(2);
  EXPECT_EQ(calls, (Calls{"kill"}));
  EXPECT_EQ(kept_alive_at_lines, (std::vector<int>{1, 1}));
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(entry().child_pid, 0);
}

TEST_F(ProcMethodStop, a_reaped_child_is_not_signalled) {
  claim();
  entry().is_running = 1;
  entry().child_pid = 4711;
  entry().child_reaped = true;
  stop(2);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(entry().keep_alive, 0);
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(entry().child_pid, 0);
  EXPECT_EQ(log.lines(),
            dm_lines("proc_method_stop", {"proc_method_stop", "proc_method_stop: child_pid 4711"}));
}

TEST_F(ProcMethodStop, a_group_that_is_idle_or_has_no_child_is_left_unchanged) {
  const struct {
    int is_running;
    pid_t child_pid;
  } cases[] = {{0, 0}, {0, 4711}, {1, 0}, {0, -1}};
  for (const auto& [is_running, child_pid] : cases) {
    log.forget();
    entry().keep_alive = 1;
    entry().is_running = is_running;
    entry().child_pid = child_pid;
    stop(2);
    EXPECT_EQ(log.lines(),
              dm_lines("proc_method_stop", {"proc_method_stop", "{DM} sub process is not running"}));
    EXPECT_EQ(entry().keep_alive, 1);
    EXPECT_EQ(entry().is_running, is_running);
    EXPECT_EQ(entry().child_pid, child_pid);
  }
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(ProcMethodStop, any_actor_of_a_group_stops_that_groups_child_only) {
  for (const int other : {1, 2, 3}) {
    station.groups[other].is_running = 1;
    station.groups[other].child_pid = 1000 + other;
  }
  group = 2;
  stop(6);
  EXPECT_EQ(calls, (Calls{"kill 1002 15"}));
  EXPECT_EQ(station.groups[1].is_running, 1);
  EXPECT_EQ(station.groups[2].is_running, 0);
  EXPECT_EQ(station.groups[3].is_running, 1);
}

TEST_F(ProcMethodStop, an_unknown_actor_is_logged) {
  entry().is_running = 1;
  entry().child_pid = 4711;
  stop(99);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(log.lines(),
            dm_lines("proc_method_stop",
                     {"proc_method_stop", "{DM} Stop: Unable to find right actor for actor type=99"}));
}
