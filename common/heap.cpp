// SPDX-License-Identifier: MIT
// heap.cpp: keeps forks fast although each dead thread leaves memory on the heap.
//
// A thread that is never joined leaves some 300 unused bytes on the heap: the C library's table of its
// thread-local variables. A fork copies the page tables of all of them, and after 20,000 threads a start and
// stop takes a fifth longer. So the growth of the heap is left out of children (madvise(2), MADV_DONTFORK). A
// child gets the heap as it was before that growth, and of the growth only the pieces that were kept: its
// station. Its arguments are on the stack of the thread that forks, its environment on the main thread's.
//
// All threads share one heap. They seldom wait for one another: the main thread allocates for every message,
// the others only a few times for an event or a launch. A heap for each thread would save hardly any wait,
// and every fork would copy all heaps.
//
// Each step by which the heap grows is a separate mapping, so the steps are large. They take no memory until
// it is used. A fixed step also keeps blocks of 128 KiB and more in separate mappings (mallopt(3)).
#include "common/heap.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "common/stack-pool.h"

static constexpr int growth_step = 4 * 1024 * 1024;

static uintptr_t growth_begin;  // constant after heap_set_up; 0: nothing is ever left out

// All growth below this address has been left out or kept; 0: nothing is left out.
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
  growth_begin = page_of(heap_end() + page_size() - 1);
}

int heap_keep_for_children(void* memory, size_t size) {
  const auto begin = reinterpret_cast<uintptr_t>(memory);
  if (growth_begin == 0 || begin >= heap_end()) return 0;  // a separate mapping
  const uintptr_t first_page = page_of(begin);
  const uintptr_t end = page_of(begin + size - 1) + page_size();
  int result = 0;
  pthread_mutex_lock(&heap_mutex);
  // Also above left_out_to: an advice that failed may have left out a part of its range (madvise(2)).
  if (left_out_to != 0) result = advise(first_page, end, MADV_DOFORK);
  left_out_to = std::max({left_out_to, end, growth_begin});  // children get all of the heap below its growth
  pthread_mutex_unlock(&heap_mutex);
  return result;
}

void heap_leave_out_growth() {
  if (growth_begin == 0) return;
  pthread_mutex_lock(&heap_mutex);
  const uintptr_t end = page_of(heap_end());
  if (left_out_to != 0) {
    if (end < left_out_to) left_out_to = end;  // the heap has shrunk and will grow again from here
    if (end > left_out_to && advise(left_out_to, end, MADV_DONTFORK) == 0) left_out_to = end;
  }
  pthread_mutex_unlock(&heap_mutex);
}
