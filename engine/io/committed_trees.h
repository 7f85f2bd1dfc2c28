// committed_trees.h: the trees of a file system as one committed superblock has them.
#ifndef ENGINE_IO_COMMITTED_TREES_H_
#define ENGINE_IO_COMMITTED_TREES_H_

#include <cstdint>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// One committed state of a file system: everything read through it belongs to one point in time.
class CommittedTrees {
 public:
  // Root item of a subvolume.
  struct Subvolume {
    BlockPointer root;
    uint64_t bytesUsed = 0;  // by the blocks of the tree
    bool beingDeleted = false;
  };

  // A tree that holds what is being moved by a balance, or by a device that shrinks or goes.
  struct RelocationTree {
    uint64_t id = 0;  // kRelocationTreeId or kDataRelocationTreeId
    BlockPointer root;
    bool beingMerged = false;   // its subvolume is getting its moved blocks, or waits for that
    bool beingDropped = false;  // what is above its drop progress is gone already
  };

  // The reader is the caller's; it is told the chunks of this state.
  explicit CommittedTrees(BlockReader& reader) : reader_(reader) {}

  // Enters the state of `superblock`: reads its chunks and finds its trees.
  // Fails when a profile makes exact numbers impossible here.
  Status Load(const Superblock& superblock);

  // Looks up a subvolume; fails, naming `id`, when there is none with this number.
  Status FindSubvolume(uint64_t id, Subvolume* out);

  // Looks up a subvolume that is asked about: as FindSubvolume, and fails for one that is being
  // deleted.
  Status FindAskedSubvolume(uint64_t id, Subvolume* out);

  // Whether a subvolume is being deleted.  Until that has ended it holds what it shared.
  Status FindDeletion(bool* found);

  // Where tree blocks and where data may lie; with mixed block groups they are the same.
  const std::vector<LogicalRange>& MetadataRanges() const { return metadataRanges_; }
  const std::vector<LogicalRange>& DataRanges() const { return dataRanges_; }

  // All chunks, sorted, and the different redundancies that they have.
  const std::vector<RedundantRange>& RedundantRanges() const { return redundantRanges_; }
  const std::vector<Redundancy>& Redundancies() const { return redundancies_; }

  // The trees of what is being moved: those of tree blocks, which are there for the time of a move
  // only, and that of data.  To users they are nobody, yet they hold what they hold.
  const std::vector<RelocationTree>& RelocationTrees() const { return relocationTrees_; }

  // Status::kUnsettled while subvolumes get their moved blocks.  One has its own by then and
  // another has not: what they share lies in two places, and looks as if each held it alone.
  Status CheckSettled() const;

  // Whether data is being moved.  Who writes to a leaf meanwhile may be given the new place of the
  // data there, and snapshots of it keep the old place until their turn comes.
  Status FindMovingData(bool* found);

  // Status::kUnsettled for that reason.
  static Status DataIsHandedOver();

  // Root of the extent tree.
  const BlockPointer& ExtentRoot() const { return extentRoot_; }

  // What the blocks of the extent tree take, as its root item says: nothing to rely on, but cheap.
  uint64_t ExtentTreeBytes() const { return extentTreeBytes_; }

  uint64_t Generation() const { return generation_; }
  BlockReader& Reader() { return reader_; }

 private:
  Status LoadChunks(const Superblock& superblock);
  Status FindRoot(uint64_t id, bool* found, Subvolume* out);
  Status FindRelocationTrees();

  BlockReader& reader_;
  uint64_t generation_ = 0;
  BlockPointer rootTree_;
  BlockPointer extentRoot_;
  uint64_t extentTreeBytes_ = 0;
  std::vector<RelocationTree> relocationTrees_;
  std::vector<LogicalRange> metadataRanges_;
  std::vector<LogicalRange> dataRanges_;
  std::vector<RedundantRange> redundantRanges_;
  std::vector<Redundancy> redundancies_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_COMMITTED_TREES_H_
