#include "tests/support/scarce_memory.h"

#include <stdint.h>
#include <stdlib.h>

#include <new>

namespace {

thread_local size_t largest = SIZE_MAX;

}  // namespace

namespace ZorvTest {

ScarceMemory::ScarceMemory(size_t bytes) { largest = bytes; }
ScarceMemory::~ScarceMemory() { largest = SIZE_MAX; }

}  // namespace ZorvTest

// The forms without alignment; the others end in these, except those for over-aligned types.
void* operator new(size_t bytes) {
  void* memory = bytes <= largest ? malloc(bytes != 0 ? bytes : 1) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
