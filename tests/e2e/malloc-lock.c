// SPDX-License-Identifier: MIT
// malloc-lock.c: preloaded into the daemon, it lets a crash happen while the lock of the heap is held.
//
// From SIGUSR2 on whoever touches the heap waits for ever, as behind a lock whose owner is gone. A file of
// its own, because a program that counts its memory cannot be run with it.
#include <signal.h>
#include <stddef.h>
#include <unistd.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);

static volatile sig_atomic_t held;

static void hold(int number) {
  (void)number;
  held = 1;
}

__attribute__((constructor)) static void prepare(void) {
  signal(SIGUSR2, hold);
}

static void wait_for_lock(void) {
  while (held) pause();
}

void* malloc(size_t size) {
  wait_for_lock();
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  wait_for_lock();
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  wait_for_lock();
  return __libc_realloc(memory, size);
}

void free(void* memory) {
  wait_for_lock();
  __libc_free(memory);
}
