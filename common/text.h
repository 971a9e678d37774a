// SPDX-License-Identifier: MIT
// text: owners of C memory, and formatting into a buffer that must be large enough.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

struct FreeMemory {
  void operator()(void* memory) const noexcept { free(memory); }
};

/** A plain structure from malloc, freed with its owner. */
template <typename T>
using Owned = std::unique_ptr<T, FreeMemory>;

/** A C string from malloc or strdup, freed with its owner. */
using TextOwner = Owned<char>;

/**
 * Formats like printf(3) into `buffer`, which has `size` bytes including the terminating zero.
 *
 * A text that does not fit ends the process with abort(3). The buffers are limits of the daemon, and a path
 * or a name that is cut short would name another file or process. Any thread.
 */
void text_format(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
