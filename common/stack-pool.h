// SPDX-License-Identifier: MIT
// stack-pool: stacks for threads that are never joined, and the fork that leaves them out of its child.
#pragma once

#include <sys/types.h>

#include <cstddef>

// A thread on one of these stacks needs 8 KiB to serve, 12 KiB in a child with the longest search path that
// execvp(3) accepts, and 12 KiB to report a crash. This was measured on painted stacks. No thread can need
// much more: nothing recurses, and every buffer has a fixed size (texts of 64 bytes, stdio for a line of the
// log, 4 KiB for a path, 255 frames).
#ifdef __SANITIZE_THREAD__
inline constexpr size_t pool_stack_size = size_t{1024} * 1024;  // the sanitizer keeps its state on the stack
#else
inline constexpr size_t pool_stack_size = size_t{64} * 1024;
#endif
inline constexpr size_t default_stack_size = size_t{64} * 1024;

/**
 * Makes default_stack_size the default of the process, for threads with default attributes: with the usual 8
 * MiB, the address space of 32 bits ends at a few hundred threads. stack_prepare_own makes their guards: a
 * guard of the C library is a separate mapping, and each mapping slows forks. Does nothing under a sanitizer,
 * which needs larger stacks. Main thread, before other threads exist.
 */
void stack_set_defaults();

/** Whether stacks are left out of children. False where the daemon has to use fork(2), which visits them. */
#if defined(CORVANE_HAS__FORK) && !defined(__SANITIZE_THREAD__)
inline constexpr bool stacks_stay_out_of_children = true;
#else
inline constexpr bool stacks_stay_out_of_children = false;
#endif

/**
 * A stack of pool_stack_size bytes without a guard page, for pthread_attr_setstack(3). The thread that is
 * made on it keeps it: a thread that is neither joined nor detached never gives its stack back. Null when
 * memory is short. Any thread.
 */
void* stack_take();

/** Takes back a stack on which no thread could be made. Any thread. */
void stack_return(void* stack);

/**
 * Lets children have the stacks of the last workers again, so that the next worker's stack can become one
 * mapping with them. stack_prepare_own then leaves all of them out. Call it before the worker is made; one at
 * a time. Main thread.
 */
void stack_expect_worker();

/** Leaves those stacks out of children again when the worker could not be made. Main thread. */
void stack_expect_no_worker();

/**
 * Gives the calling thread's stack a guard, unless it has one, and leaves the stack out of children. For a
 * thread that never forks, on a stack that the C library made. When memory is short the stack stays
 * unchanged, and that is no failure.
 */
void stack_prepare_own();

/**
 * fork(2) for a thread on `stack`, from the pool. The child has that stack and the main thread's, and may
 * make only async-signal-safe calls. No fork handlers run (pthread_atfork(3)). Returns like fork; -1 also
 * when memory is short to take the stack into the child.
 */
pid_t stack_fork(void* stack);
