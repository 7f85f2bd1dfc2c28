// extent_tree_scan.h: counts by reading the extent tree once, which holds the whole reference graph
// turned round: each extent with its holders.
#ifndef ENGINE_SIZE_EXTENT_TREE_SCAN_H_
#define ENGINE_SIZE_EXTENT_TREE_SCAN_H_

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// Tree blocks first: from the highest level down, a block is a subvolume's own when every reference
// to it comes from the subvolume's root item or from its own blocks. Data next: an extent is its
// own when every reference to it comes from its own leaves. What has a holder outside, or two of
// the subvolumes asked for, is dropped at once, with all below it.
//
// Children of a block name as their holder either the block (when it is marked FULL_BACKREF: copied
// while it was shared, or its owner was deleted) or just the owner. Own blocks of the second kind
// must be read, to see which children they have; those of the first need not.
//
// Cost: the leaves of the extent tree, once, and the own blocks that must be read. Memory: the
// leaves below one node of the extent tree, 48 bytes and 8 for each parent of each tree block that
// only asked trees hold, and 16 for each reference read in own blocks.
class ExtentTreeScan : public ExclusiveSizeMethod {
 public:
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXTENT_TREE_SCAN_H_
