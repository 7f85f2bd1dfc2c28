// extent_tree_scan.h: counts by reading the extent tree once, which holds the whole reference graph
// turned round: each extent with its holders.
#ifndef ENGINE_SIZE_EXTENT_TREE_SCAN_H_
#define ENGINE_SIZE_EXTENT_TREE_SCAN_H_

#include <memory>

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// Tree blocks first: from the highest level down, a block is reached when every reference to it
// comes from the root item of a subvolume that was asked for, or from reached blocks; it is held by
// the subvolumes that hold these.  Data next: an extent is held by those that hold the leaves which
// refer to it, when these are all.  What has a holder outside is dropped, with all below it.
//
// Children of a block name as their holder either the block (when it is marked FULL_BACKREF: copied
// while it was shared, or its owner was deleted) or just the owner.  Reached blocks of the second
// kind must be read, to see which children they have; those of the first need not.
//
// While blocks are being moved, relocation trees hold some of them too, or in place of a subvolume.
// They count as being asked for, and as nobody.  Data that is being moved has two places; a state
// in which somebody has been given the new one is Status::kUnsettled.
//
// When what several hold is not counted, a leaf of several is not read, and the second holder
// settles an extent.
//
// Of each tree block that was read a digest is kept.  A block that was reused by a later commit
// ends a run with Status::kBadBlock after everything else of its step was read: the next run, from
// the newer superblock, reads only what has changed since, so that each has less to read than the
// one before.
//
// Cost: the leaves of the extent tree, once, and the reached blocks that must be read.  Memory: see
// docs/engine.md; what passes the request's limit lies in a file.
class ExtentTreeScan : public ExclusiveSizeMethod {
 public:
  ExtentTreeScan();
  ~ExtentTreeScan() override;

  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

 private:
  class Pass;   // one run,
  struct Kept;  // and what it leaves to the next
  std::unique_ptr<Kept> kept_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXTENT_TREE_SCAN_H_
