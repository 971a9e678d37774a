// SPDX-License-Identifier: MIT
// stack-pool.cpp: why fork stays as fast after ten thousand threads as after one.
//
// fork copies the page tables of every mapping, and the C library's fork visits, in the child, every thread
// whose stack the library made itself; a visit copies the page. With stacks that stay behind for ever both
// would grow without end: by 40 ms a fork after 20,000 threads, measured. So the stacks come from blocks of
// our own, of which the library's fork visits the forking thread's neighbours only, and which the kernel's
// fork leaves empty in the child but for the one stack that forks. Empty, not absent: the library unlinks the
// forking thread from its list of threads, and the neighbours' links must be there to be written. A block is
// one mapping, so that keeping a part of it for a while leaves no trace; without guard pages it stays one.
#include "common/stack-pool.h"

#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>

namespace {

constexpr size_t block_size = 256 * pool_stack_size;

struct FreeStack {
  FreeStack* next;
};

pthread_mutex_t pool_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the three below
FreeStack* returned = nullptr;
char* block_rest = nullptr;
char* block_end = nullptr;

bool map_block() {
  void* block = mmap(nullptr, block_size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (block == MAP_FAILED) return false;
  madvise(block, block_size, MADV_WIPEONFORK);
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

static int advise(void* stack, int advice) {
  const bool taken = madvise(stack, pool_stack_size, advice) == 0;
  return taken || errno == EINVAL ? 0 : -1;
}

int stack_keep_for_child(void* stack) {
  return advise(stack, MADV_KEEPONFORK);
}

int stack_keep_for_parent_only(void* stack) {
  return advise(stack, MADV_WIPEONFORK);
}
