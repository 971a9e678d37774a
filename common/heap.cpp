// SPDX-License-Identifier: MIT
// heap.cpp: why forks do not get slower with what dead threads have left on the heap.
//
// A thread that is never joined leaves some 300 bytes on the heap, which nothing uses any more: the C
// library's table of its thread-local variables. A fork copies the page tables of them all, which makes a
// start and stop a fifth longer after 20,000 threads. So what the heap grows by is left out of children
// (madvise(2), MADV_DONTFORK). A child finds the heap below the first growth that was left out, and every
// piece above that was kept: its station. What else it needs is on the stack of the thread that forks, and
// its environment on the main thread's.
//
// One heap for all threads: the main thread takes memory for every message, the others only a few times for
// an event or a launch, so that they seldom meet. A heap of its own for each would save hardly a wait, but
// every fork would copy all of them.
//
// Each step in which the heap grows is a mapping of its own, so the steps are large; they take no memory
// before it is used. A fixed step also keeps blocks of 128 KiB and more in mappings of their own
// (mallopt(3)).
#include "common/heap.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "common/stack-pool.h"

static constexpr int growth_step = 4 * 1024 * 1024;

static uintptr_t begin_of_growth;  // constant after heap_set_up; 0: nothing is ever left out

// All that the heap has grown by is left out or kept up to here; 0: nothing is left out.
static uintptr_t left_out_to;
static pthread_mutex_t heap_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards left_out_to

static uintptr_t page_size() {
  return static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
}
static uintptr_t page_of(uintptr_t address) {
  return address & ~(page_size() - 1);
}
static uintptr_t heap_end() {
  return reinterpret_cast<uintptr_t>(sbrk(0));
}

static int advise(uintptr_t begin, uintptr_t end, int advice) {
  return madvise(reinterpret_cast<void*>(begin), end - begin, advice);  // NOLINT(performance-no-int-to-ptr)
}

void heap_set_up() {
  mallopt(M_ARENA_MAX, 1);
  if (!stacks_stay_out_of_children) return;
  mallopt(M_TOP_PAD, growth_step);
  begin_of_growth = page_of(heap_end() + page_size() - 1);
}

int heap_keep_for_children(void* memory, size_t size) {
  const auto begin = reinterpret_cast<uintptr_t>(memory);
  if (begin_of_growth == 0 || begin >= heap_end()) return 0;  // a mapping of its own
  const uintptr_t first_page = page_of(begin);
  const uintptr_t end = page_of(begin + size - 1) + page_size();
  int result = 0;
  pthread_mutex_lock(&heap_mutex);
  if (first_page < left_out_to) result = advise(first_page, end, MADV_DOFORK);
  left_out_to = std::max({left_out_to, end, begin_of_growth});  // below the growth, children get everything
  pthread_mutex_unlock(&heap_mutex);
  return result;
}

void heap_leave_out_growth() {
  if (begin_of_growth == 0) return;
  pthread_mutex_lock(&heap_mutex);
  const uintptr_t end = page_of(heap_end());
  if (left_out_to != 0 && end < left_out_to)
    left_out_to = end;  // it has shrunk, and will grow again from here
  if (left_out_to != 0 && end > left_out_to && advise(left_out_to, end, MADV_DONTFORK) == 0)
    left_out_to = end;
  pthread_mutex_unlock(&heap_mutex);
}
