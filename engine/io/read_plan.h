// read_plan.h: which requests read many blocks of a device.
#ifndef ENGINE_IO_READ_PLAN_H_
#define ENGINE_IO_READ_PLAN_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "engine/io/chunk_map.h"

namespace ZorvEngine {

// A block that is to be read.
struct WantedBlock {
  Place place;
  uint32_t index;  // the caller's
  bool mirror;     // the place is not that of the first copy
};

// One request, for blocks that lie close together.
struct PlannedRead {
  uint64_t devid;
  uint64_t offset;
  size_t size;
  size_t first;  // its blocks among those that were wanted
  size_t count;
};

// What requests a device likes.
struct RequestShape {
  size_t mostBytes;
  size_t mostGap;  // bytes between two blocks that are read with them
};

// Flash answers many requests at once, so gaps are not read, and requests need be no larger.
inline constexpr RequestShape kFlashShape = {128u << 10, 0};

// A disk that rotates reads half a megabyte in the time in which its head gets to the next place.
inline constexpr RequestShape kRotatingShape = {1u << 20, 512u << 10};

// The same, as long as it is not known whether that pays.
inline constexpr RequestShape kTrialShape = {256u << 10, 256u << 10};

// Sorts `blocks` (each of `blockBytes`) by their places and gives the requests that read them: on
// each device in the order of places, the devices taking turns, so that all of them have work.
std::vector<PlannedRead> PlanReads(std::vector<WantedBlock>* blocks, size_t blockBytes,
                                   const std::function<RequestShape(uint64_t devid)>& shapeOf);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_READ_PLAN_H_
