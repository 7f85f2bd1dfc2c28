// block_reader.h: reads tree blocks, verifies each, and keeps the last ones.
#ifndef ENGINE_IO_BLOCK_READER_H_
#define ENGINE_IO_BLOCK_READER_H_

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine/io/byte_source.h"
#include "engine/io/chunk_map.h"
#include "engine/io/device_set.h"
#include "engine/io/read_meter.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"
#include "engine/ondisk/tree_block.h"

namespace ZorvEngine {

// Where a tree block is and what its parent says about it.
struct BlockPointer {
  uint64_t bytenr = 0;
  uint64_t generation = 0;
  uint8_t level = 0;
  std::optional<Key> firstKey;  // none for roots, whose pointers carry no key
};

// A verified tree block with its bytes.
struct TreeBlock {
  std::vector<uint8_t> bytes;
  std::optional<TreeBlockView> view;  // always set in blocks that the reader hands out
};
using TreeBlockPtr = std::shared_ptr<const TreeBlock>;

// What all tree blocks of a file system have in common.
struct BlockFormat {
  uint32_t nodeSize = 0;
  uint16_t checksumType = 0;
};

// Reads tree blocks of one file system from its devices.
//
// Each block is verified before anybody sees it: checksum, place, file system, chunk tree, level,
// generation, first key and structure.  When a copy does not verify or its device is missing, the
// next is tried; when none does, the outcome is Status::kBadBlock.  A block that lies on missing
// devices alone is a failure that names the first of them: nothing is rebuilt from parity here.
// Place and generation together name one content for ever,
// so blocks stay in the cache when the reader moves on to a newer superblock.
class BlockReader {
 public:
  // Bytes of blocks that the cache holds at most.
  static constexpr size_t kCacheBytes = 32u << 20;
  // Bytes of one request at most, when neighbours are read together.
  static constexpr size_t kRequestBytes = 1u << 20;

  // Devices and meter are the caller's and outlive the reader; the set may change between reads.
  BlockReader(const DeviceSet& devices, const BlockFormat& format, ReadMeter& meter);

  // Makes all further reads use `chunks`; without this nothing can be read.
  void UseChunks(ChunkMap chunks) { chunks_ = std::move(chunks); }

  // Makes all further reads expect this chunk tree uuid (16 bytes) in the headers.
  void ExpectChunkTree(const uint8_t* uuid);

  uint32_t NodeSize() const { return format_.nodeSize; }

  // Reads one block; `out` is written on success only.
  Status Read(const BlockPointer& pointer, TreeBlockPtr* out);

  // Reads all blocks, in the order of their places on the devices, neighbours there in one request,
  // and gives each to `visit`.  Ends at the first failure, `visit`'s included.
  using Visitor = std::function<Status(const TreeBlockView&)>;
  Status ReadMany(std::vector<BlockPointer> pointers, const Visitor& visit);

  // Reads all blocks as ReadMany does, and gives them in the order of `pointers`.  They do not stay
  // in the cache: who reads so many has no use for them twice.
  Status ReadAll(const std::vector<BlockPointer>& pointers, std::vector<TreeBlockPtr>* out);

 private:
  // Takes a block and the index of its pointer.
  using IndexedVisitor = std::function<Status(size_t index, const TreeBlockPtr& block)>;
  using CacheList = std::list<TreeBlockPtr>;

  // A block that is to be read, by the index of its pointer, and where.
  struct Wanted {
    Place place;  // kNowhere when it cannot be read from any device that is there
    size_t index;
  };
  static constexpr Place kNowhere = {UINT64_MAX, UINT64_MAX};

  TreeBlockPtr FindCached(const BlockPointer& pointer);
  void Keep(const TreeBlockPtr& block);
  Status ReadInOrderOfPlaces(const std::vector<BlockPointer>& pointers,
                             const IndexedVisitor& visit);
  Status ReadRun(const std::vector<BlockPointer>& pointers, const Wanted* run, size_t count,
                 const IndexedVisitor& visit);
  Place FirstPlace(const BlockPointer& pointer) const;
  Status ReadUncached(const BlockPointer& pointer, TreeBlockPtr* out);
  size_t RunLength(const std::vector<Wanted>& wanted, size_t first) const;
  std::string Verify(const BlockPointer& pointer, const Device& device, const uint8_t* bytes,
                     TreeBlockPtr* out) const;
  std::string CheckHeader(const BlockPointer& pointer, const Device& device,
                          const BlockHeader& header) const;
  Status OnMissingDevice(const BlockPointer& pointer, uint64_t devid) const;

  const DeviceSet& devices_;
  BlockFormat format_;
  ReadMeter& meter_;
  ChunkMap chunks_;
  std::optional<std::vector<uint8_t>> chunkTreeUuid_;
  AlignedBuffer buffer_;
  CacheList recent_;  // front: used last
  std::unordered_map<uint64_t, CacheList::iterator> byPlace_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_BLOCK_READER_H_
