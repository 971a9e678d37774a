// SPDX-License-Identifier: MIT
// atomics.cpp: what the compiler calls for each access to memory.
//
// display-manager.cpp is compiled for the thread sanitizer and linked with these functions instead of the
// sanitizer's (their names and arguments are those of its run-time interface). An atomic variable is a
// schedule point; a plain one only counts for what affects what, and must not be freed memory.
#include <cstdint>

#include "tests/interleavings/explorer.h"
#include "tests/interleavings/memory.h"

namespace {

void see(const volatile void* address, bool changes) {
  if (!running_thread() || !memory_is_storys(address)) return;
  memory_check(address);
  note({changes ? "writes" : "looks at", const_cast<const void*>(address), changes});
}

template <typename T>
T load(const volatile T* variable) {
  memory_check(variable);
  if (running_thread()) schedule({"reads", const_cast<const T*>(variable), false});
  memory_check(variable);
  return *variable;
}

template <typename T>
void store(volatile T* variable, T value) {
  memory_check(variable);
  if (running_thread()) schedule({"sets", const_cast<const T*>(variable)});
  memory_check(variable);
  *variable = value;
}

}  // namespace

extern "C" {
#define PLAIN(size)                                  \
  void __tsan_read##size(void* address) {            \
    see(address, false);                             \
  }                                                  \
  void __tsan_write##size(void* address) {           \
    see(address, true);                              \
  }                                                  \
  void __tsan_unaligned_read##size(void* address) {  \
    see(address, false);                             \
  }                                                  \
  void __tsan_unaligned_write##size(void* address) { \
    see(address, true);                              \
  }
PLAIN(1)
PLAIN(2)
PLAIN(4)
PLAIN(8)
PLAIN(16)
#undef PLAIN

#define ATOMIC(bits)                                                                                      \
  uint##bits##_t __tsan_atomic##bits##_load(const volatile uint##bits##_t* variable, int) {               \
    return load(variable);                                                                                \
  }                                                                                                       \
  void __tsan_atomic##bits##_store(volatile uint##bits##_t* variable, uint##bits##_t value, int) {        \
    store(variable, value);                                                                               \
  }                                                                                                       \
  uint##bits##_t __tsan_atomic##bits##_fetch_add(volatile uint##bits##_t* variable, uint##bits##_t value, \
                                                 int) {                                                   \
    const uint##bits##_t before = load(variable);                                                         \
    *variable = static_cast<uint##bits##_t>(before + value);                                              \
    note({"sets", const_cast<const uint##bits##_t*>(variable)});                                          \
    return before;                                                                                        \
  }
ATOMIC(8)
ATOMIC(32)
ATOMIC(64)
#undef ATOMIC

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit(void*) {}
void __tsan_read_range(void* address, long) {
  see(address, false);
}
void __tsan_write_range(void* address, long) {
  see(address, true);
}
}
