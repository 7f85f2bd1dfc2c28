// exclusive_size.h: the question that all methods of counting answer.
#ifndef ENGINE_SIZE_EXCLUSIVE_SIZE_H_
#define ENGINE_SIZE_EXCLUSIVE_SIZE_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "engine/io/committed_trees.h"
#include "engine/io/read_meter.h"
#include "engine/io/read_pipeline.h"
#include "engine/ondisk/status.h"
#include "engine/size/extent_watch.h"
#include "engine/size/run_stats.h"
#include "engine/size/size_table.h"

namespace ZorvEngine {

// What a run shows of itself while it goes on; may live in memory shared between processes.
struct SizeProgress {
  ReadMeter meter;
  std::atomic<uint64_t> exclusiveBytes{0};  // found so far, over all subvolumes asked for
  RunStats stats;
};

// What a run is asked.
struct SizeRequest {
  std::vector<uint64_t> ids;   // no number twice
  bool countMetadata = false;  // whether tree blocks are part of the progress's exclusive bytes
  // Whether what several hold together is counted too, for tables and plans.  Without it much need
  // not be looked at: what two of them hold is nobody's alone, whoever else holds it.
  bool countSeveral = true;
  // Memory for the sets of several subvolumes.  0: which they are need not be known; what comes
  // free in the order of `ids` can be told all the same.
  size_t mostSetBytes = 0;
  // Memory for large arrays; beyond it they go to an unlinked file.
  size_t mostArrayBytes = 256u << 20;
  ReadOptions reading = {};
  // How long a state is waited out of which no exact numbers can be told.
  std::chrono::milliseconds mostSettling{30'000};
  // Told of what is counted, if there is one; the caller's.
  ExtentWatch* watch = nullptr;
};

// A way of counting.  Each gives the same numbers, at another cost.
class ExclusiveSizeMethod {
 public:
  virtual ~ExclusiveSizeMethod() = default;

  // Fills `out`, on success only.  Status::kBadBlock: try again from a newer superblock, with the
  // same object and request: it may have kept what it has read.  Status::kUnsettled: the same, once
  // there is a newer commit.
  virtual Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                     SizeTable* out) = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXCLUSIVE_SIZE_H_
