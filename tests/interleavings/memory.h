// SPDX-License-Identifier: MIT
// memory: what the threads of a story take with malloc, and the proof that none touches what was freed.
#pragma once

#include <cstddef>

/** What freed memory is filled with, so that a text of it can be told. */
inline constexpr char freed_byte = static_cast<char>(0xdb);

/** Forgets all memory of the order before. */
void memory_begin();

/** Fails the order if the address is of memory that was freed or never taken. Other memory is not looked at.
 */
void memory_check(const volatile void* address);

/** Whether the address is of a story's memory, in use or not. */
bool memory_is_storys(const volatile void* address);

/** How far an address is into its block, if that has this size; else at least `size`. */
size_t memory_offset(const void* address, size_t size);
