// SPDX-License-Identifier: MIT
// atomics.cpp: what the compiler calls for each access to memory.
//
// display-manager.cpp is compiled for the thread sanitizer and linked with these functions instead of the
// sanitizer's; names and arguments are those of its run-time interface. An access to an atomic variable is a
// schedule point. A plain access is recorded, because it can affect other threads' steps.
#include <cstdint>

#include "tests/interleavings/explorer.h"
#include "tests/interleavings/memory.h"

namespace {

void access(const volatile void* address, size_t size, bool changes) {
  if (!running_thread()) return;
  memory_check(address, size);
  if (!memory_is_simulated(address)) return;
  record({changes ? "writes" : "looks at", const_cast<const void*>(address), changes});
}

template <typename T>
T load(const volatile void* variable) {
  memory_check(variable, sizeof(T));
  if (running_thread()) schedule({"reads", const_cast<const void*>(variable), false});
  memory_check(variable, sizeof(T));
  return *static_cast<const volatile T*>(variable);
}

template <typename T>
void store(volatile void* variable, T value) {
  memory_check(variable, sizeof(T));
  if (running_thread()) schedule({"sets", const_cast<const void*>(variable)});
  memory_check(variable, sizeof(T));
  *static_cast<volatile T*>(variable) = value;
}

template <typename T>
T fetch_add(volatile void* variable, T value) {
  const T before = load<T>(variable);
  *static_cast<volatile T*>(variable) = static_cast<T>(before + value);
  record({"sets", const_cast<const void*>(variable)});
  return before;
}

}  // namespace

extern "C" {
#define PLAIN_ACCESS(name, size, changes)   \
  void __tsan_##name##size(void* address) { \
    access(address, size, changes);         \
  }
#define PLAIN(size)               \
  PLAIN_ACCESS(read, size, false) \
  PLAIN_ACCESS(write, size, true) \
  PLAIN_ACCESS(unaligned_read, size, false) PLAIN_ACCESS(unaligned_write, size, true)
PLAIN(1)
PLAIN(2)
PLAIN(4)
PLAIN(8)
PLAIN(16)
#undef PLAIN
#undef PLAIN_ACCESS

#define ATOMIC(bits)                                                                                   \
  uint##bits##_t __tsan_atomic##bits##_load(const volatile void* variable, int) {                      \
    return load<uint##bits##_t>(variable);                                                             \
  }                                                                                                    \
  void __tsan_atomic##bits##_store(volatile void* variable, uint##bits##_t value, int) {               \
    store(variable, value);                                                                            \
  }                                                                                                    \
  uint##bits##_t __tsan_atomic##bits##_fetch_add(volatile void* variable, uint##bits##_t value, int) { \
    return fetch_add(variable, value);                                                                 \
  }
ATOMIC(8)
ATOMIC(32)
ATOMIC(64)
#undef ATOMIC

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit(void*) {}
void __tsan_read_range(void* address, intptr_t size) {
  access(address, static_cast<size_t>(size), false);
}
void __tsan_write_range(void* address, intptr_t size) {
  access(address, static_cast<size_t>(size), true);
}
}
