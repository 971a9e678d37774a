// SPDX-License-Identifier: MIT
// stack_pool_test.cpp: stacks in blocks that no child gets, and the fork whose child gets one of them.
//
// The pool lives until the process ends, so each test first takes the stacks that earlier ones left in it.
#include "common/stack-pool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "tests/unit/fakes.h"

namespace {

class StackPool : public FakedTest {
 protected:
  StackPool() {
    stack_return(stack_take());  // so that the pool has one
    fakes.mmap = [this](size_t size, int protection, int flags) {
      maps.push_back({size, protection, flags});
      if (no_memory) return MAP_FAILED;
      return __real_mmap64(nullptr, size, protection, flags, -1, 0);
    };
  }

  /** Takes every free stack and then the first one of a new block, which it returns. */
  char* first_of_a_new_block() {
    maps.clear();
    char* stack = nullptr;
    while (maps.empty()) stack = static_cast<char*>(stack_take());
    return stack;
  }

  /** Runs `body` on a new thread on a pool stack and waits for its end. */
  static void run_on(void* on, void* (*body)(void*), void* data) {
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, on, pool_stack_size);
    ASSERT_EQ(pthread_create(&thread, &attributes, body, data), 0);
    pthread_attr_destroy(&attributes);
    pthread_join(thread, nullptr);
  }

  struct Map {
    size_t size;
    int protection;
    int flags;
  };
  std::vector<Map> maps;
  bool no_memory = false;
};

}  // namespace

TEST_F(StackPool, a_block_is_one_private_mapping_of_256_stacks_without_reserved_memory) {
  first_of_a_new_block();
  ASSERT_EQ(maps.size(), 1U);
  EXPECT_EQ(maps[0].size, 256 * pool_stack_size);
  EXPECT_EQ(maps[0].protection, PROT_READ | PROT_WRITE);
  EXPECT_EQ(maps[0].flags, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK);
}

TEST_F(StackPool, a_block_has_256_stacks_that_do_not_overlap) {
  char* const first = first_of_a_new_block();
  for (size_t i = 1; i < 256; ++i) EXPECT_EQ(stack_take(), first + i * pool_stack_size) << i;
  EXPECT_EQ(maps.size(), 1U);
  EXPECT_NE(stack_take(), nullptr);
  EXPECT_EQ(maps.size(), 2U) << "the 257th stack is from the next block";
}

TEST_F(StackPool, a_stack_can_be_written_to_its_last_byte) {
  char* const stack = first_of_a_new_block();
  memset(stack, 's', pool_stack_size);
  EXPECT_EQ(stack[pool_stack_size - 1], 's');
}

TEST_F(StackPool, a_stack_has_64_kilobytes) {
#ifdef __SANITIZE_THREAD__
  EXPECT_EQ(pool_stack_size, 1048576U);
#else
  EXPECT_EQ(pool_stack_size, 65536U);
#endif
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(StackPool, threads_with_default_attributes_get_stacks_of_64_kilobytes_without_a_guard_mapping) {
  pthread_attr_t before;
  ASSERT_EQ(pthread_getattr_default_np(&before), 0);
  stack_set_defaults();
  std::pair<size_t, size_t> size_and_guard;
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* result) -> void* {
                  auto* of = static_cast<std::pair<size_t, size_t>*>(result);
                  pthread_attr_t attributes;
                  pthread_getattr_np(pthread_self(), &attributes);
                  pthread_attr_getstacksize(&attributes, &of->first);
                  pthread_attr_getguardsize(&attributes, &of->second);
                  pthread_attr_destroy(&attributes);
                  return nullptr;
                },
                &size_and_guard),
            0);
  pthread_join(thread, nullptr);
  EXPECT_EQ(pthread_setattr_default_np(&before), 0);
  EXPECT_EQ(size_and_guard, (std::pair<size_t, size_t>{65536, 0}));
}
#endif

TEST_F(StackPool, returned_stacks_are_taken_first) {
  char* const first = first_of_a_new_block();
  void* const second = stack_take();
  stack_return(first);
  stack_return(second);
  EXPECT_EQ((std::set<void*>{stack_take(), stack_take()}), (std::set<void*>{first, second}));
  EXPECT_EQ(stack_take(), first + 2 * pool_stack_size) << "each once";
}

TEST_F(StackPool, without_memory_for_a_block_there_is_no_stack_until_there_is_memory) {
  first_of_a_new_block();
  for (int i = 1; i < 256; ++i) stack_take();
  no_memory = true;
  EXPECT_EQ(stack_take(), nullptr);
  EXPECT_EQ(stack_take(), nullptr);
  no_memory = false;
  EXPECT_NE(stack_take(), nullptr);
}

TEST_F(StackPool, taking_and_returning_hold_the_pools_mutex) {
  std::vector<pthread_mutex_t*> locks;
  fakes.seen_lock = [&](pthread_mutex_t* mutex) { locks.push_back(mutex); };
  fakes.mmap = [&](size_t, int, int) {
    EXPECT_NE(pthread_mutex_trylock(locks.back()), 0) << "also while a block is mapped";
    return MAP_FAILED;
  };
  std::vector<void*> taken;
  while (void* stack = stack_take()) taken.push_back(stack);
  EXPECT_EQ(locks.size(), taken.size() + 1);
  locks.clear();
  for (void* stack : taken) stack_return(stack);
  EXPECT_EQ(locks.size(), taken.size());
  EXPECT_EQ(std::set<pthread_mutex_t*>(locks.begin(), locks.end()).size(), 1U);
}

TEST_F(StackPool, a_whole_block_is_left_out_of_children_and_gets_no_huge_pages) {
  using Advices = std::vector<std::pair<size_t, int>>;
  Advices advices;
  fakes.madvise = [&](void* where, size_t size, int advice) {
    advices.push_back({size, advice});
    return __real_madvise(where, size, advice);
  };
  first_of_a_new_block();
  Advices expected;
  if (stacks_stay_out_of_children) expected.push_back({256 * pool_stack_size, MADV_DONTFORK});
  expected.push_back({256 * pool_stack_size, MADV_NOHUGEPAGE});
  EXPECT_EQ(advices, expected);
}

// ---- forks --------------------------------------------------------------------------------------------

namespace {

using Calls = std::vector<std::string>;

class StackFork : public StackPool {
 protected:
  StackFork() : stack(first_of_a_new_block()) {}

  void note_calls() {
    fakes.madvise = [this](void* where, size_t size, int advice) {
      EXPECT_EQ(where, stack);
      EXPECT_EQ(size, pool_stack_size);
      calls.push_back(advice == MADV_DOFORK ? "take in" : advice == MADV_DONTFORK ? "leave out" : "?");
      if (advice_fails) errno = ENOMEM;
      return advice_fails ? -1 : 0;
    };
    fakes.fork = [this] {
      calls.push_back("fork");
      return result;
    };
  }

  char* stack;
  Calls calls;
  pid_t result = 4711;
  bool advice_fails = false;
};

/** Whether the memory can be read, found out without a SIGSEGV. */
bool is_there(const void* memory) {
  int ends[2];
  if (pipe(ends) != 0) _exit(99);
  const bool is_read = write(ends[1], memory, 1) == 1;
  close(ends[0]);
  close(ends[1]);
  return is_read;
}

int handlers_run;

}  // namespace

TEST_F(StackFork, the_stack_is_taken_into_children_only_for_the_fork) {
  note_calls();
  for (const pid_t outcome : {4711, -1}) {
    calls.clear();
    result = outcome;
    EXPECT_EQ(stack_fork(stack), outcome);
    EXPECT_EQ(calls, stacks_stay_out_of_children ? (Calls{"take in", "fork", "leave out"}) : (Calls{"fork"}));
  }
}

TEST_F(StackFork, the_child_does_not_leave_out_its_stack) {
  note_calls();
  result = 0;
  EXPECT_EQ(stack_fork(stack), 0);
  EXPECT_EQ(calls.back(), "fork");
}

TEST_F(StackFork, a_stack_that_cannot_be_taken_into_the_child_is_a_failed_fork) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  note_calls();
  advice_fails = true;
  EXPECT_EQ(stack_fork(stack), -1);
  EXPECT_EQ(calls, (Calls{"take in"}));
}

TEST_F(StackFork, a_child_has_the_stack_of_the_forking_thread_and_no_other_of_the_pool) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  struct Family {
    char* own;
    char* other;
    int status;
  };
  Family family = {.own = stack, .other = static_cast<char*>(stack_take()), .status = -1};
  family.other[0] = 1;
  run_on(
      stack,
      [](void* data) -> void* {
        auto* of = static_cast<Family*>(data);
        const pid_t child = stack_fork(of->own);
        if (child == 0) _exit((is_there(of->own) ? 1 : 0) + (is_there(of->other) ? 2 : 0));
        waitpid(child, &of->status, 0);
        return nullptr;
      },
      &family);
  EXPECT_EQ(family.status, 1 << 8);
  EXPECT_EQ(family.other[0], 1) << "the parent keeps it";
}

TEST_F(StackFork, no_fork_handlers_run) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "fork handlers run";
  static const int registered = pthread_atfork([] { ++handlers_run; }, [] { ++handlers_run; }, nullptr);
  ASSERT_EQ(registered, 0);
  handlers_run = 0;
  run_on(
      stack,
      [](void* on) -> void* {
        const pid_t child = stack_fork(on);
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
        return nullptr;
      },
      stack);
  EXPECT_EQ(handlers_run, 0);
}

namespace {

constexpr int guard_install = 102;  // MADV_GUARD_INSTALL

/** A test that runs stack_prepare_own on a thread with a guard of `guard_size` bytes. */
class StackPrepareOwn : public StackPool {
 protected:
  void run_thread(size_t guard_size) {
    fakes.madvise = [this](void* where, size_t size, int advice) {
      advices.push_back({where, size, advice});
      if (advice != guard_install || kernel_knows_guards) return __real_madvise(where, size, advice);
      errno = EINVAL;
      return -1;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1024} * 1024);
    pthread_attr_setguardsize(&attributes, guard_size);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void* data) -> void* {
                    auto* self = static_cast<StackPrepareOwn*>(data);
                    pthread_attr_t own;
                    pthread_getattr_np(pthread_self(), &own);
                    void* lowest = nullptr;
                    pthread_attr_getstack(&own, &lowest, &self->stack_size);
                    pthread_attr_destroy(&own);
                    self->stack = static_cast<char*>(lowest);
                    stack_prepare_own();
                    self->guard_is_there = is_there(lowest);
                    self->next_page_is_there = is_there(self->stack + page_size);
                    return nullptr;
                  },
                  this),
              0);
    pthread_attr_destroy(&attributes);
    pthread_join(thread, nullptr);
  }

  struct Advice {
    void* where;
    size_t size;
    int advice;
    bool operator==(const Advice&) const = default;
  };
  /** Whether the advice leaves out the thread's stack, alone or with its neighbours. */
  bool leaves_out_stack(const Advice& advice) const {
    const auto* begin = static_cast<char*>(advice.where);
    return advice.advice == MADV_DONTFORK && begin <= stack && begin + advice.size >= stack + stack_size;
  }
  static inline const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::vector<Advice> advices;
  char* stack = nullptr;
  size_t stack_size = 0;
  bool kernel_knows_guards = true;
  bool guard_is_there = true;
  bool next_page_is_there = false;
};

}  // namespace

TEST_F(StackPrepareOwn, workers_stacks_are_in_children_while_a_worker_is_expected_and_left_out_if_it_fails) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  run_thread(0);
  advices.clear();
  stack_expect_worker();
  ASSERT_EQ(advices.size(), 1U);
  const Advice expecting = advices.back();
  EXPECT_EQ(expecting.advice, MADV_DOFORK);
  stack_expect_no_worker();
  ASSERT_EQ(advices.size(), 2U);
  EXPECT_EQ(advices.back(), (Advice{expecting.where, expecting.size, MADV_DONTFORK}));
}

TEST_F(StackPrepareOwn, adjacent_workers_stacks_are_left_out_of_children_as_one) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  char* const area = first_of_a_new_block();
  for (int i = 1; i < 6; ++i) stack_take();
  struct {
    size_t stack;         // the next worker's, as an index into the area
    size_t first, count;  // the stacks that are then left out
    const char* place;    // of the next worker's stack
  } const workers[] = {{3, 3, 1, "alone"},
                       {2, 2, 2, "below the last"},
                       {4, 2, 3, "above the last"},
                       {0, 0, 1, "alone again"},
                       {1, 0, 2, "above the new one"}};
  for (const auto& worker : workers) {
    advices.clear();
    fakes.madvise = [this](void* where, size_t size, int advice) {
      if (advice == MADV_DONTFORK) advices.push_back({where, size, advice});
      return 0;
    };
    run_on(
        area + worker.stack * pool_stack_size,
        [](void*) -> void* {
          stack_prepare_own();
          return nullptr;
        },
        nullptr);
    ASSERT_FALSE(advices.empty());
    EXPECT_EQ(advices.back(),
              (Advice{area + worker.first * pool_stack_size, worker.count * pool_stack_size, MADV_DONTFORK}))
        << "a stack " << worker.place;
  }
}

TEST_F(StackPrepareOwn, a_worker_whose_stack_is_not_adjacent_leaves_out_the_others_again) {
  if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  char* const area = first_of_a_new_block();
  for (int i = 1; i < 3; ++i) stack_take();
  fakes.madvise = [this](void* where, size_t size, int advice) {
    if (advice != guard_install) advices.push_back({where, size, advice});
    return 0;
  };
  static constexpr auto body = [](void*) -> void* {
    stack_prepare_own();
    return nullptr;
  };
  run_on(area, body, nullptr);
  stack_expect_worker();
  run_on(area + 2 * pool_stack_size, body, nullptr);
  ASSERT_GE(advices.size(), 3U);
  const std::vector<Advice> last(advices.end() - 3, advices.end());
  EXPECT_EQ(last, (std::vector<Advice>{{area, pool_stack_size, MADV_DOFORK},
                                       {area, pool_stack_size, MADV_DONTFORK},
                                       {area + 2 * pool_stack_size, pool_stack_size, MADV_DONTFORK}}));
}

TEST_F(StackPrepareOwn, a_stack_without_a_guard_gets_one_and_is_left_out_of_children) {
  run_thread(0);
  ASSERT_GE(advices.size(), 1U);
  EXPECT_EQ(advices.front(), (Advice{stack, page_size, guard_install}));
  EXPECT_EQ(leaves_out_stack(advices.back()), stacks_stay_out_of_children);
  EXPECT_FALSE(guard_is_there);
  EXPECT_TRUE(next_page_is_there);
}

TEST_F(StackPrepareOwn, on_a_kernel_without_guards_in_a_mapping_the_lowest_page_is_protected) {
  kernel_knows_guards = false;
  run_thread(0);
  EXPECT_FALSE(guard_is_there);
  EXPECT_TRUE(next_page_is_there);
}

TEST_F(StackPrepareOwn, a_stack_with_a_guard_of_the_c_library_is_only_left_out_of_children) {
  run_thread(page_size);
  for (const Advice& advice : advices) EXPECT_EQ(advice.advice, MADV_DONTFORK);
  EXPECT_EQ(!advices.empty() && leaves_out_stack(advices.back()), stacks_stay_out_of_children);
  EXPECT_TRUE(guard_is_there) << "its lowest page is usable";
}

TEST_F(StackPool, a_returned_stack_is_linked_under_the_pools_mutex) {
  no_memory = true;
  void* stack = stack_take();
  while (void* other = stack_take()) stack = other;
  void* at_lock = nullptr;
  void* taken = nullptr;
  *static_cast<void**>(stack) = this;
  fakes.seen_lock = [&](pthread_mutex_t*) {
    fakes.seen_lock = nullptr;
    at_lock = *static_cast<void**>(stack);
  };
  fakes.seen_unlock = [&](pthread_mutex_t* mutex) {
    fakes.seen_unlock = nullptr;
    pthread_mutex_unlock(mutex);
    taken = stack_take();  // as another thread would
    pthread_mutex_lock(mutex);
  };
  stack_return(stack);
  EXPECT_EQ(at_lock, this);
  EXPECT_EQ(taken, stack);
}
