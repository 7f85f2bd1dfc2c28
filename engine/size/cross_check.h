// cross_check.h: counts in two ways and believes neither alone.
#ifndef ENGINE_SIZE_CROSS_CHECK_H_
#define ENGINE_SIZE_CROSS_CHECK_H_

#include "engine/size/exclusive_size.h"

namespace ZorvEngine {

// Runs two methods on the same committed state; fails, naming the subvolume, when they differ.
class CrossCheck : public ExclusiveSizeMethod {
 public:
  // Both are the caller's and outlive the object.
  CrossCheck(ExclusiveSizeMethod& first, ExclusiveSizeMethod& second)
      : first_(first), second_(second) {}

  // Progress is that of the first method, but for what both read.
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

 private:
  ExclusiveSizeMethod& first_;
  ExclusiveSizeMethod& second_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_CROSS_CHECK_H_
