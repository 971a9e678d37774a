// SPDX-License-Identifier: MIT
// coroutine: the stacks of the simulated threads, and the switches between them and the scheduler's stack.
#pragma once

#include <cstddef>

/** A stack, and the place where its thread continues. There is one for each number. */
struct Coroutine;

inline constexpr size_t most_coroutines = 256;

/** Makes a thread that begins with `body` on stack `number`. It drops the stack's previous thread. */
Coroutine* coroutine_begin(int number, void (*body)());

/** Runs a coroutine until it calls coroutine_leave. Scheduler only. */
void coroutine_resume(Coroutine* coroutine);

/** Switches to the scheduler. Returns when this coroutine is resumed. Coroutines only. */
void coroutine_leave();
