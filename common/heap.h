// SPDX-License-Identifier: MIT
// heap: one for all threads, and the part of it that no child gets.
#pragma once

#include <cstddef>

/**
 * One heap for all threads, which grows in large steps. Children always get the heap as it is now. Main
 * thread, before other threads exist.
 */
void heap_set_up();

/**
 * Makes sure that children get these `size` bytes of the heap. To be called before the process can fork from
 * the threads that need them there. Returns 0, or -1 when memory is short for it. Any thread.
 */
int heap_keep_for_children(void* memory, size_t size);

/**
 * Leaves out of children what the heap has grown by, except the pieces that were kept. Does nothing before
 * the first piece was kept. To be called before a fork whose child needs nothing else of the heap. Where
 * memory is short for it, the child gets it: no failure. Any thread.
 */
void heap_leave_out_growth();
