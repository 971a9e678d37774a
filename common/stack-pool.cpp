// SPDX-License-Identifier: MIT
// stack-pool.cpp: keeps fork as fast after ten thousand threads as after one.
//
// A fork copies the page tables of every mapping that its child gets. The child of a launch needs two stacks:
// that of the thread that forks, and the main thread's, which holds the environment. All others are left out
// of children (madvise(2), MADV_DONTFORK). Each worker leaves out its own stack. The stacks of the threads
// that launch come from blocks that are left out as a whole, and stack_fork takes the stack of the forking
// thread into the child for the time of the fork. Without guard pages a block stays one mapping, and this
// leaves no trace in the table of mappings.
//
// This works only because nothing reads the other stacks in the child. _Fork(3) copies the process like
// fork(2), but it runs no handlers, takes no lock of the allocator, and does not visit the threads that the
// child lacks. fork(2) does visit them. Where it is used, every stack stays in the child, and each thread
// makes forks slower. It is used where the C library has no _Fork, and under the thread sanitizer, which
// follows only fork(2): in the child of a _Fork the sanitizer's own locks could stay held.
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
char* workers_begin = nullptr;  // the stacks of the last workers, as far as they are adjacent
char* workers_end = nullptr;

bool map_block() {
  void* block = mmap(nullptr, block_size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (block == MAP_FAILED) return false;
  if (stacks_stay_out_of_children) madvise(block, block_size, MADV_DONTFORK);
  // A huge page would take the memory of 32 whole stacks at the first touch.
  madvise(block, block_size, MADV_NOHUGEPAGE);
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
  // Only pthread_setattr_default_np could fail. Stacks then keep their usual size, and the address space
  // holds fewer of them.
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, default_stack_size);
  pthread_attr_setguardsize(&attributes, 0);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
#endif
}

// Makes the lowest page of a stack its guard, within the mapping where the kernel can do that (Linux 6.13).
static void make_guard(void* stack) {
  const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (madvise(stack, page_size, guard_install) != 0) mprotect(stack, page_size, PROT_NONE);
}

// The caller holds the pool's mutex.
static void advise_workers(int advice) {
  if (workers_begin) madvise(workers_begin, static_cast<size_t>(workers_end - workers_begin), advice);
}

// Adds a worker's stack to the last ones if it is adjacent to them. Otherwise it begins a new row of stacks.
// The caller holds the pool's mutex.
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
  void* stack = nullptr;  // the next two calls cannot fail: the attributes are valid
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
