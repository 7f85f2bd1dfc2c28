// Hand-made tree blocks, chunks and devices in memory, for tests that need no file system.
#ifndef TESTS_ENGINE_BLOCKS_H_
#define TESTS_ENGINE_BLOCKS_H_

#include <string.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/io/byte_source.h"
#include "engine/ondisk/checksum.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"

namespace ZorvTest {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kNodeSize = 4096;
inline constexpr uint64_t kGeneration = 77;

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

// A chunk item with one stripe on device 1 for each of `places`.
inline Bytes MakeChunk(uint64_t length, uint64_t type, const std::vector<uint64_t>& places,
                       uint64_t devid = 1) {
  ZorvEngine::ChunkItem chunk{};
  chunk.length.Set(length);
  chunk.type.Set(type);
  chunk.numStripes.Set(static_cast<uint16_t>(places.size()));
  Bytes bytes = BytesOf(chunk);
  for (const uint64_t place : places) {
    ZorvEngine::ChunkStripe stripe{};
    stripe.devid.Set(devid);
    stripe.offset.Set(place);
    AppendTo(&bytes, BytesOf(stripe));
  }
  return bytes;
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
    if (offset > bytes_.size() || size > bytes_.size() - offset)
      return ZorvEngine::Status::Failed("beyond the end");
    for (const uint64_t bad : broken_)
      if (bad >= offset && bad < offset + size)
        return ZorvEngine::Status::Failed("Input/output error");
    memcpy(buffer, bytes_.data() + offset, size);
    return ZorvEngine::Status();
  }
  uint64_t Size() const override { return bytes_.size(); }

  void Put(uint64_t offset, const Bytes& block) {
    std::copy(block.begin(), block.end(), bytes_.begin() + static_cast<long>(offset));
  }
  void Break(uint64_t offset) { broken_.insert(offset); }
  int Reads() const { return reads_; }

 private:
  Bytes bytes_;
  std::set<uint64_t> broken_;
  int reads_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_BLOCKS_H_
