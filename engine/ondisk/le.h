// le.h: little-endian integers as they stand on disk.
#ifndef ENGINE_ONDISK_LE_H_
#define ENGINE_ONDISK_LE_H_

#include <endian.h>

#include <cstdint>
#include <cstring>

namespace ZorvEngine {

// An unsigned integer of type T, little-endian, alignment 1.  It cannot be read without Get(), so a
// missing conversion does not compile.
template <typename T>
class Le {
 public:
  T Get() const {
    T value;
    memcpy(&value, raw_, sizeof value);
    if constexpr (sizeof(T) == 8)
      return le64toh(value);
    else if constexpr (sizeof(T) == 4)
      return le32toh(value);
    else if constexpr (sizeof(T) == 2)
      return le16toh(value);
    else
      return value;
  }

  void Set(T value) {
    if constexpr (sizeof(T) == 8)
      value = htole64(value);
    else if constexpr (sizeof(T) == 4)
      value = htole32(value);
    else if constexpr (sizeof(T) == 2)
      value = htole16(value);
    memcpy(raw_, &value, sizeof value);
  }

 private:
  uint8_t raw_[sizeof(T)];
};

using Le8 = Le<uint8_t>;
using Le16 = Le<uint16_t>;
using Le32 = Le<uint32_t>;
using Le64 = Le<uint64_t>;

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_LE_H_
