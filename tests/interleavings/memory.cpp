// SPDX-License-Identifier: MIT
// memory.cpp: a heap for each thread of a story, whose addresses do not depend on the other threads.
//
// Nothing is given out twice in one order, so that every use of freed memory is seen.
#include "tests/interleavings/memory.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

#include "tests/interleavings/explorer.h"

namespace {

struct Block {
  size_t size;
  bool is_free;
};
std::map<uintptr_t, Block>& blocks() {
  static auto& all = *new std::map<uintptr_t, Block>;
  return all;
}

// The block of this address; the end when there is none.
std::map<uintptr_t, Block>::iterator block_of(uintptr_t address) {
  auto found = blocks().upper_bound(address);
  if (found == blocks().begin()) return blocks().end();
  --found;
  return address < found->first + found->second.size ? found : blocks().end();
}

}  // namespace

void memory_begin() {
  blocks().clear();
}

bool memory_is_storys(const volatile void* address) {
  return static_cast<const volatile char*>(address) >= arenas &&
         static_cast<const volatile char*>(address) < arenas + most_threads * arena_size;
}

void memory_check(const volatile void* address) {
  if (!memory_is_storys(address)) return;
  const auto block = block_of(reinterpret_cast<uintptr_t>(address));
  if (block == blocks().end()) fail("memory is touched that nobody took");
  if (block->second.is_free) fail("memory is touched that was freed");
}

size_t memory_offset(const void* address, size_t size) {
  const auto at = reinterpret_cast<uintptr_t>(address);
  const auto block = block_of(at);
  return block == blocks().end() || block->second.size != size ? size : at - block->first;
}

extern "C" {
void* __real_malloc(size_t size);
void __real_free(void* memory);
void* __wrap_malloc(size_t size);
void __wrap_free(void* memory);
}

void* __wrap_malloc(size_t size) {
  Thread* self = running_thread();
  if (!self) return __real_malloc(size);
  constexpr size_t alignment = 16;
  void* memory = self->arena + self->arena_used;
  self->arena_used += (size + alignment - 1) / alignment * alignment;
  if (self->arena_used > arena_size) fail("a thread takes more memory than the story is made for");
  blocks()[reinterpret_cast<uintptr_t>(memory)] = {size, false};
  return memory;
}

void __wrap_free(void* memory) {
  if (!memory_is_storys(memory)) {
    __real_free(memory);
    return;
  }
  note({"frees", memory});
  const auto block = blocks().find(reinterpret_cast<uintptr_t>(memory));
  if (block == blocks().end() || block->second.is_free) fail("memory is freed that is not in use");
  block->second.is_free = true;
  memset(memory, freed_byte, block->second.size);
}
