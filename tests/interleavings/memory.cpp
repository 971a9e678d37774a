// SPDX-License-Identifier: MIT
// memory.cpp: an arena for each simulated thread, so addresses do not depend on the schedule.
//
// A schedule never allocates a byte twice, so every use of freed memory is noticed.
#include "tests/interleavings/memory.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tests/interleavings/explorer.h"

namespace {

constexpr size_t arena_size = size_t{64} * 1024;

struct Block {
  char* begin;
  size_t size;
  bool is_freed = false;
};

struct Arena {
  std::vector<Block> blocks;  // by address
  size_t used = 0;
};

std::array<Arena, most_threads> arenas;

char* memory() {
  static char* all = nullptr;
  if (!all) {
    all = map_memory(most_threads * arena_size);
    ASAN_POISON_MEMORY_REGION(all, most_threads * arena_size);
  }
  return all;
}

// The block that has this address, null if none has.
Block* find_block(const volatile void* address) {
  if (!memory_is_simulated(address)) return nullptr;
  const auto* byte = const_cast<const char*>(static_cast<const volatile char*>(address));
  std::vector<Block>& blocks = arenas[static_cast<size_t>(byte - memory()) / arena_size].blocks;
  const auto next = std::ranges::upper_bound(blocks, byte, {}, &Block::begin);
  if (next == blocks.begin()) return nullptr;
  Block& block = next[-1];
  return byte < block.begin + block.size ? &block : nullptr;
}

}  // namespace

char* map_memory(size_t size) {
  void* memory =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) abort();
  return static_cast<char*>(memory);
}

void memory_begin() {
  for (size_t i = 0; i < most_threads; ++i) {
    ASAN_POISON_MEMORY_REGION(memory() + i * arena_size, arenas[i].used);
    arenas[i].blocks.clear();
    arenas[i].used = 0;
  }
}

char* memory_of_thread(int id) {
  return memory() + static_cast<size_t>(id) * arena_size;
}

bool memory_is_simulated(const volatile void* address) {
  return address >= memory() && address < memory() + most_threads * arena_size;
}

bool memory_is_in_use(const volatile void* address, size_t size) {
  const Block* block = find_block(address);
  return block && !block->is_freed &&
         static_cast<const volatile char*>(address) + size <= block->begin + block->size;
}

void memory_check(const volatile void* address, size_t size) {
  if (memory_is_simulated(address) && !memory_is_in_use(address, size))
    fail("memory is used that was freed or never allocated");
#if defined(__SANITIZE_ADDRESS__)
  if (__asan_region_is_poisoned(const_cast<void*>(address), size))
    fail("AddressSanitizer forbids this access");
#endif
}

size_t memory_offset(const void* address, size_t size) {
  const Block* block = find_block(address);
  return block && block->size == size ? static_cast<size_t>(static_cast<const char*>(address) - block->begin)
                                      : size;
}

extern "C" {
void* __real_malloc(size_t size);
void __real_free(void* memory);

void* __wrap_malloc(size_t size) {
  const Thread* self = running_thread();
  if (!self) return __real_malloc(size);
  constexpr size_t alignment = 16;
  Arena& arena = arenas[static_cast<size_t>(self->id)];
  char* begin = memory_of_thread(self->id) + arena.used;
  arena.used += (size + alignment - 1) / alignment * alignment;
  if (arena.used > arena_size) fail("a thread allocates more memory than an arena has");
  arena.blocks.push_back({begin, size});
  ASAN_UNPOISON_MEMORY_REGION(begin, size);
  return begin;
}

void __wrap_free(void* memory) {
  if (!memory_is_simulated(memory)) {
    __real_free(memory);
    return;
  }
  record({"frees", memory});
  Block* block = find_block(memory);
  if (!block || block->begin != memory || block->is_freed) fail("memory that is not in use is freed");
  block->is_freed = true;
  memset(memory, freed_byte, block->size);
  ASAN_POISON_MEMORY_REGION(memory, block->size);
}
}
