// block_limit.h: how many tree blocks may be read before it is not worth going on.
#ifndef ENGINE_SIZE_BLOCK_LIMIT_H_
#define ENGINE_SIZE_BLOCK_LIMIT_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Counts blocks before they are read; those that the cache has cost nothing.
class BlockLimit {
 public:
  explicit BlockLimit(uint64_t most) : most_(most) {}

  // Counts what of `pointers` is to be read next.  Status::kOverLimit, and nothing counted, when
  // that would pass the limit.
  Status Take(const BlockReader& reader, const std::vector<BlockPointer>& pointers) {
    const auto blocks = static_cast<uint64_t>(std::ranges::count_if(
        pointers, [&](const BlockPointer& pointer) { return !reader.Has(pointer); }));
    if (blocks > most_ - taken_)
      return Status::OverLimit("more than " + std::to_string(most_) +
                               " tree blocks are to be read");
    taken_ += blocks;
    return Status();
  }

  // Blocks counted so far.
  uint64_t Taken() const { return taken_; }

 private:
  const uint64_t most_;
  uint64_t taken_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_BLOCK_LIMIT_H_
