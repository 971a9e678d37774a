// SPDX-License-Identifier: MIT
// dm_supervision_test.cpp: the thread that launches an actor, waits for it and relaunches it.
//
// The thread's body runs on the test's thread. Fork, waits, signals and pauses are faked; a fake also does
// what another thread would do during its call. The last tests use real children. tests/interleavings
// explores how the threads of a station interact.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "common/signals.h"
#include "common/stack-pool.h"
#include "tests/unit/dm_support.h"

using Words = std::vector<std::string>;

namespace {

using MethodStartThread = OneStationTest;

}  // namespace

// ---- method_start_thread: early exits -----------------------------------------------------------------

TEST_F(MethodStartThread, it_exits_without_its_station_which_it_looks_up_before_the_actor) {
  MemoryBook memory;
  supervise(99, 1, 4);
  EXPECT_EQ(log.lines(), thread_lines({"method_start_thread() for actor_code:99, display_num:4",
                                       "{DM} Unable to find station info for display 4"}));
  EXPECT_EQ(value_of(station.launched), 1);
  EXPECT_EQ(memory.blocks_left(), 0U) << "the copy is freed";
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(MethodStartThread, it_exits_without_its_actor) {
  supervise(99);
  EXPECT_EQ(log.lines(), thread_lines({"method_start_thread() for actor_code:99, display_num:3",
                                       "{DM} Unable to find ACTOR definition for 99"}));
  EXPECT_EQ(value_of(station.launched), 1);
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(MethodStartThread, it_exits_in_a_running_group_even_if_the_actor_has_no_program) {
  for (const int actor : {4, 1}) {
    group = dm_find_actor(actor)->group;
    claim();
    entry().is_running = 1;
    entry().child_pid = 99;
    log.forget();
    supervise(actor);
    EXPECT_EQ(log.lines(),
              thread_lines(
                  {"method_start_thread() for actor_code:" + std::to_string(actor) + ", display_num:3",
                   "{DM} Sub thread of actor group for " + std::to_string(group) + " is already running."}));
    EXPECT_EQ(entry().is_running, 1);
    EXPECT_EQ(entry().child_pid, 99);
  }
  EXPECT_EQ(value_of(station.launched), 2);
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(MethodStartThread, it_exits_if_the_actor_has_no_program) {
  supervise(1);
  EXPECT_EQ(log.lines(), thread_lines({"method_start_thread() for actor_code:1, display_num:3",
                                       "{DM} No program specified in argv."}));
  EXPECT_EQ(value_of(station.launched), 1);
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(MethodStartThread, only_an_is_running_of_1_prevents_the_launch) {
  claim();
  entry().is_running = 2;
  on_wait = [&] { entry().keep_alive = 0; };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711"}));
}

TEST_F(MethodStartThread, without_memory_for_the_vector_it_exits_and_the_group_becomes_idle) {
  claim();
  MemoryBook memory;
  memory.fail_strdup(1);
  supervise(2);
  EXPECT_EQ(log.lines(), thread_lines({"method_start_thread() for actor_code:2, display_num:3",
                                       "{DM} Unable to allocate memory"}));
  EXPECT_EQ(value_of(station.launched), 1);
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(memory.blocks_left(), 0U);
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(MethodStartThread, without_memory_for_a_relaunch_the_group_becomes_idle) {
  claim();
  MemoryBook memory;
  memory.fail_strdup(4);  // the first vector has three copies
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711", "sleep 2"}));
  EXPECT_EQ(entry().is_running, 0);
}

TEST_F(MethodStartThread, the_copy_is_freed_before_the_first_line_and_the_vector_before_the_launch_line) {
  claim();
  MemoryBook memory;
  std::vector<size_t> lines_at_free;
  const auto book_free = fakes.free;
  fakes.free = [&](void* block) {
    lines_at_free.push_back(log.lines().size());
    book_free(block);
  };
  on_wait = [&] {
    EXPECT_EQ(memory.sizes_left(), (std::vector<size_t>{}));
    EXPECT_EQ(memory.texts_left(), (Words{"DISPLAY"})) << "while the child lives";
    entry().keep_alive = 0;
  };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711"}));
  EXPECT_EQ(lines_at_free, (std::vector<size_t>{0, 3, 3})) << "the copy, then the two logged arguments";
}

TEST_F(MethodStartThread, the_reaping_of_an_older_child_does_not_mark_a_newer_one_as_reaped) {
  claim();
  on_wait = [&] {
    entry().newest = 2;
    entry().child_pid = 5000;
  };
  supervise(2);
  EXPECT_FALSE(entry().child_reaped);
}

TEST_F(MethodStartThread, it_exits_after_a_failed_fork_and_a_stop_then_signals_nothing) {
  group = 3;
  claim();
  fork_fails = true;
  MemoryBook memory;
  size_t blocks_at_last_line = 0;
  fakes.time = [&] {  // read for each line
    blocks_at_last_line = memory.blocks_left();
    return time_t{1};
  };
  supervise(7);
  EXPECT_EQ(log.lines(),
            thread_lines({"method_start_thread() for actor_code:7, display_num:3",
                          "{DM} method_start_thread(): corvane-xh", "{DM} method_start_thread(): -display",
                          "{DM} method_start_thread(): :3",
                          "{DM} Unable to create child process. Login thread for display 3"}));
  EXPECT_EQ(value_of(station.launched), 1);
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(entry().child_pid, -1);
  EXPECT_EQ(memory.blocks_left(), 0U) << "the vector is freed";
  EXPECT_GT(blocks_at_last_line, 0U) << "only after the failure is logged";
  stop(7);
  EXPECT_EQ(log.lines().back(), dm_line("proc_method_stop", "{DM} sub process is not running"));
  EXPECT_EQ(calls, (Calls{"fork"})) << "kill(-1) would signal every process";
}

TEST_F(MethodStartThread, a_failed_fork_is_logged_and_makes_the_group_idle_under_one_hold_of_the_mutex) {
  claim();
  on_sleep = [&] { fork_fails = true; };
  bool has_failed = false;
  on_fork = [&] { has_failed = fork_fails; };
  int running_at_the_line = -1;
  bool held_at_the_line = false;
  fakes.time = [&] {  // read for each line
    running_at_the_line = entry().is_running;
    held_at_the_line = is_held(child_mutex());
    return time_t{1};
  };
  std::vector<int> running_at_unlock;
  fakes.seen_unlock = [&](pthread_mutex_t* mutex) {
    if (mutex == &child_mutex() && has_failed) running_at_unlock.push_back(entry().is_running);
  };
  supervise(2);
  fakes.seen_unlock = nullptr;
  EXPECT_EQ(log.lines().back(), dm_line("method_start_thread",
                                        "{DM} Unable to create child process. "
                                        "Login thread for display 3"));
  EXPECT_EQ(running_at_the_line, 1);
  EXPECT_TRUE(held_at_the_line);
  EXPECT_EQ(running_at_unlock, (std::vector<int>{0}));
}

// ---- method_start_thread: launches --------------------------------------------------------------------

TEST_F(MethodStartThread, a_child_is_launched_waited_for_and_not_relaunched_after_a_stop) {
  claim();
  on_wait = [&] { stop(2); };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "kill 4711 15", "reap 4711"}));
  Lines expected = thread_lines({"method_start_thread() for actor_code:2, display_num:3",
                                 "{DM} method_start_thread(): corvane-ls", "{DM} method_start_thread(): :3",
                                 "DISPLAY=:3, actor_code=2, child=4711"});
  expected.push_back(dm_line("proc_method_stop", "proc_method_stop"));
  expected.push_back(dm_line("proc_method_stop", "proc_method_stop: child_pid 4711"));
  expected.push_back(dm_line("method_start_thread", "Child process died: 4711"));
  expected.push_back(
      dm_line("method_start_thread", "keep_alive field is FALSE. Exit from the current thread"));
  EXPECT_EQ(log.lines(), expected);
  EXPECT_EQ(entry().is_running, 0);
  EXPECT_EQ(entry().child_pid, 0);
  EXPECT_EQ(value_of(station.launched), 1);
}

TEST_F(MethodStartThread, the_worker_continues_after_the_launch_line) {
  claim();
  int posts_before_the_line = -1;
  fakes.time = [&] {  // read for each line
    if (log.lines().size() == 3) posts_before_the_line = value_of(station.launched);
    return time_t{1};
  };
  on_wait = [&] { entry().keep_alive = 0; };
  supervise(2);
  EXPECT_EQ(log.lines().at(3), dm_line("method_start_thread", "DISPLAY=:3, actor_code=2, child=4711"));
  EXPECT_EQ(posts_before_the_line, 0);
  EXPECT_EQ(value_of(station.launched), 1);
}

TEST_F(MethodStartThread, it_forks_on_its_own_stack) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "a child has all stacks";
  claim();
  fakes.madvise = [&](void* where, size_t size, int advice) {
    EXPECT_EQ(where, stack);
    EXPECT_EQ(size, pool_stack_size);
    calls.push_back(advice == MADV_DOFORK ? "take in" : advice == MADV_DONTFORK ? "leave out" : "?");
    return 0;
  };
  on_wait = [&] { entry().keep_alive = 0; };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"take in", "fork", "leave out", "wait 4711", "reap 4711"}));
}

TEST_F(MethodStartThread, a_child_that_dies_is_relaunched_after_2_seconds) {
  claim();
  on_wait = [&, deaths = 0]() mutable {
    EXPECT_FALSE(entry().child_reaped);
    EXPECT_EQ(entry().child_pid, 4711 + deaths);
    if (++deaths == 3) entry().keep_alive = 0;
  };
  on_sleep = [&] {
    EXPECT_EQ(entry().is_running, 1) << "so that a start in the pause is refused";
    EXPECT_TRUE(entry().child_reaped);
  };
  MemoryBook memory;
  supervise(3);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711", "sleep 2", "fork", "wait 4712", "reap 4712",
                          "sleep 2", "fork", "wait 4713", "reap 4713"}));
  EXPECT_EQ(value_of(station.launched), 1) << "posted at the first launch only";
  EXPECT_EQ(memory.texts_left(), (Words{"DISPLAY", "DISPLAY", "DISPLAY"})) << "the rest is freed";
  Lines expected = thread_lines({"method_start_thread() for actor_code:3, display_num:3"});
  for (const char* child : {"4711", "4712", "4713"}) {
    for (const std::string& message :
         {std::string("{DM} method_start_thread(): corvane-ls"),
          std::string("{DM} method_start_thread(): :3"), std::string("{DM} method_start_thread(): -query"),
          std::string("{DM} method_start_thread(): localhost"),
          std::string("DISPLAY=:3, actor_code=3, child=") + child,
          std::string("Child process died: ") + child})
      expected.push_back(dm_line("method_start_thread", message));
  }
  expected.push_back(
      dm_line("method_start_thread", "keep_alive field is FALSE. Exit from the current thread"));
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(MethodStartThread, waits_that_are_interrupted_or_fail_are_retried) {
  claim();
  fakes.waitid = [wait = fakes.waitid, failures = std::vector{EINVAL, EINTR}](
                     idtype_t type, id_t id, siginfo_t* info, int options) mutable {
    if (failures.empty()) return wait(type, id, info, options);
    errno = failures.back();
    failures.pop_back();
    return -1;
  };
  const auto reap = fakes.waitpid;
  fakes.waitpid = [&, interruptions = 0](pid_t pid, int* status, int options) mutable {
    calls.push_back("try");
    if (++interruptions <= 2) {
      errno = EINTR;
      return pid_t{-1};
    }
    return reap(pid, status, options);
  };
  on_wait = [&] { entry().keep_alive = 0; };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "try", "try", "try", "reap 4711"}));
}

TEST_F(MethodStartThread, a_child_that_was_already_reaped_counts_as_dead) {
  claim();
  fakes.waitid = [&](idtype_t, id_t id, siginfo_t*, int) {
    calls.push_back("wait " + std::to_string(id));
    entry().keep_alive = 0;
    errno = ECHILD;
    return -1;
  };
  fakes.waitpid = [&](pid_t pid, int*, int) {
    calls.push_back("reap " + std::to_string(pid));
    errno = ECHILD;
    return pid_t{-1};
  };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711"}));
  EXPECT_TRUE(entry().child_reaped);
}

// ---- method_start_thread: the order in which it checks the entry ---------------------------------------

TEST_F(MethodStartThread, a_cleared_keep_alive_is_noticed_before_a_newer_thread) {
  claim();
  on_wait = [&] {
    entry().newest = 2;
    entry().keep_alive = 0;
  };
  supervise(2);
  EXPECT_EQ(log.lines().back(),
            dm_line("method_start_thread", "keep_alive field is FALSE. Exit from the current thread"));
}

TEST_F(MethodStartThread, another_pid_in_the_entry_is_noticed_without_a_newer_thread) {
  claim();
  on_wait = [&, deaths = 0]() mutable {
    entry().child_pid = 0;
    if (++deaths == 2) entry().keep_alive = 0;  // ends a test that fails
  };
  supervise(2);
  EXPECT_EQ(calls, (Calls{"fork", "wait 4711", "reap 4711"})) << "no pause, no launch";
  EXPECT_EQ(log.lines().back(), dm_line("method_start_thread",
                                        "Another process on the same actor group has been started: 0. "
                                        "Exit from the current thread"));
}

// ---- the child ----------------------------------------------------------------------------------------

namespace {

/** A test with real children, which report through a pipe instead of executing an actor. */
class Child : public OneStationTest {
 public:
  Child() {
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fakes.fork = nullptr;
    fakes.waitid = nullptr;
    fakes.waitpid = [this](pid_t pid, int*, int options) { return __real_waitpid(pid, &status, options); };
    fakes.execvp = [this](const char* program, char* const* argv) {
      std::string text = std::string("execvp ") + program;
      for (char* const* word = argv; *word; ++word) text += std::string(" ") + *word;
      text += handler_of(SIGCHLD) == SIG_IGN ? " ignored" : " default";
      text += handler_of(SIGPIPE) == SIG_IGN ? " ignored" : " default";
      report(text);
      errno = ENOENT;
      return -1;
    };
    claim();
  }
  ~Child() override {
    close(ends[0]);
    close(ends[1]);
  }

  static sighandler_t handler_of(int number) {
    struct sigaction action;
    sigaction(number, nullptr, &action);
    return action.sa_handler;
  }
  void report(const std::string& text) {
    if (write(ends[1], text.data(), text.size()) < 0) abort();
  }
  std::string reports() {
    close(ends[1]);
    ends[1] = -1;
    std::string text;
    char part[256];
    for (ssize_t count; (count = read(ends[0], part, sizeof part)) > 0;)
      text.append(part, static_cast<size_t>(count));
    return text;
  }

  int ends[2] = {-1, -1};
  int status = -1;
};

}  // namespace

TEST_F(Child, it_executes_the_program_with_the_vector_and_the_original_signals) {
  const sighandler_t before = signal(SIGPIPE, SIG_DFL);
  signals_take_over();
  signal(SIGPIPE, SIG_IGN);  // as libdbus does
  on_sleep = [&] { entry().keep_alive = 0; };
  supervise(2);
  signal(SIGPIPE, before);
  const std::string one_child = "execvp corvane-ls corvane-ls :3 default default";
  EXPECT_EQ(reports(), one_child + one_child) << "one more launch follows the pause";
}

TEST_F(Child, if_the_program_cannot_be_executed_the_child_exits_at_once_with_0) {
  static Child* running;
  running = this;
  atexit([] {
    if (running) running->report("exit handlers ran");
  });
  bool in_pause = false;
  on_sleep = [&] {
    in_pause = true;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    entry().keep_alive = 0;
  };
  supervise(2);
  running = nullptr;
  EXPECT_TRUE(in_pause) << "and a relaunch follows";
  EXPECT_EQ(reports().find("exit handlers ran"), std::string::npos);
  EXPECT_EQ(log.lines().back(),
            dm_line("method_start_thread", "keep_alive field is FALSE. Exit from the current thread"));
}
