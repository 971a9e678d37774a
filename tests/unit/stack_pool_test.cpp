// SPDX-License-Identifier: MIT
// stack_pool_test.cpp: stacks in blocks that a child process finds empty, but for the one that is kept.
//
// The pool lasts as long as the process, so each test first takes what earlier ones left in it.
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
    stack_return(stack_take());  // so that there is one to begin with
    fakes.mmap = [this](size_t size, int protection, int flags) {
      maps.push_back({size, protection, flags});
      if (no_memory) return MAP_FAILED;
      return __real_mmap64(nullptr, size, protection, flags, -1, 0);
    };
  }

  /** The first stack of a new block, the pool being empty behind the block. */
  char* first_of_a_new_block() {
    maps.clear();
    char* stack = nullptr;
    while (maps.empty()) stack = static_cast<char*>(stack_take());
    return stack;
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

TEST_F(StackPool, a_block_is_one_private_mapping_of_256_stacks_that_takes_memory_as_it_is_used) {
  first_of_a_new_block();
  ASSERT_EQ(maps.size(), 1U);
  EXPECT_EQ(maps[0].size, 256 * pool_stack_size);
  EXPECT_EQ(maps[0].protection, PROT_READ | PROT_WRITE);
  EXPECT_EQ(maps[0].flags, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK);
}

TEST_F(StackPool, a_block_gives_256_stacks_that_do_not_overlap) {
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

TEST_F(StackPool, stacks_have_64_kilobytes) {
#ifdef __SANITIZE_THREAD__
  EXPECT_EQ(pool_stack_size, 1048576U);
#else
  EXPECT_EQ(pool_stack_size, 65536U);
#endif
}

TEST_F(StackPool, stacks_that_were_given_back_are_taken_first) {
  char* const first = first_of_a_new_block();
  void* const second = stack_take();
  stack_return(first);
  stack_return(second);
  EXPECT_EQ((std::set<void*>{stack_take(), stack_take()}), (std::set<void*>{first, second}));
  EXPECT_EQ(stack_take(), first + 2 * pool_stack_size) << "each once";
}

TEST_F(StackPool, without_memory_for_a_block_there_is_no_stack_and_later_there_is) {
  first_of_a_new_block();
  for (int i = 1; i < 256; ++i) stack_take();
  no_memory = true;
  EXPECT_EQ(stack_take(), nullptr);
  EXPECT_EQ(stack_take(), nullptr);
  no_memory = false;
  EXPECT_NE(stack_take(), nullptr);
}

TEST_F(StackPool, taking_and_giving_back_leave_the_pool_to_other_threads) {
  stack_return(stack_take());
  void* taken = nullptr;
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* result) -> void* {
                  *static_cast<void**>(result) = stack_take();
                  return nullptr;
                },
                &taken),
            0);
  pthread_join(thread, nullptr);
  EXPECT_NE(taken, nullptr);
}

TEST_F(StackPool, taking_and_giving_back_hold_the_pools_mutex) {
  std::vector<pthread_mutex_t*> locks;
  fakes.seen_lock = [&](pthread_mutex_t* mutex) { locks.push_back(mutex); };
  fakes.mmap = [&](size_t, int, int) {
    EXPECT_NE(pthread_mutex_trylock(locks.back()), 0) << "also while a block is made";
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

TEST_F(StackPool, a_whole_block_is_left_empty_in_children_and_gets_no_huge_pages) {
  std::vector<std::pair<size_t, int>> advices;
  fakes.madvise = [&](void* where, size_t size, int advice) {
    advices.push_back({size, advice});
    return __real_madvise(where, size, advice);
  };
  first_of_a_new_block();
  EXPECT_EQ(advices, (std::vector<std::pair<size_t, int>>{{256 * pool_stack_size, MADV_WIPEONFORK},
                                                          {256 * pool_stack_size, MADV_NOHUGEPAGE}}));
}

TEST_F(StackPool, keeping_says_when_memory_is_short) {
  void* const stack = first_of_a_new_block();
  EXPECT_EQ(stack_keep_for_child(stack), 0);
  EXPECT_EQ(stack_keep_for_parent_only(stack), 0);
  for (const int error : {ENOMEM, EAGAIN}) {
    fakes.madvise = [error](void*, size_t, int) {
      errno = error;
      return -1;
    };
    EXPECT_EQ(stack_keep_for_child(stack), -1) << error;
    EXPECT_EQ(stack_keep_for_parent_only(stack), -1) << error;
  }
}

TEST_F(StackPool, a_kernel_that_knows_none_of_the_advice_is_no_failure) {
  fakes.madvise = [](void*, size_t, int) {
    errno = EINVAL;
    return -1;
  };
  void* const stack = first_of_a_new_block();
  EXPECT_NE(stack, nullptr);
  EXPECT_EQ(stack_keep_for_child(stack), 0);
  EXPECT_EQ(stack_keep_for_parent_only(stack), 0);
}

TEST_F(StackPool, an_older_error_is_not_taken_for_one_of_the_advice) {
  void* const stack = first_of_a_new_block();
  errno = ENOMEM;
  EXPECT_EQ(stack_keep_for_child(stack), 0);
  errno = ENOMEM;
  EXPECT_EQ(stack_keep_for_parent_only(stack), 0);
}

TEST_F(StackPool, a_child_finds_what_is_on_the_stack_that_is_kept_and_on_no_other) {
  char* const kept = first_of_a_new_block();
  char* const kept_no_longer = static_cast<char*>(stack_take());
  char* const other = static_cast<char*>(stack_take());
  ASSERT_EQ(stack_keep_for_child(kept), 0);
  ASSERT_EQ(stack_keep_for_child(kept_no_longer), 0);
  ASSERT_EQ(stack_keep_for_parent_only(kept_no_longer), 0);
  kept[pool_stack_size - 1] = 1;
  kept_no_longer[0] = 2;
  other[0] = 4;
  const pid_t child = fork();
  if (child == 0) _exit(kept[pool_stack_size - 1] + kept_no_longer[0] + other[0]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 1 << 8) << "the child must end by itself, with the sum of what it found";
}

// The C library's fork writes, in the child, to the neighbours of the forking thread in its list of threads.
TEST_F(StackPool, a_thread_among_others_can_fork) {
  struct Turn {
    void* stack;
    int status;
    sem_t go;
  };
  static constexpr auto body = [](void* data) -> void* {
    auto* turn = static_cast<Turn*>(data);
    while (sem_wait(&turn->go) != 0) {
    }
    stack_keep_for_child(turn->stack);
    const pid_t child = fork();
    if (child == 0) _exit(7);
    waitpid(child, &turn->status, 0);
    return nullptr;
  };
  Turn turns[3];
  pthread_t threads[3];
  for (int i = 0; i < 3; ++i) {
    turns[i] = {.stack = stack_take(), .status = -1, .go = {}};
    sem_init(&turns[i].go, 0, 0);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, turns[i].stack, pool_stack_size);
    ASSERT_EQ(pthread_create(&threads[i], &attributes, body, &turns[i]), 0);
    pthread_attr_destroy(&attributes);
  }
  for (int i = 0; i < 3; ++i) {
    sem_post(&turns[i].go);
    pthread_join(threads[i], nullptr);
    EXPECT_EQ(turns[i].status, 7 << 8);
  }
}

TEST_F(StackPool, a_stack_is_linked_while_the_pools_mutex_is_held) {
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
    taken = stack_take();  // as another thread does
    pthread_mutex_lock(mutex);
  };
  stack_return(stack);
  EXPECT_EQ(at_lock, this);
  EXPECT_EQ(taken, stack);
}
