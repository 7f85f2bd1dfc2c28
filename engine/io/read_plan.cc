#include "engine/io/read_plan.h"

#include <algorithm>

namespace ZorvEngine {
namespace {

// The request for blocks from `first` on.
PlannedRead JoinNeighbours(const std::vector<WantedBlock>& blocks, size_t first, size_t blockBytes,
                           const RequestShape& shape) {
  const Place start = blocks[first].place;
  PlannedRead read{start.devid, start.offset, blockBytes, first, 1};
  for (size_t at = first + 1; at < blocks.size(); ++at) {
    const Place& place = blocks[at].place;
    const uint64_t within = place.offset - start.offset;
    if (place.devid != start.devid || within > read.size + shape.mostGap ||
        within + blockBytes > shape.mostBytes)
      break;
    read.size = within + blockBytes;
    ++read.count;
  }
  return read;
}

// Takes a read of each device in turn; they come device by device.
std::vector<PlannedRead> TakeTurns(const std::vector<PlannedRead>& reads) {
  std::vector<size_t> heads;
  for (size_t i = 0; i < reads.size(); ++i)
    if (i == 0 || reads[i].devid != reads[i - 1].devid) heads.push_back(i);
  if (heads.size() <= 1) return reads;

  const std::vector<size_t> ends = [&] {
    std::vector<size_t> next(heads.begin() + 1, heads.end());
    next.push_back(reads.size());
    return next;
  }();
  std::vector<PlannedRead> mixed;
  mixed.reserve(reads.size());
  while (mixed.size() < reads.size())
    for (size_t device = 0; device < heads.size(); ++device)
      if (heads[device] < ends[device]) mixed.push_back(reads[heads[device]++]);
  return mixed;
}

}  // namespace

std::vector<PlannedRead> PlanReads(std::vector<WantedBlock>* blocks, size_t blockBytes,
                                   const std::function<RequestShape(uint64_t devid)>& shapeOf) {
  std::sort(blocks->begin(), blocks->end(),
            [](const WantedBlock& a, const WantedBlock& b) { return a.place < b.place; });
  std::vector<PlannedRead> reads;
  for (size_t at = 0; at < blocks->size(); at += reads.back().count) {
    const uint64_t devid = (*blocks)[at].place.devid;
    reads.push_back(JoinNeighbours(*blocks, at, blockBytes, shapeOf(devid)));
  }
  return TakeTurns(reads);
}

}  // namespace ZorvEngine
