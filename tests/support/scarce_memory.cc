#include "tests/support/scarce_memory.h"

#include <stdint.h>
#include <stdlib.h>

#include <new>

namespace {

thread_local size_t largest = SIZE_MAX;
thread_local int untilFailure = 0;  // 0: none fails any more

bool Refused(size_t bytes) { return bytes > largest || (untilFailure > 0 && --untilFailure == 0); }

}  // namespace

namespace ZorvTest {

ScarceMemory::ScarceMemory(size_t bytes) { largest = bytes; }
ScarceMemory::~ScarceMemory() { largest = SIZE_MAX; }

OneAllocationFails::OneAllocationFails(int n) { untilFailure = n; }
OneAllocationFails::~OneAllocationFails() { untilFailure = 0; }
bool OneAllocationFails::Failed() const { return untilFailure == 0; }

}  // namespace ZorvTest

// The forms without alignment; the others end in these, except those for over-aligned types. Those
// for arrays are written out, since the sanitizers bring their own.
void* operator new(size_t bytes) {
  void* memory = Refused(bytes) ? nullptr : malloc(bytes != 0 ? bytes : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void* operator new[](size_t bytes) { return operator new(bytes); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }
