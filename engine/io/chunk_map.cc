#include "engine/io/chunk_map.h"

#include <string>

namespace ZorvEngine {
namespace {

// The profile bits of a chunk type and what users call them, as in <linux/btrfs_tree.h>.
const struct {
  uint64_t bit;
  const char* name;
} kProfiles[] = {
    {1ULL << 3, "raid0"}, {1ULL << 4, "raid1"}, {kChunkDup, "dup"},     {1ULL << 6, "raid10"},
    {1ULL << 7, "raid5"}, {1ULL << 8, "raid6"}, {1ULL << 9, "raid1c3"}, {1ULL << 10, "raid1c4"},
};

Status Corrupt(uint64_t logical, const char* what) {
  return Status::Failed("the chunk at " + std::to_string(logical) + " is damaged: " + what);
}

// Fails unless the type of a chunk means the profile single or dup.
Status CheckProfile(uint64_t logical, uint64_t type) {
  const uint64_t profile = type & ~kChunkKinds;
  if (profile == 0 || profile == kChunkDup) return Status();
  for (const auto& known : kProfiles)
    if (profile == known.bit)
      return Status::Failed(std::string("the file system uses the profile ") + known.name +
                            "; this engine reads single and dup");
  return Corrupt(logical, "its profile is unknown");
}

}  // namespace

Status ChunkMap::Add(const Key& key, ByteView item) {
  const uint64_t logical = key.offset;
  const ChunkItem* chunk = item.At<ChunkItem>(0);
  if (chunk == nullptr) return Corrupt(logical, "its item is short");
  const uint16_t stripeCount = chunk->numStripes.Get();
  const ChunkStripe* stripes = item.At<ChunkStripe>(sizeof(ChunkItem), stripeCount);
  if (stripes == nullptr) return Corrupt(logical, "its item is short");
  ENGINE_TRY(CheckProfile(logical, chunk->type.Get()));

  const uint16_t expected = (chunk->type.Get() & kChunkDup) != 0 ? 2 : 1;
  if (stripeCount != expected) return Corrupt(logical, "its number of stripes is impossible");
  const uint64_t length = chunk->length.Get();
  if (length == 0 || length > UINT64_MAX - logical)
    return Corrupt(logical, "its length is impossible");

  Chunk added{length, chunk->type.Get(), {}};
  for (uint16_t i = 0; i < stripeCount; ++i) {
    if (stripes[i].devid.Get() != devid_)
      return Status::Failed(
          "the file system has several devices; this engine reads file systems of one device");
    if (length > UINT64_MAX - stripes[i].offset.Get()) return Corrupt(logical, "it lies nowhere");
    added.copies.push_back(stripes[i].offset.Get());
  }

  const auto next = chunks_.upper_bound(logical);
  if (next != chunks_.end() && next->first - logical < length)
    return Corrupt(logical, "it overlaps");
  if (next != chunks_.begin()) {
    const auto before = std::prev(next);
    if (before->first != logical && logical - before->first < before->second.length)
      return Corrupt(logical, "it overlaps");
  }
  chunks_[logical] = std::move(added);
  return Status();
}

Status ChunkMap::AddSystemChunks(const Superblock& superblock) {
  const uint32_t size = superblock.systemChunkArraySize.Get();
  if (size > kSystemChunkArraySize)
    return Status::Failed("the system chunk array of the superblock is damaged");

  const ByteView array(superblock.systemChunkArray, size);
  size_t at = 0;
  while (at < size) {
    const DiskKey* key = array.At<DiskKey>(at);
    const ChunkItem* chunk = array.At<ChunkItem>(at + sizeof(DiskKey));
    if (key == nullptr || chunk == nullptr || key->Get().type != kChunkItemType)
      return Status::Failed("the system chunk array of the superblock is damaged");
    ByteView item;
    const size_t itemSize = sizeof(ChunkItem) + chunk->numStripes.Get() * sizeof(ChunkStripe);
    if (!array.Sub(at + sizeof(DiskKey), itemSize, &item))
      return Status::Failed("the system chunk array of the superblock is damaged");
    ENGINE_TRY(Add(key->Get(), item));
    at += sizeof(DiskKey) + itemSize;
  }
  return Status();
}

std::vector<uint64_t> ChunkMap::Find(uint64_t logical, uint64_t length) const {
  std::vector<uint64_t> places;
  auto chunk = chunks_.upper_bound(logical);
  if (chunk == chunks_.begin()) return places;
  --chunk;
  const uint64_t within = logical - chunk->first;
  if (within >= chunk->second.length || length > chunk->second.length - within) return places;
  for (const uint64_t copy : chunk->second.copies) places.push_back(copy + within);
  return places;
}

std::vector<LogicalRange> ChunkMap::Ranges(uint64_t kind) const {
  std::vector<LogicalRange> ranges;
  for (const auto& [logical, chunk] : chunks_) {
    if ((chunk.type & kind) == 0) continue;
    if (!ranges.empty() && ranges.back().end == logical)
      ranges.back().end += chunk.length;
    else
      ranges.push_back({logical, logical + chunk.length});
  }
  return ranges;
}

}  // namespace ZorvEngine
