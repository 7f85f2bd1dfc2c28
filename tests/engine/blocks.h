// Hand-made tree blocks, chunks and devices in memory, for tests that need no file system.
#ifndef TESTS_ENGINE_BLOCKS_H_
#define TESTS_ENGINE_BLOCKS_H_

#include <string.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/io/byte_source.h"
#include "engine/io/chunk_map.h"
#include "engine/io/device_set.h"
#include "engine/ondisk/crc32c.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"

namespace ZorvTest {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kNodeSize = 4096;
inline constexpr uint64_t kGeneration = 77;

// Profile bits of chunk types, as in <linux/btrfs_tree.h>.
inline constexpr uint64_t kRaid0 = 1 << 3;
inline constexpr uint64_t kRaid1 = 1 << 4;
inline constexpr uint64_t kDup = 1 << 5;
inline constexpr uint64_t kRaid10 = 1 << 6;
inline constexpr uint64_t kRaid5 = 1 << 7;
inline constexpr uint64_t kRaid6 = 1 << 8;
inline constexpr uint64_t kRaid1c3 = 1 << 9;
inline constexpr uint64_t kRaid1c4 = 1 << 10;

template <typename T>
Bytes BytesOf(const T& object) {
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(&object);
  return Bytes(raw, raw + sizeof object);
}

inline void AppendTo(Bytes* bytes, const Bytes& more) {
  bytes->insert(bytes->end(), more.begin(), more.end());
}

inline ZorvEngine::ByteView View(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

// The object of an on-disk type at `offset` of a block, to be spoilt.
template <typename T>
T& ObjectAt(Bytes* block, size_t offset) {
  return *reinterpret_cast<T*>(block->data() + offset);
}

inline ZorvEngine::BlockHeader& HeaderOf(Bytes* block) {
  return ObjectAt<ZorvEngine::BlockHeader>(block, 0);
}

// Puts the right crc32c at the head of a block or superblock.
inline void Seal(Bytes* block) {
  const ZorvEngine::ByteView content(block->data() + ZorvEngine::kChecksumSize,
                                     block->size() - ZorvEngine::kChecksumSize);
  memset(block->data(), 0, ZorvEngine::kChecksumSize);
  ObjectAt<ZorvEngine::Le32>(block, 0).Set(ZorvEngine::Crc32c(content));
}

inline Bytes EmptyBlock(uint64_t bytenr, uint8_t level, size_t count) {
  Bytes block(kNodeSize);
  ZorvEngine::BlockHeader& header = HeaderOf(&block);
  header.bytenr.Set(bytenr);
  header.generation.Set(kGeneration);
  header.level.Set(level);
  header.nritems.Set(static_cast<uint32_t>(count));
  return block;
}

using Item = std::pair<ZorvEngine::Key, Bytes>;

inline Bytes MakeLeaf(uint64_t bytenr, const std::vector<Item>& items) {
  Bytes block = EmptyBlock(bytenr, 0, items.size());
  size_t end = kNodeSize - sizeof(ZorvEngine::BlockHeader);
  for (size_t i = 0; i < items.size(); ++i) {
    end -= items[i].second.size();
    auto& item = ObjectAt<ZorvEngine::LeafItem>(
        &block, sizeof(ZorvEngine::BlockHeader) + i * sizeof(ZorvEngine::LeafItem));
    item.key.Set(items[i].first);
    item.offset.Set(static_cast<uint32_t>(end));
    item.size.Set(static_cast<uint32_t>(items[i].second.size()));
    std::copy(items[i].second.begin(), items[i].second.end(),
              block.begin() + static_cast<long>(sizeof(ZorvEngine::BlockHeader) + end));
  }
  Seal(&block);
  return block;
}

struct Child {
  ZorvEngine::Key key;
  uint64_t bytenr;
};

inline Bytes MakeNode(uint64_t bytenr, uint8_t level, const std::vector<Child>& children) {
  Bytes block = EmptyBlock(bytenr, level, children.size());
  for (size_t i = 0; i < children.size(); ++i) {
    auto& pointer = ObjectAt<ZorvEngine::KeyPointer>(
        &block, sizeof(ZorvEngine::BlockHeader) + i * sizeof(ZorvEngine::KeyPointer));
    pointer.key.Set(children[i].key);
    pointer.bytenr.Set(children[i].bytenr);
    pointer.generation.Set(kGeneration);
  }
  Seal(&block);
  return block;
}

// A chunk item with a stripe at each of `stripes`.
inline Bytes MakeChunkOn(uint64_t length, uint64_t type,
                         const std::vector<ZorvEngine::Place>& stripes) {
  ZorvEngine::ChunkItem chunk{};
  chunk.length.Set(length);
  chunk.stripeLength.Set(ZorvEngine::ChunkMap::kStripeBytes);
  chunk.type.Set(type);
  chunk.numStripes.Set(static_cast<uint16_t>(stripes.size()));
  chunk.subStripes.Set((type & kRaid10) != 0 ? 2 : 1);
  Bytes bytes = BytesOf(chunk);
  for (const ZorvEngine::Place& place : stripes) {
    ZorvEngine::ChunkStripe stripe{};
    stripe.devid.Set(place.devid);
    stripe.offset.Set(place.offset);
    AppendTo(&bytes, BytesOf(stripe));
  }
  return bytes;
}

// The same with all stripes on device 1.
inline Bytes MakeChunk(uint64_t length, uint64_t type, const std::vector<uint64_t>& offsets) {
  std::vector<ZorvEngine::Place> stripes;
  for (const uint64_t offset : offsets) stripes.push_back({1, offset});
  return MakeChunkOn(length, type, stripes);
}

inline ZorvEngine::Key ChunkKey(uint64_t logical) {
  return {256, ZorvEngine::kChunkItemType, logical};
}

// A device in memory; counts reads and can fail at places.
class MemoryDevice : public ZorvEngine::ByteSource {
 public:
  explicit MemoryDevice(size_t size) : bytes_(size) {}

  ZorvEngine::Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) override {
    ++reads_;
    if (seek_.count() > 0) std::this_thread::sleep_for(seek_);
    if (offset > bytes_.size() || size > bytes_.size() - offset)
      return ZorvEngine::Status::Failed("beyond the end");
    for (const uint64_t bad : broken_)
      if (bad >= offset && bad < offset + size)
        return ZorvEngine::Status::Failed("Input/output error");
    memcpy(buffer, bytes_.data() + offset, size);
    return ZorvEngine::Status();
  }
  uint64_t Size() const override { return bytes_.size(); }
  bool Rotates() const override { return rotates_; }

  void Put(uint64_t offset, const Bytes& block) {
    std::copy(block.begin(), block.end(), bytes_.begin() + static_cast<long>(offset));
  }
  void Break(uint64_t offset) { broken_.insert(offset); }
  // Is said to rotate from now on, and takes that long to get to a place.
  void Rotate(std::chrono::milliseconds seek) {
    rotates_ = true;
    seek_ = seek;
  }
  int Reads() const { return reads_; }

 private:
  Bytes bytes_;
  std::set<uint64_t> broken_;
  std::atomic<int> reads_{0};
  bool rotates_ = false;
  std::chrono::milliseconds seek_{0};
};

// Puts a device in memory into a set; the reference is good as long as the set holds it.
inline MemoryDevice& AddMemoryDevice(ZorvEngine::DeviceSet* devices, uint64_t devid, size_t size) {
  auto memory = std::make_unique<MemoryDevice>(size);
  MemoryDevice& device = *memory;
  devices->Add(devid, {std::move(memory), {}, {}});
  return device;
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_BLOCKS_H_
