// SPDX-License-Identifier: MIT
// stack-pool.cpp: why fork stays as fast after ten thousand threads as after one.
//
// A fork copies the page tables of every mapping that its child gets. The child of a launch needs two stacks:
// that of the thread that forked, and the main thread's, where the environment is. Every other one is left
// out of children (madvise(2), MADV_DONTFORK): workers leave out their own, and the stacks of the threads
// that launch come from blocks that are left out as a whole. stack_fork takes the forking thread's stack in
// again for the time of the fork. A block is one mapping, so that this leaves no trace in the table of
// mappings; without guard pages it stays one.
//
// That is only possible because nobody looks at other stacks in the child: _Fork(3) copies the process as
// fork(2) does, but runs no handlers, takes no lock of the allocator, and does not visit the threads that are
// gone. fork(2) does, so where it is used, every stack stays in the child as it is, and forks get slower with
// each thread. It is used where the C library has no _Fork, and under the thread sanitizer, which follows
// fork(2) only: in the child of a _Fork its own locks could be held for ever.
#include "common/stack-pool.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int guard_install = 102;  // MADV_GUARD_INSTALL, which older headers lack

pid_t make_child() {
#ifdef CORVANE_HAS__FORK
  if (stacks_stay_out_of_children) return _Fork();
#endif
  return fork();
}

constexpr size_t block_size = 256 * pool_stack_size;

struct FreeStack {
  FreeStack* next;
};

pthread_mutex_t pool_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the five below
FreeStack* returned = nullptr;
char* block_rest = nullptr;
char* block_end = nullptr;
char* workers_begin = nullptr;  // the last workers' stacks that lie side by side
char* workers_end = nullptr;

bool map_block() {
  void* block = mmap(nullptr, block_size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (block == MAP_FAILED) return false;
  if (stacks_stay_out_of_children) madvise(block, block_size, MADV_DONTFORK);
  madvise(block, block_size,
          MADV_NOHUGEPAGE);  // a huge page would make 32 whole stacks of it at the first touch
  block_rest = static_cast<char*>(block);
  block_end = block_rest + block_size;
  return true;
}

void* take() {
  if (returned) {
    FreeStack* stack = returned;
    returned = stack->next;
    return stack;
  }
  if (block_rest == block_end && !map_block()) return nullptr;
  char* stack = block_rest;
  block_rest += pool_stack_size;
  return stack;
}

}  // namespace

void* stack_take() {
  pthread_mutex_lock(&pool_mutex);
  void* stack = take();
  pthread_mutex_unlock(&pool_mutex);
  return stack;
}

void stack_return(void* stack) {
  pthread_mutex_lock(&pool_mutex);
  auto* free_stack = static_cast<FreeStack*>(stack);
  free_stack->next = returned;
  returned = free_stack;
  pthread_mutex_unlock(&pool_mutex);
}

void stack_set_defaults() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, default_stack_size);
  pthread_attr_setguardsize(&attributes, 0);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
#endif
}

// Makes the lowest page of a stack its guard: within the mapping where the kernel can do that (Linux 6.13).
static void make_guard(void* stack) {
  const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (madvise(stack, page_size, guard_install) != 0) mprotect(stack, page_size, PROT_NONE);
}

// Called with the pool's mutex held.
static void advise_workers(int advice) {
  if (workers_begin) madvise(workers_begin, static_cast<size_t>(workers_end - workers_begin), advice);
}

// Called with the pool's mutex held: a stack beside the last ones joins them, and any other one begins anew.
static void join_workers(char* stack, size_t size) {
  if (stack + size == workers_begin) {
    workers_begin = stack;
  } else if (stack == workers_end) {
    workers_end = stack + size;
  } else {
    advise_workers(MADV_DONTFORK);
    workers_begin = stack;
    workers_end = stack + size;
  }
  advise_workers(MADV_DONTFORK);
}

void stack_expect_worker() {
  if (!stacks_stay_out_of_children) return;
  pthread_mutex_lock(&pool_mutex);
  advise_workers(MADV_DOFORK);
  pthread_mutex_unlock(&pool_mutex);
}

void stack_expect_no_worker() {
  if (!stacks_stay_out_of_children) return;
  pthread_mutex_lock(&pool_mutex);
  advise_workers(MADV_DONTFORK);
  pthread_mutex_unlock(&pool_mutex);
}

void stack_prepare_own() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
    stack_expect_no_worker();
    return;
  }
  void* stack = nullptr;
  size_t stack_size = 0;
  size_t guard_size = 0;
  pthread_attr_getstack(&attributes, &stack, &stack_size);
  pthread_attr_getguardsize(&attributes, &guard_size);
  pthread_attr_destroy(&attributes);
  if (guard_size == 0) make_guard(stack);
  if (!stacks_stay_out_of_children) return;
  pthread_mutex_lock(&pool_mutex);
  join_workers(static_cast<char*>(stack), stack_size);
  pthread_mutex_unlock(&pool_mutex);
}

pid_t stack_fork(void* stack) {
  if (stacks_stay_out_of_children && madvise(stack, pool_stack_size, MADV_DOFORK) != 0) return -1;
  const pid_t child = make_child();
  if (stacks_stay_out_of_children && child != 0) madvise(stack, pool_stack_size, MADV_DONTFORK);
  return child;
}
