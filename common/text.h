// SPDX-License-Identifier: MIT
// text: owners of C memory and formatting into a buffer that must be large enough.
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
 * Formats as printf(3) does into `buffer` of `size` bytes, the terminating zero included.
 *
 * A text that does not fit ends the process with abort(3): the daemon's bounded buffers are limits of the
 * system, and a path or a name cut short would act on something that nobody meant.
 *
 * Any thread; the buffer stays the caller's.
 */
void text_format(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
