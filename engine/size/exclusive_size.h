// exclusive_size.h: the question that all methods of counting answer.
#ifndef ENGINE_SIZE_EXCLUSIVE_SIZE_H_
#define ENGINE_SIZE_EXCLUSIVE_SIZE_H_

#include <atomic>
#include <cstdint>
#include <vector>

#include "engine/io/committed_trees.h"
#include "engine/io/read_meter.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Bytes that one subvolume alone reaches.
struct ExclusiveSize {
  uint64_t id = 0;
  uint64_t dataBytes = 0;      // data extents, each with its whole length on disk
  uint64_t metadataBytes = 0;  // tree blocks
};

// What a run shows of itself while it goes on; may live in memory shared between processes.
struct SizeProgress {
  ReadMeter meter;
  std::atomic<uint64_t> exclusiveBytes{0};  // found so far, over all subvolumes asked for
};

// What a run is asked.
struct SizeRequest {
  std::vector<uint64_t> ids;   // no number twice
  bool countMetadata = false;  // whether tree blocks are part of the progress's exclusive bytes
};

// A way of counting.  Each gives the same numbers, at another cost.
class ExclusiveSizeMethod {
 public:
  virtual ~ExclusiveSizeMethod() = default;

  // Fills `out` with one entry for each ID, in their order; on success only.
  // Status::kBadBlock: try again from a newer superblock.
  virtual Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                     std::vector<ExclusiveSize>* out) = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXCLUSIVE_SIZE_H_
