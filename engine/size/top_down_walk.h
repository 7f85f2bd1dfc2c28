// top_down_walk.h: counts by walking the blocks that only asked subvolumes hold, from the roots
// down.
#ifndef ENGINE_SIZE_TOP_DOWN_WALK_H_
#define ENGINE_SIZE_TOP_DOWN_WALK_H_

#include <cstdint>

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// All asked subvolumes together, level by level from the highest down.  A tree block is reached
// when as many references as its item counts come from root items and from the blocks that were
// reached above it; those who hold these hold it.  What somebody else refers to as well is left,
// with all below it.  Data extents likewise, by the file extents of all leaves that were reached.
// When what several hold is not counted, what two of them reach is left too.  Reads each block that
// is reached, and the leaves of the extent tree that speak of their children.
//
// Memory: the block cache, 64 bytes for each pointer to one level from what was reached above it
// (and 136 more for each block of the level that is reached itself), 16 bytes for each reference to
// data, and what ExtentRefs says for one batch.
class TopDownWalk : public ExclusiveSizeMethod {
 public:
  // Status::kOverLimit: it would have to read more than `limit` allows; found out before anything
  // beyond it was read.
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

  // Has runs from now on read at most that many tree blocks, those of the extent tree included.
  // Without this there is no limit.
  void LimitTo(uint64_t blocks) { mostBlocks_ = blocks; }

  // A scan of the same state comes before each run: what only that can see need not be asked again.
  void ComeAfterScan() { afterScan_ = true; }

  // Tree blocks that the last run read.
  uint64_t Blocks() const { return blocks_; }

 private:
  uint64_t mostBlocks_ = UINT64_MAX;
  bool afterScan_ = false;
  uint64_t blocks_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_TOP_DOWN_WALK_H_
