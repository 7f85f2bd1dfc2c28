// block_limit.h: how many tree blocks may be read before it is not worth going on.
#ifndef ENGINE_SIZE_BLOCK_LIMIT_H_
#define ENGINE_SIZE_BLOCK_LIMIT_H_

#include <cstdint>

#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Counts blocks before they are read.
class BlockLimit {
 public:
  explicit BlockLimit(uint64_t most) : most_(most) {}

  // Counts `blocks` that are to be read next.  Status::kOverLimit, and nothing counted, when they
  // would pass the limit.
  Status Take(uint64_t blocks) {
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
