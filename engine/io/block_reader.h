// block_reader.h: reads tree blocks, one or very many, verifies each, and keeps the last ones.
#ifndef ENGINE_IO_BLOCK_READER_H_
#define ENGINE_IO_BLOCK_READER_H_

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "engine/io/byte_source.h"
#include "engine/io/chunk_map.h"
#include "engine/io/device_set.h"
#include "engine/io/read_meter.h"
#include "engine/io/read_pipeline.h"
#include "engine/io/read_plan.h"
#include "engine/io/seek_pace.h"
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

// A block that could not be had: the index of its pointer, and why (Status::kBadBlock).
struct BadBlock {
  size_t index;
  Status why;
};

// A copy that could not be used, in whose place another was.
struct BadCopy {
  BlockPointer pointer;
  Place place;
  std::string why;
  bool unreadable;  // the device would not give it
};

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
// devices alone is Status::kNoDevice, which names the first of them: nothing is rebuilt from parity
// here. Where a later commit than that of the state has put another block, no copy is looked for:
// slow devices would be kept busy with what is gone. Place and generation together name one content
// for ever, so blocks stay in the cache when the reader moves on to a newer superblock.
class BlockReader {
 public:
  // Bytes of blocks that the cache holds at most: the upper levels of the trees, and the leaves
  // that searches come back to.
  static constexpr size_t kCacheBytes = 8u << 20;

  // As many copies that could not be used are kept in mind.
  static constexpr size_t kMostBadCopies = 64;

  // Devices and meter are the caller's and outlive the reader; the set may change between reads.
  BlockReader(const DeviceSet& devices, const BlockFormat& format, ReadMeter& meter,
              const ReadOptions& options = {});

  // Makes all further reads use `chunks`; without this nothing can be read.
  void UseChunks(ChunkMap chunks) { chunks_ = std::move(chunks); }

  // All further reads are of the state that the commit of this generation left.
  void UseState(uint64_t generation) { stateGeneration_ = generation; }

  // Makes all further reads expect this chunk tree uuid (16 bytes) in the headers.
  void ExpectChunkTree(const uint8_t* uuid);

  // The chunks in use; the reader's own.
  const ChunkMap& Chunks() const { return chunks_; }

  uint32_t NodeSize() const { return format_.nodeSize; }

  // Whether one of the devices rotates: single blocks then cost much more than neighbours.
  bool Rotates() const { return devices_.Rotates(); }

  // Whether a block is in the cache and need not be read.
  bool Has(const BlockPointer& pointer) const;

  // Reads one block; `out` is written on success only.
  Status Read(const BlockPointer& pointer, TreeBlockPtr* out);

  // Reads all blocks, about in the order of their places on the devices, neighbours there in one
  // request, with many requests in flight, and gives each to `visit`, on as many threads as there
  // are processors (at most 4).  A block none of whose copies verifies goes to the end of `bad`
  // (sorted by index), and the sweep goes on; anything else that fails ends it, `visit`'s failure
  // included. Blocks that the cache has are taken from there; none is added to it.
  //
  // `visit` takes a verified block by the index of its pointer; the bytes live during the call.  It
  // is called from several threads at once and must not use the reader.
  using SweepVisitor = std::function<Status(size_t index, const TreeBlockView& block)>;
  Status Sweep(const std::vector<BlockPointer>& pointers, const SweepVisitor& visit,
               std::vector<BadBlock>* bad);

  // Reads all blocks as Sweep does, keeps them in the cache, and gives them to `visit` one at a
  // time, in any order.  Ends at the first failure, a bad block or `visit`'s included.
  using Visitor = std::function<Status(const TreeBlockView&)>;
  Status ReadMany(const std::vector<BlockPointer>& pointers, const Visitor& visit);

  // The copies that could not be used until now, at most kMostBadCopies, each once, in the order of
  // their blocks.  Each is looked at again: one that was just being written, or whose block a later
  // commit has given up since, is none.  Not while a sweep goes on.
  std::vector<BadCopy> FindBadCopies();

 private:
  // Takes a block that could not be had; its failure ends the sweep.  From several threads at once.
  using BadSink = std::function<Status(size_t index, Status why)>;
  using CacheList = std::list<TreeBlockPtr>;

  // What a sweep is about; lives as long as it.
  struct SweepJob {
    const std::vector<BlockPointer>& pointers;
    const SweepVisitor& visit;
    const BadSink& onBad;
    std::vector<WantedBlock> wanted;
    std::vector<PlannedRead> reads;  // of all that are wanted
  };

  TreeBlockPtr FindCached(const BlockPointer& pointer);
  void Keep(const TreeBlockPtr& block);
  Status SweepInto(const std::vector<BlockPointer>& pointers, const SweepVisitor& visit,
                   const BadSink& onBad);
  Status VisitCached(SweepJob* job);
  Status WantBlock(size_t index, SweepJob* job) const;
  Status ReadAsPlanned(const SweepJob& job, size_t first, size_t count);
  Status ReadInRounds(SweepJob* job);
  void Plan(SweepJob* job) const;
  bool AnyRotates(const SweepJob& job) const;
  Status TakeRead(const SweepJob& job, const PlannedRead& read, uint8_t* bytes, const Status& done);
  Status TakeBlock(const SweepJob& job, const WantedBlock& block, uint8_t* bytes,
                   const Status& done);
  Status ReadCopies(const BlockPointer& pointer, uint8_t* bytes, std::optional<TreeBlockView>* out);
  std::string TryCopy(const BlockPointer& pointer, const Place& place, uint8_t* bytes,
                      std::optional<TreeBlockView>* out, bool* unreadable) const;
  void KeepInMind(const std::vector<BadCopy>& bad);
  bool IsStillBad(const BadCopy& copy);
  bool IsReused(const BlockPointer& pointer, const Device& device, const uint8_t* bytes) const;
  Status NoCopyIsThere(const BlockPointer& pointer, const Places& places) const;
  std::string Verify(const BlockPointer& pointer, const Device& device, const uint8_t* bytes,
                     std::optional<TreeBlockView>* out) const;
  std::string CheckHeader(const BlockPointer& pointer, const Device& device,
                          const BlockHeader& header) const;

  const DeviceSet& devices_;
  BlockFormat format_;
  ReadMeter& meter_;
  ChunkMap chunks_;
  std::optional<std::vector<uint8_t>> chunkTreeUuid_;
  uint64_t stateGeneration_ = UINT64_MAX;
  AlignedBuffer buffer_;  // of one block
  std::mutex badCopiesMutex_;
  using CopyKey = std::tuple<uint64_t, uint64_t, Place>;  // block, generation, where
  std::map<CopyKey, BadCopy> badCopies_;
  ReadPipeline pipeline_;
  SeekPace pace_;     // of the devices that rotate, if any
  CacheList recent_;  // front: used last
  std::unordered_map<uint64_t, CacheList::iterator> byPlace_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_BLOCK_READER_H_
