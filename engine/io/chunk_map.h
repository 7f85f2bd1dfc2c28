// chunk_map.h: from logical addresses to places on the device.
#ifndef ENGINE_IO_CHUNK_MAP_H_
#define ENGINE_IO_CHUNK_MAP_H_

#include <cstdint>
#include <map>
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

// The chunks of a file system on one device, profiles single and dup.
class ChunkMap {
 public:
  // `devid` is the number of the only device; a chunk elsewhere is refused.
  explicit ChunkMap(uint64_t devid) : devid_(devid) {}

  // Adds the chunk of one chunk item; the same chunk may be added twice.
  // Fails for an item that does not add up, another profile, another device, and an overlap.
  Status Add(const Key& key, ByteView item);

  // Adds the chunks that the superblock carries, which are those of the chunk tree itself.
  Status AddSystemChunks(const Superblock& superblock);

  // The device addresses of all copies of `length` bytes at `logical`, first copy first; empty when
  // the range is not inside one chunk.
  std::vector<uint64_t> Find(uint64_t logical, uint64_t length) const;

  // The ranges of all chunks whose type has the bit `kind`, such as kChunkData; sorted, neighbours
  // joined.
  std::vector<LogicalRange> Ranges(uint64_t kind) const;

 private:
  struct Chunk {
    uint64_t length;
    uint64_t type;
    std::vector<uint64_t> copies;  // device address of each
  };

  uint64_t devid_;
  std::map<uint64_t, Chunk> chunks_;  // by logical start
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_CHUNK_MAP_H_
