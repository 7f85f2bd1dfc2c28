// keys.h: item keys, their order and arithmetic, and the object and type numbers the engine knows.
// Numbers as in <linux/btrfs_tree.h>.
#ifndef ENGINE_ONDISK_KEYS_H_
#define ENGINE_ONDISK_KEYS_H_

#include <cstdint>
#include <tuple>

#include "engine/ondisk/le.h"

namespace ZorvEngine {

// Key of an item; items are sorted by objectid, then type, then offset.
struct Key {
  uint64_t objectid = 0;
  uint8_t type = 0;
  uint64_t offset = 0;
};

inline auto KeyOrder(const Key& key) { return std::tie(key.objectid, key.type, key.offset); }
inline bool operator==(const Key& a, const Key& b) { return KeyOrder(a) == KeyOrder(b); }
inline bool operator!=(const Key& a, const Key& b) { return !(a == b); }
inline bool operator<(const Key& a, const Key& b) { return KeyOrder(a) < KeyOrder(b); }

// Makes `key` the next one; the three fields are one 136-bit number.  False: that was the last key,
// and it is now the first.
inline bool Increment(Key* key) {
  if (++key->offset != 0) return true;
  if (++key->type != 0) return true;
  return ++key->objectid != 0;
}

// A key on disk.
struct DiskKey {
  Le64 objectid;
  Le8 type;
  Le64 offset;

  Key Get() const { return Key{objectid.Get(), type.Get(), offset.Get()}; }
  void Set(const Key& key) {
    objectid.Set(key.objectid);
    type.Set(key.type);
    offset.Set(key.offset);
  }
};
static_assert(sizeof(DiskKey) == 17 && alignof(DiskKey) == 1, "17 bytes, unpadded");

// Object numbers.  The "negative" ones are stored as 64-bit complements.
constexpr uint64_t kExtentTreeId = 2;
constexpr uint64_t kTopLevelTreeId = 5;
constexpr uint64_t kFirstFreeId = 256;
constexpr uint64_t kLastFreeId = static_cast<uint64_t>(-256);
constexpr uint64_t kFirstInode = 256;
constexpr uint64_t kOrphanId = static_cast<uint64_t>(-5);
constexpr uint64_t kBalanceId = static_cast<uint64_t>(-4);
constexpr uint64_t kRelocationTreeId = static_cast<uint64_t>(-8);
constexpr uint64_t kDataRelocationTreeId = static_cast<uint64_t>(-9);

// Item types.
constexpr uint8_t kInodeItemType = 1;
constexpr uint8_t kInodeRefType = 12;
constexpr uint8_t kInodeExtrefType = 13;
constexpr uint8_t kOrphanItemType = 48;
constexpr uint8_t kDirItemType = 84;
constexpr uint8_t kDirIndexType = 96;
constexpr uint8_t kFileExtentType = 108;
constexpr uint8_t kRootItemType = 132;
constexpr uint8_t kExtentItemType = 168;
constexpr uint8_t kMetadataItemType = 169;
constexpr uint8_t kDeviceItemType = 216;
constexpr uint8_t kChunkItemType = 228;
constexpr uint8_t kTemporaryItemType = 248;

// Whether `id` can be the number of a subvolume: the top level, or one that users have made.
inline bool IsSubvolumeId(uint64_t id) {
  return id == kTopLevelTreeId || (id >= kFirstFreeId && id <= kLastFreeId);
}

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_KEYS_H_
