#include "engine/size/set_sums.h"

namespace ZorvEngine {

SetSums::SetSums(const SizeRequest& request, const CommittedTrees& trees, SizeProgress& progress)
    : request_(request),
      progress_(progress),
      ranges_(trees.RedundantRanges()),
      redundancies_(trees.Redundancies()),
      sets_(request.ids.size(), request.mostSetBytes),
      kept_((request.ids.size() + 1) * redundancies_.size()) {
  progress_.exclusiveBytes = 0;
  if (request_.watch != nullptr) request_.watch->Begin();
}

void SetSums::AddData(HolderId holder, uint64_t bytenr, uint64_t bytes) {
  if (!Counts(holder)) return;
  Sum(holder, bytenr)->data += bytes;
  if (request_.watch != nullptr) request_.watch->TakeData(sets_, holder, bytenr, bytes);
  if (sets_.IsSingle(holder)) progress_.exclusiveBytes += bytes;
}

void SetSums::AddTreeBlock(HolderId holder, uint64_t bytenr, uint64_t bytes) {
  if (!Counts(holder)) return;
  Sum(holder, bytenr)->metadata += bytes;
  if (request_.watch != nullptr) request_.watch->TakeTreeBlock(sets_, holder, bytenr);
  if (sets_.IsSingle(holder) && request_.countMetadata) progress_.exclusiveBytes += bytes;
}

HeldBytes* SetSums::Sum(HolderId holder, uint64_t bytenr) {
  if (range_ >= ranges_.size() || bytenr < ranges_[range_].begin) range_ = 0;
  while (range_ + 1 < ranges_.size() && ranges_[range_].end <= bytenr) ++range_;

  const bool complete = sets_.IsComplete(holder);
  std::vector<HeldBytes>& sums = complete ? kept_ : several_;
  const size_t row = complete ? holder : sets_.Last(holder);
  if (sums.size() < (row + 1) * redundancies_.size()) sums.resize((row + 1) * redundancies_.size());
  return &sums[row * redundancies_.size() + ranges_[range_].redundancy];
}

SizeTable SetSums::Table() const {
  SizeTable table;
  table.ids = request_.ids;
  table.countsSeveral = request_.countSeveral;
  table.redundancies = redundancies_;
  const size_t width = redundancies_.size();
  const auto add = [&](const std::vector<HeldBytes>& sums, size_t row,
                       std::vector<uint32_t> members, bool complete) {
    const auto first = sums.begin() + static_cast<ptrdiff_t>(row * width);
    table.rows.push_back(
        {std::move(members), complete, {first, first + static_cast<ptrdiff_t>(width)}});
  };
  for (HolderId id = 1; id < kept_.size() / width; ++id) add(kept_, id, sets_.Members(id), true);
  for (uint32_t last = 0; last < several_.size() / width; ++last)
    add(several_, last, {last}, false);
  return table;
}

}  // namespace ZorvEngine
