// SPDX-License-Identifier: MIT
// heap_test.cpp: what a child gets of the heap.
//
// What is left out of children stays so until the process ends, so each test runs in its own process. A
// sanitizer replaces the heap, so there are no tests under one.
#include "common/heap.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "common/stack-pool.h"
#include "tests/unit/fakes.h"

using testing::ExitedWithCode;

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

class HeapDeathTest : public FakedTest {
 protected:
  void SetUp() override {
    if (!stacks_stay_out_of_children) GTEST_SKIP() << "children get all memory";
  }

  /** A small block of the heap's growth, two pages or more above the last one. */
  static void* far_block() {
    static char* above = static_cast<char*>(sbrk(0));
    char* block = nullptr;
    do {
      block = static_cast<char*>(malloc(1000));
    } while (block < above);
    above = block + 2 * sysconf(_SC_PAGESIZE);
    return block;
  }

  /** Whether a child can read the first byte of each block, one bit for each. */
  static int blocks_in_a_child(const std::vector<void*>& blocks) {
    int ends[2];
    if (pipe(ends) != 0) _exit(99);
    void* const* first = blocks.data();  // the child may lack the vector's memory
    void* on_stack[8] = {};
    const size_t count = blocks.size();
    for (size_t i = 0; i < count; ++i) on_stack[i] = first[i];
    const pid_t child = fork_without_handlers();
    if (child == 0) {
      int there = 0;
      for (size_t i = 0; i < count; ++i) {
        if (write(ends[1], on_stack[i], 1) == 1) there |= 1 << i;
      }
      _exit(there);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
  }

  static pid_t fork_without_handlers();
};

pid_t HeapDeathTest::fork_without_handlers() {
#ifdef CORVANE_HAS__FORK
  return _Fork();
#else
  return fork();
#endif
}

}  // namespace

TEST_F(HeapDeathTest, a_child_gets_a_kept_block_and_no_later_growth) {
  EXPECT_EXIT(
      {
        heap_set_up();
        void* kept = far_block();
        heap_keep_for_children(kept, 1000);
        void* later = far_block();
        heap_leave_out_growth();
        _exit(blocks_in_a_child({kept, later}));
      },
      ExitedWithCode(1), "");
}

TEST_F(HeapDeathTest, a_child_gets_a_block_that_is_kept_later) {
  EXPECT_EXIT(
      {
        heap_set_up();
        void* kept = far_block();
        heap_keep_for_children(kept, 1000);
        void* between = far_block();
        heap_leave_out_growth();
        void* kept_later = far_block();
        if (heap_keep_for_children(kept_later, 1000) != 0) _exit(97);
        heap_leave_out_growth();
        _exit(blocks_in_a_child({kept, between, kept_later}));
      },
      ExitedWithCode(5), "");
}

TEST_F(HeapDeathTest, a_child_gets_the_whole_heap_before_a_block_is_kept) {
  EXPECT_EXIT(
      {
        heap_set_up();
        void* block = far_block();
        heap_leave_out_growth();
        _exit(blocks_in_a_child({block}));
      },
      ExitedWithCode(1), "");
}

TEST_F(HeapDeathTest, a_heap_that_was_not_set_up_is_left_unchanged) {
  EXPECT_EXIT(
      {
        fakes.madvise = [](void*, size_t, int) -> int { _exit(96); };
        void* kept = far_block();
        if (heap_keep_for_children(kept, 1000) != 0) _exit(97);
        void* later = far_block();
        heap_leave_out_growth();
        _exit(blocks_in_a_child({kept, later}));
      },
      ExitedWithCode(3), "");
}

TEST_F(HeapDeathTest, a_block_that_cannot_be_kept_is_an_error) {
  EXPECT_EXIT(
      {
        heap_set_up();
        heap_keep_for_children(far_block(), 1000);
        void* left_out = far_block();
        heap_leave_out_growth();
        fakes.madvise = [](void*, size_t, int) {
          errno = ENOMEM;
          return -1;
        };
        _exit(heap_keep_for_children(left_out, 1000) == -1 ? 0 : 1);
      },
      ExitedWithCode(0), "");
}

TEST_F(HeapDeathTest, threads_take_turns_to_advise) {
  EXPECT_EXIT(
      {
        static int holds = 0;
        static int advices = 0;
        fakes.seen_lock = [](pthread_mutex_t*) { ++holds; };
        fakes.seen_unlock = [](pthread_mutex_t*) { --holds; };
        fakes.madvise = [](void*, size_t, int) {
          if (holds != 1) _exit(97);
          ++advices;
          return 0;
        };
        heap_set_up();
        heap_keep_for_children(far_block(), 1000);
        void* later = far_block();
        heap_leave_out_growth();
        heap_keep_for_children(later, 1000);
        _exit(holds == 0 ? advices : 96);
      },
      ExitedWithCode(2), "");
}

TEST_F(HeapDeathTest, growth_that_cannot_be_left_out_is_left_out_at_the_next_fork) {
  EXPECT_EXIT(
      {
        heap_set_up();
        heap_keep_for_children(far_block(), 1000);
        void* later = far_block();
        fakes.madvise = [](void*, size_t, int) {
          errno = ENOMEM;
          return -1;
        };
        heap_leave_out_growth();
        const int first = blocks_in_a_child({later});
        fakes.madvise = nullptr;
        heap_leave_out_growth();
        _exit(first == 1 ? blocks_in_a_child({later}) : 97);
      },
      ExitedWithCode(0), "");
}

// The heap may shrink between the look at its end and the advice, and madvise(2) then advises what is left.
TEST_F(HeapDeathTest, a_block_is_kept_although_an_advice_that_failed_had_left_it_out) {
  EXPECT_EXIT(
      {
        heap_set_up();
        heap_keep_for_children(far_block(), 1000);
        void* left_out = far_block();
        fakes.madvise = [](void* where, size_t size, int advice) {
          __real_madvise(where, size, advice);
          errno = ENOMEM;
          return -1;
        };
        heap_leave_out_growth();
        fakes.madvise = nullptr;
        if (blocks_in_a_child({left_out}) != 0) _exit(97);
        if (heap_keep_for_children(left_out, 1000) != 0) _exit(96);
        heap_leave_out_growth();
        _exit(blocks_in_a_child({left_out}));
      },
      ExitedWithCode(1), "");
}

TEST_F(HeapDeathTest, a_block_that_begins_before_the_growth_and_ends_in_it_is_kept_completely) {
  EXPECT_EXIT(
      {
        heap_set_up();
        const char* growth = static_cast<char*>(sbrk(0));
        constexpr size_t size = 8192;
        char* across = nullptr;
        do {
          across = static_cast<char*>(malloc(size));
        } while (across + size <= growth);
        heap_keep_for_children(across, size);
        void* later = far_block();
        heap_leave_out_growth();
        _exit(across < growth ? blocks_in_a_child({across, across + size - 1, later}) : 97);
      },
      ExitedWithCode(3), "");
}

TEST_F(HeapDeathTest, a_heap_that_shrank_is_left_out_again_when_it_grows) {
  EXPECT_EXIT(
      {
        heap_set_up();
        heap_keep_for_children(far_block(), 1000);
        constexpr size_t size = 100000;
        constexpr int count = 160;  // 16 MB, four steps of growth
        void* blocks[count];
        for (void*& block : blocks) block = malloc(size);
        heap_leave_out_growth();
        const char* highest = static_cast<char*>(sbrk(0));
        for (void* block : blocks) free(block);
        if (sbrk(0) >= highest) _exit(97);
        heap_leave_out_growth();
        void* last = nullptr;
        for (void*& block : blocks) last = block = malloc(size);
        heap_leave_out_growth();
        _exit(blocks_in_a_child({last}));
      },
      ExitedWithCode(0), "");
}

TEST_F(HeapDeathTest, a_block_of_a_heap_that_shrank_below_its_first_size_is_kept) {
  EXPECT_EXIT(
      {
        mallopt(M_TOP_PAD, 16 * 1024 * 1024);  // as an administrator can set with MALLOC_TOP_PAD_
        const void* before = sbrk(0);
        while (sbrk(0) == before) far_block();
        const char* at_start = static_cast<char*>(sbrk(0));
        heap_set_up();
        void* volatile blocks[20];  // otherwise clang removes the calls
        for (void* volatile& block : blocks) block = malloc(100000);
        for (void* volatile& block : blocks) free(block);
        heap_keep_for_children(far_block(), 1000);
        heap_leave_out_growth();
        const char* shrunk = static_cast<char*>(sbrk(0));
        char* block = nullptr;
        do {
          block = static_cast<char*>(far_block());
        } while (block < shrunk);
        heap_leave_out_growth();
        if (block >= at_start) _exit(97);
        if (heap_keep_for_children(block, 1000) != 0) _exit(96);
        _exit(blocks_in_a_child({block}));
      },
      ExitedWithCode(1), "");
}

TEST_F(HeapDeathTest, keeping_a_block_below_the_heap_leaves_out_growth_only) {
  EXPECT_EXIT(
      {
        heap_set_up();
        static char below[1000];
        heap_keep_for_children(below, sizeof below);
        void* later = far_block();
        for (int i = 0; i < 20; ++i) later = malloc(100000);
        heap_leave_out_growth();
        _exit(blocks_in_a_child({below, later}));
      },
      ExitedWithCode(1), "");
}

#endif
