// SPDX-License-Identifier: MIT
// stack-pool: stacks for threads that are never joined, and the fork that leaves them out of its child.
#pragma once

#include <sys/types.h>

#include <cstddef>

// What runs on these stacks needs 8 KiB while it serves, 12 KiB in a child whose search path is as long as
// execvp(3) takes it, and 12 KiB for the report of a crash, measured on painted stacks. What bounds it:
// nothing recurses, and every buffer is of fixed size (texts of 64 bytes, the stdio of a line of the log, 4
// KiB for a path, 255 frames).
#ifdef __SANITIZE_THREAD__
inline constexpr size_t pool_stack_size = size_t{1024} * 1024;  // the sanitizer keeps its state on the stack
#else
inline constexpr size_t pool_stack_size = size_t{64} * 1024;
#endif
inline constexpr size_t default_stack_size = size_t{64} * 1024;

/**
 * Makes default_stack_size the default of the process, for threads of default attributes: with the usual 8
 * MiB the address space of 32 bits ends at a few hundred. Their guards are made by stack_prepare_own: one of
 * the C library's is a mapping, and forks get slower with each. All is left as it is under a sanitizer, which
 * needs more. Main thread, before other threads exist.
 */
void stack_set_defaults();

/** Whether stacks stay out of children: not where fork(2) visits them there; see stack-pool.cpp. */
#if defined(CORVANE_HAS__FORK) && !defined(__SANITIZE_THREAD__)
inline constexpr bool stacks_stay_out_of_children = true;
#else
inline constexpr bool stacks_stay_out_of_children = false;
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
 * Takes the stacks of the last workers into children, so that the next one's can become one mapping with
 * them; stack_prepare_own leaves all of them out again. Before the worker is made; one at a time.
 */
void stack_expect_worker();

/** Leaves them out again, when the worker that was expected could not be made. */
void stack_expect_no_worker();

/**
 * Gives the calling thread's own stack a guard, unless it has one, and leaves it out of children. For a
 * thread on a stack that the C library made and that never forks. Where memory is short for it, the stack
 * stays as it is: no failure.
 */
void stack_prepare_own();

/**
 * fork(2) for a thread on `stack`, from the pool: the child has that stack and the main thread's, and makes
 * nothing but async-signal-safe calls. No fork handlers run (pthread_atfork(3)). Returns as fork does; -1 if
 * memory is short for taking the stack into the child.
 */
pid_t stack_fork(void* stack);
