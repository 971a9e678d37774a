// SPDX-License-Identifier: MIT
// coroutine.cpp: switches that need no system call and that AddressSanitizer follows.
//
// The first function on a stack saves a place to jump to. Each new thread on that stack starts there, so only
// the first use of a stack needs makecontext(3).
//
// A dropped thread never returns from its functions, so AddressSanitizer would keep the red zones of their
// frames. Each new thread clears them. Fake stacks (detect_stack_use_after_return) are not supported.
#include "tests/interleavings/coroutine.h"

#include <sanitizer/asan_interface.h>
#include <ucontext.h>

#include <cstdlib>
#include <cstring>

#include "tests/interleavings/memory.h"

// For functions that save a place or jump to one: the sanitizer must not touch their frames.
#define PLAIN_FRAME __attribute__((noinline, no_sanitize("address")))

using Place = void* [5];  // of __builtin_setjmp

struct Coroutine {
  char* stack = nullptr;  // null until the first use
  void (*body)();
  Place start;  // of every thread on this stack
  Place place;  // where the thread continues
};

namespace {

constexpr size_t stack_size = size_t{128} * 1024;

Coroutine coroutines[most_coroutines];
Coroutine* current;  // null while the scheduler runs
Coroutine* new_coroutine;
Place scheduler;
Place maker;  // of a new stack
const void* scheduler_stack;
size_t scheduler_stack_size;

// Announces the target of the next switch to AddressSanitizer.
void announce([[maybe_unused]] const void* stack, [[maybe_unused]] size_t size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(nullptr, stack, size);
#endif
}

// Reports the end of a switch to AddressSanitizer, and gets the bounds of the stack that was left.
void arrive([[maybe_unused]] const void** stack_left, [[maybe_unused]] size_t* size_left) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(nullptr, stack_left, size_left);
#endif
}

[[noreturn]] PLAIN_FRAME void go_to(Place& to) {
  __builtin_longjmp(to, 1);
}

PLAIN_FRAME void switch_places(Place& from, Place& to) {
  if (__builtin_setjmp(from) == 0) go_to(to);
}

// The first function of a stack. It never returns, so every thread can begin at `start`.
PLAIN_FRAME void stack_base() {
  if (__builtin_setjmp(new_coroutine->start) == 0) go_to(maker);
  arrive(&scheduler_stack, &scheduler_stack_size);
  current->body();
  abort();
}

PLAIN_FRAME void make_stack(Coroutine* coroutine) {
  coroutine->stack = map_memory(stack_size);
  new_coroutine = coroutine;
  ucontext_t context;
  getcontext(&context);
  context.uc_stack.ss_sp = coroutine->stack;
  context.uc_stack.ss_size = stack_size;
  makecontext(&context, stack_base, 0);
  if (__builtin_setjmp(maker) == 0) setcontext(&context);
}

}  // namespace

Coroutine* coroutine_begin(int number, void (*body)()) {
  Coroutine* coroutine = &coroutines[number];
  if (!coroutine->stack) make_stack(coroutine);
  ASAN_UNPOISON_MEMORY_REGION(coroutine->stack, stack_size);
  coroutine->body = body;
  memcpy(coroutine->place, coroutine->start, sizeof(Place));
  return coroutine;
}

void coroutine_resume(Coroutine* coroutine) {
  current = coroutine;
  announce(coroutine->stack, stack_size);
  switch_places(scheduler, coroutine->place);
  arrive(nullptr, nullptr);
  current = nullptr;
}

void coroutine_leave() {
  announce(scheduler_stack, scheduler_stack_size);
  switch_places(current->place, scheduler);
  arrive(&scheduler_stack, &scheduler_stack_size);
}
