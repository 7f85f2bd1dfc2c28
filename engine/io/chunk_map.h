// chunk_map.h: from logical addresses to places on the devices.
#ifndef ENGINE_IO_CHUNK_MAP_H_
#define ENGINE_IO_CHUNK_MAP_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <tuple>
#include <vector>

#include "engine/ondisk/byte_view.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Logical addresses from `begin` up to, not including, `end`.
struct LogicalRange {
  uint64_t begin;
  uint64_t end;
};

// How much room on the devices something takes in a chunk.
struct Redundancy {
  uint64_t profile = 0;      // bit as in <linux/btrfs_tree.h>; 0: single
  uint32_t stripes = 1;      // of the chunk, copies and parity included;
  uint32_t dataStripes = 1;  // of these, how many hold different data
};

inline bool operator==(const Redundancy& a, const Redundancy& b) {
  return a.profile == b.profile && a.stripes == b.stripes && a.dataStripes == b.dataStripes;
}

// The name by which users know a profile, such as "raid1".
const char* ProfileName(uint64_t profile);

// A chunk, and which of several redundancies it has.
struct RedundantRange {
  uint64_t begin;
  uint64_t end;
  size_t redundancy;
};

// An address on one of the devices.
struct Place {
  uint64_t devid = 0;
  uint64_t offset = 0;
};

inline auto PlaceOrder(const Place& place) { return std::tie(place.devid, place.offset); }
inline bool operator==(const Place& a, const Place& b) { return PlaceOrder(a) == PlaceOrder(b); }
inline bool operator<(const Place& a, const Place& b) { return PlaceOrder(a) < PlaceOrder(b); }

// The places of all copies of something, first copy first.  No profile has more than four.
class Places {
 public:
  static constexpr size_t kMost = 4;

  void Add(const Place& place) { places_[count_++] = place; }
  bool Empty() const { return count_ == 0; }
  const Place* begin() const { return places_; }
  const Place* end() const { return places_ + count_; }

 private:
  Place places_[kMost];
  size_t count_ = 0;
};

struct ChunkProfile;

// The chunks of a file system, of any profile, on any number of devices.
//
// Striped profiles put kStripeBytes on one device, then go on to the next.  A tree block lies
// within one such piece, since chunks and pieces begin at multiples of its size.
class ChunkMap {
 public:
  // Bytes of one piece; the kernel knows no other size (BTRFS_STRIPE_LEN).
  static constexpr uint64_t kStripeBytes = 64 << 10;

  // Adds the chunk of one chunk item; the same chunk may be added twice.
  // Fails for an item that does not add up, an unknown profile, and an overlap.
  Status Add(const Key& key, ByteView item);

  // Adds the chunks that the superblock carries, which are those of the chunk tree itself.
  Status AddSystemChunks(const Superblock& superblock);

  // The places of all copies of `length` bytes at `logical`; parity is no copy.  Empty when the
  // range is not inside one chunk, or not inside one piece of a striped one.
  Places Find(uint64_t logical, uint64_t length) const;

  // Calls `sink` for each chunk that holds tree blocks, in their order, with the numbers of devices
  // one of which is enough to read each piece.  What parity could rebuild does not count.
  using CopiesSink = std::function<void(uint64_t logical, const std::vector<uint64_t>& devices)>;
  void EachMetadataCopies(const CopiesSink& sink) const;

  // The ranges of all chunks whose type has the bit `kind`, such as kChunkData; sorted, neighbours
  // joined.
  std::vector<LogicalRange> Ranges(uint64_t kind) const;

  // All chunks, sorted, each with its redundancy as a position in `redundancies`, which receives
  // the different ones.
  std::vector<RedundantRange> RedundantRanges(std::vector<Redundancy>* redundancies) const;

 private:
  struct Chunk {
    uint64_t length;
    uint64_t type;
    const ChunkProfile* profile;
    std::vector<Place> stripes;
  };

  static Places FindStriped(const Chunk& chunk, uint64_t within, uint64_t length);

  std::map<uint64_t, Chunk> chunks_;  // by logical start
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_CHUNK_MAP_H_
