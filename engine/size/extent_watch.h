// extent_watch.h: sees each extent that a run counts, beside the sums.
#ifndef ENGINE_SIZE_EXTENT_WATCH_H_
#define ENGINE_SIZE_EXTENT_WATCH_H_

#include <cstdint>

#include "engine/size/holder_sets.h"

namespace ZorvEngine {

// Each extent is told once, with the set of those that hold it and nobody else.  Sets and their
// numbers are good during the call.  May throw NoArrayMemory.
class ExtentWatch {
 public:
  virtual ~ExtentWatch() = default;

  // Counting begins, or begins again on another state or in another way: what was told before is
  // void.
  virtual void Begin() = 0;

  // A data extent, by rising addresses.
  virtual void TakeData(const HolderSets& sets, HolderId holder, uint64_t bytenr,
                        uint64_t bytes) = 0;

  // A tree block, in any order.
  virtual void TakeTreeBlock(const HolderSets& sets, HolderId holder, uint64_t bytenr) = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXTENT_WATCH_H_
