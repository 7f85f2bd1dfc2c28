// set_sums.h: adds up the bytes of each set of subvolumes.
#ifndef ENGINE_SIZE_SET_SUMS_H_
#define ENGINE_SIZE_SET_SUMS_H_

#include <vector>

#include "engine/io/chunk_map.h"
#include "engine/size/exclusive_size.h"
#include "engine/size/holder_sets.h"
#include "engine/size/size_table.h"

namespace ZorvEngine {

// The sums of a run while it counts; shows the exclusive bytes found in its progress.
class SetSums {
 public:
  // All are the caller's and outlive the object.
  SetSums(const SizeRequest& request, const CommittedTrees& trees, SizeProgress& progress);

  HolderSets& Sets() { return sets_; }

  // Whether what `holders` hold is left out of the sums, and stays so whoever else joins them.
  bool AreTooMany(const HolderUnion& holders) const {
    return !request_.countSeveral && holders.AreSeveral();
  }

  // Counts a data extent, or a tree block, at `bytenr` for the set that holds it alone, if that is
  // asked for.  Cheapest when addresses rise.
  void AddData(HolderId holder, uint64_t bytenr, uint64_t bytes);
  void AddTreeBlock(HolderId holder, uint64_t bytenr, uint64_t bytes);

  SizeTable Table() const;

 private:
  bool Counts(HolderId holder) const {
    return sets_.IsSingle(holder) || (request_.countSeveral && holder != HolderSets::kNobody);
  }
  HeldBytes* Sum(HolderId holder, uint64_t bytenr);

  const SizeRequest& request_;
  SizeProgress& progress_;
  std::vector<RedundantRange> ranges_;
  std::vector<Redundancy> redundancies_;
  size_t range_ = 0;  // of the last address
  HolderSets sets_;
  std::vector<HeldBytes> kept_;     // of kept sets: by number, then redundancy
  std::vector<HeldBytes> several_;  // of others: by last member, then redundancy
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_SET_SUMS_H_
