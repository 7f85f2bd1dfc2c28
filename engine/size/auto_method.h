// auto_method.h: takes the way of counting that is cheaper for what is asked.
#ifndef ENGINE_SIZE_AUTO_METHOD_H_
#define ENGINE_SIZE_AUTO_METHOD_H_

#include "engine/size/exclusive_size.h"
#include "engine/size/top_down_walk.h"

namespace ZorvEngine {

// Walks while that stays small against the extent tree; else scans, which reads all of that tree.
// The walk knows before each step how many blocks come next, so what is lost when it is given up is
// less than what it was allowed.
class AutoMethod : public ExclusiveSizeMethod {
 public:
  // The walk may read one block for that many of the extent tree: a walked block was seen to cost
  // two to three scanned ones, and giving a walk up is to cost a tenth of the scan or so.
  static constexpr uint64_t kScannedPerWalked = 20;

  // The same where devices say that a head must get to each place: there the scan reads many blocks
  // at a time, the walk few.
  static constexpr uint64_t kScannedPerWalkedOnRotating = 80;

  // How often the walk may meet a reused block.  It begins again then; the scan can repair.
  static constexpr int kMostOvertaken = 2;

  // The scan is the caller's and outlives the object.
  explicit AutoMethod(ExclusiveSizeMethod& scan) : scan_(scan) {}

  // The way that was taken, and why, go to the statistics of `progress`.
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

 private:
  Status TryWalk(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                 SizeTable* out);

  ExclusiveSizeMethod& scan_;
  TopDownWalk walk_;
  bool scanTaken_ = false;
  int overtaken_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_AUTO_METHOD_H_
