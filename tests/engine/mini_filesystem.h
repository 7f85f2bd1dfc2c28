// A whole file system in memory, each tree one leaf, for what a real one does not show on demand.
#ifndef TESTS_ENGINE_MINI_FILESYSTEM_H_
#define TESTS_ENGINE_MINI_FILESYSTEM_H_

#include <algorithm>
#include <string>
#include <vector>

#include "engine/io/state_source.h"
#include "tests/engine/blocks.h"

namespace ZorvTest {

// Addresses are their own places; tree blocks lie at kChunkRoot and after it.  A test adds items to
// the trees, then Write() puts all of it on the device.
class MiniFilesystem : public ZorvEngine::StateSource {
 public:
  static constexpr uint64_t kMiB = 1 << 20;
  static constexpr uint64_t kChunkRoot = 2 * kMiB;
  static constexpr uint64_t kRootTree = kChunkRoot + kNodeSize;
  static constexpr uint64_t kExtentTree = kChunkRoot + 2 * kNodeSize;
  static constexpr uint64_t kSubvolume = kChunkRoot + 3 * kNodeSize;
  static constexpr uint64_t kSubvolumeId = 257;
  static constexpr uint64_t kData = 3 * kMiB;  // where data extents may be entered

  MiniFilesystem() {
    ZorvEngine::DeviceItem deviceItem{};
    chunks_.push_back({{1, ZorvEngine::kDeviceItemType, 1}, BytesOf(deviceItem)});
    chunks_.push_back({ChunkKey(0), OnlyMetadataChunk()});
    AddRoot(ZorvEngine::kExtentTreeId, kExtentTree);
    AddRoot(kSubvolumeId, kSubvolume);
    AddTreeExtent(kSubvolume, 1);
  }

  // The items of the trees; in any order.
  std::vector<Item>& Chunks() { return chunks_; }
  std::vector<Item>& Roots() { return roots_; }
  std::vector<Item>& Extents() { return extents_; }
  std::vector<Item>& Files() { return files_; }

  void AddRoot(uint64_t id, uint64_t bytenr, uint32_t refs = 1, uint8_t level = 0) {
    ZorvEngine::RootItem root{};
    root.bytenr.Set(bytenr);
    root.generation.Set(kGeneration);
    root.refs.Set(refs);
    root.level.Set(level);
    roots_.push_back({{id, ZorvEngine::kRootItemType, 0}, BytesOf(root)});
  }

  // Has the extent tree begin at another block, and be said to take `bytes`.
  void SetExtentTree(uint64_t bytenr, uint8_t level, uint64_t bytes) {
    auto& root = ObjectAt<ZorvEngine::RootItem>(&roots_[0].second, 0);
    root.bytenr.Set(bytenr);
    root.level.Set(level);
    root.bytesUsed.Set(bytes);
    PutLeaf(kRootTree, &roots_);
  }

  // A skinny metadata item.
  void AddTreeExtent(uint64_t bytenr, uint64_t refs, uint8_t level = 0) {
    extents_.push_back({{bytenr, ZorvEngine::kMetadataItemType, level},
                        ExtentBytes(refs, ZorvEngine::kExtentIsTreeBlock)});
  }

  void AddDataExtent(uint64_t bytenr, uint64_t length, uint64_t refs) {
    extents_.push_back({{bytenr, ZorvEngine::kExtentItemType, length},
                        ExtentBytes(refs, ZorvEngine::kExtentIsData)});
  }

  // A file extent item of inode 258 at `at`, referring to the extent at `bytenr`.
  void AddFileExtent(uint64_t at, uint64_t bytenr, uint8_t type = ZorvEngine::kFileExtentRegular) {
    files_.push_back(FileExtent(258, at, bytenr, type));
  }

  static Item FileExtent(uint64_t inode, uint64_t at, uint64_t bytenr, uint8_t type) {
    ZorvEngine::FileExtentHead head{};
    head.type.Set(type);
    ZorvEngine::FileExtentPlace place{};
    place.diskBytenr.Set(bytenr);
    place.diskBytes.Set(4096);
    Bytes bytes = BytesOf(head);
    AppendTo(&bytes, BytesOf(place));
    return {{inode, ZorvEngine::kFileExtentType, at}, bytes};
  }

  static Bytes OnlyMetadataChunk() { return MakeChunk(4 * kMiB, ZorvEngine::kChunkMetadata, {0}); }

  static Bytes ExtentBytes(uint64_t refs, uint64_t flags) {
    ZorvEngine::ExtentItem item{};
    item.refs.Set(refs);
    item.generation.Set(kGeneration);
    item.flags.Set(flags);
    return BytesOf(item);
  }

  void Write() {
    PutLeaf(kChunkRoot, &chunks_);
    PutLeaf(kRootTree, &roots_);
    PutLeaf(kExtentTree, &extents_);
    PutLeaf(kSubvolume, &files_);
  }

  // Puts a leaf of further items at `bytenr`.
  void PutLeaf(uint64_t bytenr, std::vector<Item>* items) {
    std::sort(items->begin(), items->end(),
              [](const Item& a, const Item& b) { return a.first < b.first; });
    device_.Put(bytenr, MakeLeaf(bytenr, *items));
  }

  ZorvEngine::Superblock MakeSuperblock(uint64_t generation = kGeneration) const {
    ZorvEngine::Superblock superblock{};
    superblock.generation.Set(generation);
    superblock.root.Set(kRootTree);
    superblock.chunkRoot.Set(kChunkRoot);
    superblock.chunkRootGeneration.Set(kGeneration);
    superblock.numDevices.Set(1);
    superblock.sectorSize.Set(4096);
    superblock.nodeSize.Set(kNodeSize);
    superblock.device.devid.Set(1);
    Bytes array;
    ZorvEngine::DiskKey key{};
    key.Set(ChunkKey(0));
    AppendTo(&array, BytesOf(key));
    AppendTo(&array, OnlyMetadataChunk());
    superblock.systemChunkArraySize.Set(static_cast<uint32_t>(array.size()));
    std::copy(array.begin(), array.end(), superblock.systemChunkArray);
    return superblock;
  }

  // StateSource: superblocks are handed out in the order of `Superblocks()`, the last for ever.
  std::vector<ZorvEngine::Superblock>& Superblocks() { return superblocks_; }
  std::string& CommitNote() { return commitNote_; }
  MemoryDevice& Memory() { return device_; }

  const ZorvEngine::DeviceSet& Devices() const override { return devices_; }
  ZorvEngine::Status CommitAndReadSuperblock(ZorvEngine::Superblock* out,
                                             std::string* note) override {
    *note = commitNote_;
    return ReadSuperblock(out);
  }
  ZorvEngine::Status ReadSuperblock(ZorvEngine::Superblock* out) override {
    *out = superblocks_.empty() ? MakeSuperblock()
                                : superblocks_[std::min(next_, superblocks_.size() - 1)];
    ++next_;
    return ZorvEngine::Status();
  }

 private:
  ZorvEngine::DeviceSet devices_;
  MemoryDevice& device_ = AddMemoryDevice(&devices_, 1, 4 * kMiB);
  std::vector<Item> chunks_, roots_, extents_, files_;
  std::vector<ZorvEngine::Superblock> superblocks_;
  size_t next_ = 0;
  std::string commitNote_;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_MINI_FILESYSTEM_H_
