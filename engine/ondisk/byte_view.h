// byte_view.h: a range of raw bytes that knows its end.
#ifndef ENGINE_ONDISK_BYTE_VIEW_H_
#define ENGINE_ONDISK_BYTE_VIEW_H_

#include <cstddef>
#include <cstdint>

namespace ZorvEngine {

// Bytes owned by somebody else.  All arithmetic on offsets that come from disk is done here.
class ByteView {
 public:
  ByteView() = default;
  ByteView(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  const uint8_t* Data() const { return data_; }
  size_t Size() const { return size_; }

  // `count` objects of an on-disk type at `offset`; null when they do not fit.
  template <typename T>
  const T* At(size_t offset, size_t count = 1) const {
    static_assert(alignof(T) == 1, "on-disk types only");
    if (offset > size_ || count > (size_ - offset) / sizeof(T)) return nullptr;
    return reinterpret_cast<const T*>(data_ + offset);
  }

  // `size` bytes at `offset`; false when they do not fit, and `out` is left alone.
  bool Sub(size_t offset, size_t size, ByteView* out) const {
    if (offset > size_ || size > size_ - offset) return false;
    *out = ByteView(data_ + offset, size);
    return true;
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_BYTE_VIEW_H_
