// top_down_walk.h: counts by walking each subvolume's own blocks, from its root down.
#ifndef ENGINE_SIZE_TOP_DOWN_WALK_H_
#define ENGINE_SIZE_TOP_DOWN_WALK_H_

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// From the root of a subvolume, a tree block is its own when its parent is and nobody else refers
// to it; what is shared is pruned with all below it.  A data extent is its own when the subvolume's
// own leaves hold all references to it.  Reads the own blocks of each subvolume and the leaves of
// the extent tree that speak of their children.
//
// Memory: the block cache, one pointer (56 bytes) for each child of one level of one subvolume's
// own blocks, and 8 bytes for each extent reference in its own leaves.
class TopDownWalk : public ExclusiveSizeMethod {
 public:
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_TOP_DOWN_WALK_H_
