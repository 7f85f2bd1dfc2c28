// A world without memory, for one scope; also under the sanitizers, where RLIMIT_AS cannot be set.
#ifndef TESTS_SUPPORT_SCARCE_MEMORY_H_
#define TESTS_SUPPORT_SCARCE_MEMORY_H_

#include <stddef.h>

namespace ZorvTest {

// While it stands, `new` of more than `bytes` at once throws std::bad_alloc in this thread, also in
// the libraries that the program uses. The program lists scarce_memory.cc among its sources.
class ScarceMemory {
 public:
  explicit ScarceMemory(size_t bytes);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SCARCE_MEMORY_H_
