// Bytes whose end is the end of what may be read.
#ifndef TESTS_FUZZ_GUARDED_BYTES_H_
#define TESTS_FUZZ_GUARDED_BYTES_H_

#include <string.h>
#include <sys/mman.h>

#include <string_view>

#include "engine/ondisk/byte_view.h"
#include "tests/fuzz/target.h"

namespace ZorvTest {

// A copy of bytes, directly before a page that nobody may touch: a decoder that reads on is ended
// by the system, also in a build without sanitizers.
class GuardedBytes {
 public:
  explicit GuardedBytes(std::string_view bytes) : size_(bytes.size()) {
    static uint8_t* const guard = MapBeforeGuard();
    FUZZ_LAW(size_ <= kMost);
    data_ = guard - size_;
    memcpy(data_, bytes.data(), size_);
  }

  ZorvEngine::ByteView View() const { return {data_, size_}; }

  // Whether a view lies within.
  bool Holds(ZorvEngine::ByteView view) const {
    return view.Data() >= data_ && view.Data() <= data_ + size_ &&
           view.Size() <= static_cast<size_t>(data_ + size_ - view.Data());
  }

 private:
  static constexpr size_t kMost = 1 << 20;

  // The address of the guarding page, behind kMost bytes.
  static uint8_t* MapBeforeGuard() {
    constexpr size_t kPage = 4096;
    void* const room =
        mmap(nullptr, kMost + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FUZZ_LAW(room != MAP_FAILED);
    uint8_t* const guard = static_cast<uint8_t*>(room) + kMost;
    FUZZ_LAW(mprotect(guard, kPage, PROT_NONE) == 0);
    return guard;
  }

  uint8_t* data_;
  size_t size_;
};

}  // namespace ZorvTest

#endif  // TESTS_FUZZ_GUARDED_BYTES_H_
