// SPDX-License-Identifier: MIT
// heap: one heap for all threads, and the part of it that no child gets.
#pragma once

#include <cstddef>

/**
 * Makes all threads share one heap, which grows in large steps. Children always get the heap up to its
 * present end. Main thread, before other threads exist.
 */
void heap_set_up();

/**
 * Makes sure that children get these `size` bytes of the heap. Call it before any thread can fork a child
 * that needs them. Returns 0, or -1 when memory is short. Any thread.
 */
int heap_keep_for_children(void* memory, size_t size);

/**
 * Leaves the growth of the heap out of children, except the pieces that were kept. Does nothing until the
 * first piece is kept. Call it before a fork whose child needs nothing else of the heap. When memory is
 * short, the child gets the growth, and that is no failure. Any thread.
 */
void heap_leave_out_growth();
