#include "engine/io/chunk_map.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace ZorvEngine {

// How a profile spreads a chunk over its stripes.  Bits as in <linux/btrfs_tree.h>.
struct ChunkProfile {
  uint64_t bit;
  const char* name;
  uint16_t fewest;  // stripes that a chunk has at least,
  uint16_t most;    // and at most
  uint16_t copies;  // of each byte
  uint16_t parity;  // stripes of each row that hold no data
  bool striped;
};

namespace {

constexpr uint16_t kAnyNumber = UINT16_MAX;

constexpr ChunkProfile kProfiles[] = {
    {0, "single", 1, 1, 1, 0, false},
    {1ULL << 3, "raid0", 1, kAnyNumber, 1, 0, true},
    {1ULL << 4, "raid1", 2, 2, 2, 0, false},
    {kChunkDup, "dup", 2, 2, 2, 0, false},
    {1ULL << 6, "raid10", 2, kAnyNumber, 2, 0, true},
    {1ULL << 7, "raid5", 2, kAnyNumber, 1, 1, true},
    {1ULL << 8, "raid6", 3, kAnyNumber, 1, 2, true},
    {1ULL << 9, "raid1c3", 3, 3, 3, 0, false},
    {1ULL << 10, "raid1c4", 4, 4, 4, 0, false},
};

constexpr uint64_t KnownProfileBits() {
  uint64_t bits = 0;
  for (const ChunkProfile& profile : kProfiles) bits |= profile.bit;
  return bits;
}

Status Corrupt(uint64_t logical, const char* what) {
  return Status::Failed("the chunk at " + std::to_string(logical) + " is damaged: " + what);
}

// Finds the profile that the type of a chunk means.
Status FindProfile(uint64_t logical, uint64_t type, const ChunkProfile** out) {
  const uint64_t unknown = type & ~(kChunkKinds | KnownProfileBits());
  if (unknown != 0)
    return Status::Failed("the chunk at " + std::to_string(logical) +
                          " has a profile that this engine does not know (bit " +
                          std::to_string(__builtin_ctzll(unknown)) + "); use a newer engine");
  for (const ChunkProfile& profile : kProfiles) {
    if ((type & ~kChunkKinds) != profile.bit) continue;
    *out = &profile;
    return Status();
  }
  return Corrupt(logical, "it has two profiles");
}

// How many stripes hold different data.
uint64_t DataStripes(const ChunkProfile& profile, size_t stripes) {
  return profile.striped ? (stripes - profile.parity) / profile.copies : 1;
}

}  // namespace

const char* ProfileName(uint64_t profile) {
  for (const ChunkProfile& known : kProfiles)
    if (known.bit == profile) return known.name;
  return "unknown";
}

Status ChunkMap::Add(const Key& key, ByteView item) {
  const uint64_t logical = key.offset;
  const ChunkItem* chunk = item.At<ChunkItem>(0);
  if (chunk == nullptr) return Corrupt(logical, "its item is short");
  const uint16_t stripeCount = chunk->numStripes.Get();
  const ChunkStripe* stripes = item.At<ChunkStripe>(sizeof(ChunkItem), stripeCount);
  if (stripes == nullptr) return Corrupt(logical, "its item is short");

  const uint64_t length = chunk->length.Get();
  Chunk added{length, chunk->type.Get(), nullptr, {}};
  ENGINE_TRY(FindProfile(logical, added.type, &added.profile));
  const ChunkProfile& profile = *added.profile;
  if (stripeCount < profile.fewest || stripeCount > profile.most ||
      (stripeCount - profile.parity) % profile.copies != 0)
    return Corrupt(logical, "its number of stripes is impossible");
  if (profile.striped && chunk->stripeLength.Get() != kStripeBytes)
    return Corrupt(logical, "its stripe length is impossible");
  if (profile.striped && profile.copies != 1 && chunk->subStripes.Get() != profile.copies)
    return Corrupt(logical, "its number of copies is impossible");
  if (length == 0 || length > UINT64_MAX - logical)
    return Corrupt(logical, "its length is impossible");

  // The last row may be there in part only: a row more than the quotient is room enough.
  const uint64_t room = length / DataStripes(profile, stripeCount);
  for (uint16_t i = 0; i < stripeCount; ++i) {
    const Place place{stripes[i].devid.Get(), stripes[i].offset.Get()};
    if (place.offset > UINT64_MAX - kStripeBytes || room > UINT64_MAX - kStripeBytes - place.offset)
      return Corrupt(logical, "it lies nowhere");
    added.stripes.push_back(place);
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

Places ChunkMap::Find(uint64_t logical, uint64_t length) const {
  auto found = chunks_.upper_bound(logical);
  if (found == chunks_.begin()) return Places();
  --found;
  const Chunk& chunk = found->second;
  const uint64_t within = logical - found->first;
  if (within >= chunk.length || length > chunk.length - within) return Places();
  if (chunk.profile->striped) return FindStriped(chunk, within, length);

  Places places;
  for (const Place& stripe : chunk.stripes) places.Add({stripe.devid, stripe.offset + within});
  return places;
}

// Pieces are dealt to the stripes row by row.  With parity each row begins one stripe further on
// than the row before, so that every device gets its share of the parity, which ends the row.
Places ChunkMap::FindStriped(const Chunk& chunk, uint64_t within, uint64_t length) {
  const uint64_t inPiece = within % kStripeBytes;
  if (length > kStripeBytes - inPiece) return Places();

  const ChunkProfile& profile = *chunk.profile;
  const uint64_t perRow = DataStripes(profile, chunk.stripes.size());
  const uint64_t piece = within / kStripeBytes;
  const uint64_t row = piece / perRow;
  uint64_t first = piece % perRow * profile.copies;
  if (profile.parity != 0) first = (first + row) % chunk.stripes.size();

  Places places;
  for (uint64_t copy = 0; copy < profile.copies; ++copy) {
    const Place& stripe = chunk.stripes[first + copy];
    places.Add({stripe.devid, stripe.offset + row * kStripeBytes + inPiece});
  }
  return places;
}

// Stripes that stand side by side hold the same; parity moves over all of them.
void ChunkMap::EachMetadataCopies(const CopiesSink& sink) const {
  for (const auto& [logical, chunk] : chunks_) {
    if ((chunk.type & (kChunkMetadata | kChunkSystem)) == 0) continue;
    const size_t copies = chunk.profile->copies;
    for (size_t first = 0; first < chunk.stripes.size(); first += copies) {
      std::vector<uint64_t> devices;
      for (size_t copy = 0; copy < copies; ++copy)
        devices.push_back(chunk.stripes[first + copy].devid);
      sink(logical, devices);
    }
  }
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

std::vector<RedundantRange> ChunkMap::RedundantRanges(std::vector<Redundancy>* redundancies) const {
  std::vector<RedundantRange> ranges;
  for (const auto& [logical, chunk] : chunks_) {
    const ChunkProfile& profile = *chunk.profile;
    const uint64_t dataStripes = DataStripes(profile, chunk.stripes.size());
    const Redundancy own{profile.bit, static_cast<uint32_t>(chunk.stripes.size()),
                         static_cast<uint32_t>(dataStripes)};
    const auto found = std::find(redundancies->begin(), redundancies->end(), own);
    ranges.push_back(
        {logical, logical + chunk.length, static_cast<size_t>(found - redundancies->begin())});
    if (found == redundancies->end()) redundancies->push_back(own);
  }
  return ranges;
}

}  // namespace ZorvEngine
