// read_pipeline.h: many ranges read and dealt with at once, in bounded memory.
#ifndef ENGINE_IO_READ_PIPELINE_H_
#define ENGINE_IO_READ_PIPELINE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "engine/io/byte_source.h"
#include "engine/io/read_meter.h"
#include "engine/io/read_queue.h"
#include "engine/io/thread_team.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// How to read.  The results are the same with all of them.
struct ReadOptions {
  bool allowRing = true;      // false: threads, as where the system refuses an io_uring
  unsigned readThreads = 16;  // how many then
  unsigned visitThreads = 0;  // that deal with what was read; 0: a thread a processor, at most 4
};

// A range of a device; aligned as ByteSource::ReadAt wants it.
struct ReadRange {
  ByteSource* source;
  uint64_t offset;
  size_t size;
};

// Keeps many reads in flight while several threads deal with what has come.  Ring and threads are
// made when they are first needed and end with the pipeline.
class ReadPipeline {
 public:
  // Bytes of all buffers together: deep enough a queue of requests of 128 KiB.
  static constexpr size_t kArenaBytes = 8u << 20;
  // Reads in flight at most.
  static constexpr unsigned kDepth = 64;
  // Bytes of a range at most; more of them than threads must fit into the arena.
  static constexpr size_t kRangeBytes = 1u << 20;

  // Takes a range by its index, with its bytes (to do with as it likes, during the call) when
  // `read` is Ok, undefined bytes else.  Called from several threads at once.  A failure ends the
  // run.
  using Taker = std::function<Status(size_t index, uint8_t* bytes, const Status& read)>;

  // The meter is the caller's and outlives the pipeline.
  ReadPipeline(const ReadOptions& options, ReadMeter& meter) : options_(options), meter_(meter) {}

  // Reads all ranges, about in their order, and gives each to `take`.  The outcome is the first
  // failure of `take`; one that throws has failed.  One caller at a time, never from within `take`.
  Status Run(const std::vector<ReadRange>& ranges, const Taker& take);

 private:
  // So few are read one after the other: ring and threads would cost more than they bring.
  static constexpr size_t kFew = 4;

  Status RunOneByOne(const std::vector<ReadRange>& ranges, const Taker& take);
  ReadQueue& QueueFor(const std::vector<ReadRange>& ranges);
  ReadQueue* Ring();
  ThreadTeam& Team();

  const ReadOptions options_;
  ReadMeter& meter_;
  AlignedBuffer arena_;
  std::unique_ptr<ReadQueue> ring_;
  bool ringRefused_ = false;
  std::unique_ptr<ReadQueue> threads_;
  std::optional<ThreadTeam> team_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_READ_PIPELINE_H_
