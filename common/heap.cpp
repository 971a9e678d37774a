// SPDX-License-Identifier: MIT
// heap.cpp: why forks do not get slower with what dead threads have left on the heap.
//
// A thread that is never joined leaves some 300 bytes on the heap, which nothing uses any more: the C
// library's table of its thread-local variables. A fork copies the page tables of them all, by a third longer
// after 20,000 threads. So what the heap grows by is left out of children (madvise(2), MADV_DONTFORK). A
// child finds what stands below the last piece that was kept, and every piece that was kept later: its
// station. What else it needs is on the stack of the thread that forks, and its environment is older than
// every station.
//
// One heap for all threads: the main thread takes memory for every message, the others only a few times for
// an event or a launch, so that they seldom meet. A heap of its own for each would save hardly a wait, but
// every fork would copy all of them.
//
// Each step in which the heap grows is a mapping of its own, so the steps are large; they take no memory
// before it is used.
#include "common/heap.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "common/stack-pool.h"

static constexpr int growth_step = 4 * 1024 * 1024;

static pthread_mutex_t heap_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the one below
static uintptr_t
    left_out_to;  // children get no page that the heap has grown by up to here; 0: nothing is left out
static bool is_set_up = false;  // constant after heap_set_up

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
  is_set_up = true;
}

int heap_keep_for_children(void* memory, size_t size) {
  const auto begin = reinterpret_cast<uintptr_t>(memory);
  if (!is_set_up || begin >= heap_end()) return 0;
  const uintptr_t first_page = page_of(begin);
  const uintptr_t end = page_of(begin + size - 1) + page_size();
  int result = 0;
  pthread_mutex_lock(&heap_mutex);
  if (first_page < left_out_to) result = advise(first_page, end, MADV_DOFORK);
  if (end > left_out_to) left_out_to = end;
  pthread_mutex_unlock(&heap_mutex);
  return result;
}

void heap_leave_out_growth() {
  if (!is_set_up) return;
  pthread_mutex_lock(&heap_mutex);
  const uintptr_t end = page_of(heap_end());
  if (left_out_to != 0 && end > left_out_to && advise(left_out_to, end, MADV_DONTFORK) == 0)
    left_out_to = end;
  pthread_mutex_unlock(&heap_mutex);
}
