#include "engine/size/auto_method.h"

#include <string>

namespace ZorvEngine {

Status AutoMethod::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                       SizeTable* out) {
  if (!scanTaken_) {
    const Status walked = TryWalk(trees, request, progress, out);
    if (!scanTaken_) return walked;
    progress.meter.Abandon();
    progress.exclusiveBytes = 0;
  }
  return scan_.Run(trees, request, progress, out);
}

// Walks; decides for the scan when that is too much or was overtaken too often.
Status AutoMethod::TryWalk(CommittedTrees& trees, const SizeRequest& request,
                           SizeProgress& progress, SizeTable* out) {
  const uint64_t extentBlocks = trees.ExtentTreeBytes() / trees.Reader().NodeSize();
  const uint64_t allowed =
      extentBlocks / (trees.Reader().Rotates() ? kScannedPerWalkedOnRotating : kScannedPerWalked);
  const std::string limit = std::to_string(allowed) + " blocks, " + std::to_string(extentBlocks) +
                            " being those of the extent tree";
  walk_.LimitTo(allowed);
  const Status done = walk_.Run(trees, request, progress, out);

  progress.stats.Choose("walk", std::to_string(walk_.Blocks()) + " of at most " + limit);
  if (done.GetKind() == Status::kOverLimit)
    progress.stats.Choose("scan", "a walk takes more than " + limit);
  else if (done.GetKind() == Status::kUnsettled)
    progress.stats.Choose("scan", "a walk cannot follow what is being moved");
  else if (done.GetKind() == Status::kBadBlock && ++overtaken_ > kMostOvertaken)
    progress.stats.Choose("scan", "a walk was overtaken by commits again and again");
  else
    return done;
  scanTaken_ = true;
  return done;
}

}  // namespace ZorvEngine
