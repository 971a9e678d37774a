// SPDX-License-Identifier: MIT
// stack-pool: stacks for threads that are never joined, kept out of the way of fork.
#pragma once

#include <cstddef>

#ifdef __SANITIZE_THREAD__
inline constexpr size_t pool_stack_size = size_t{1024} * 1024;  // the sanitizer keeps its state on the stack
#else
inline constexpr size_t pool_stack_size = size_t{64} * 1024;
#endif

/**
 * A stack of pool_stack_size bytes without a guard page, for pthread_attr_setstack(3). It belongs to the
 * thread that is made on it and is never taken back: a thread that is neither joined nor detached keeps its
 * stack. Null when memory is short. Any thread.
 */
void* stack_take();

/** Takes back a stack on which no thread could be made. Any thread. */
void stack_return(void* stack);

/**
 * Says whether a child process finds what is on this stack (madvise(2), MADV_KEEPONFORK) or an empty one,
 * which is the default: a thread that forks keeps its own stack for the child before, and no longer after.
 * Returns 0, or -1 with errno when the kernel refuses, e.g. for want of memory (ENOMEM, EAGAIN). EINVAL is
 * no failure: where the kernel does not know of this (before 4.14), every child finds everything. Any thread.
 */
int stack_keep_for_child(void* stack);
int stack_keep_for_parent_only(void* stack);
