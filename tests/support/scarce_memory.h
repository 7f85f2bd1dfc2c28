// A world without memory, for one scope; also under the sanitizers, where RLIMIT_AS cannot be set.
// The program lists scarce_memory.cc among its sources.
#ifndef TESTS_SUPPORT_SCARCE_MEMORY_H_
#define TESTS_SUPPORT_SCARCE_MEMORY_H_

#include <stddef.h>

namespace ZorvTest {

// While it stands, `new` of more than `bytes` at once throws std::bad_alloc in this thread, also in
// the libraries that the program uses.
class ScarceMemory {
 public:
  explicit ScarceMemory(size_t bytes);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;
};

// While it stands, the `n`th `new` of this thread throws std::bad_alloc; the first is 1. All others
// succeed.
class OneAllocationFails {
 public:
  explicit OneAllocationFails(int n);
  ~OneAllocationFails();
  OneAllocationFails(const OneAllocationFails&) = delete;
  OneAllocationFails& operator=(const OneAllocationFails&) = delete;

  // Whether there were so many.
  bool Failed() const;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SCARCE_MEMORY_H_
