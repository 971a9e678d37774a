// SPDX-License-Identifier: MIT
// memory: the heap of a story, which reports every use of memory that was freed or never allocated.
#pragma once

#include <cstddef>

/** Freed memory is filled with this byte, so that a message made of it is noticed. */
inline constexpr char freed_byte = static_cast<char>(0xdb);

/** New memory from the system; the process ends when there is none. */
char* map_memory(size_t size);

/** Forgets all blocks of the previous schedule. */
void memory_begin();

/** The arena from which this thread allocates. */
char* memory_of_thread(int id);

/** Whether the address is in an arena, in use or not. */
bool memory_is_simulated(const volatile void* address);

/** Whether this range is within one block that is in use. */
bool memory_is_in_use(const volatile void* address, size_t size);

/**
 * Fails if a byte of this range is in an arena but not in a block in use. A build with AddressSanitizer also
 * fails if the range has poisoned memory, in an arena or not.
 */
void memory_check(const volatile void* address, size_t size);

/** The offset of an address in its block. Returns at least `size` if the block has another size. */
size_t memory_offset(const void* address, size_t size);
