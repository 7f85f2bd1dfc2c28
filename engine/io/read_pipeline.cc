#include "engine/io/read_pipeline.h"

#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace ZorvEngine {
namespace {

// Memory for all slots; null when there is none.  In large pages where the kernel has them: a
// request then is one piece of memory to the disk, not hundreds, and is not split for their number.
AlignedBuffer MakeArena() {
  constexpr size_t kLargePage = 2u << 20;
  AlignedBuffer arena(static_cast<uint8_t*>(aligned_alloc(kLargePage, ReadPipeline::kArenaBytes)));
  if (arena != nullptr) (void)madvise(arena.get(), ReadPipeline::kArenaBytes, MADV_HUGEPAGE);
  return arena;
}

// What `take` says, also when it throws: threads have nobody who would catch it.
Status TakeCaught(const ReadPipeline::Taker& take, size_t index, uint8_t* bytes,
                  const Status& read) {
  try {
    return take(index, bytes, read);
  } catch (const std::bad_alloc&) {
    return Status::Failed("out of memory");
  } catch (const std::exception& error) {
    return Status::Failed(std::string("internal error: ") + error.what());
  }
}

// One run: slots of the arena, each with a read in flight until all ranges are done.
class Flight {
 public:
  Flight(const std::vector<ReadRange>& ranges, const ReadPipeline::Taker& take, ReadQueue& queue,
         ReadMeter& meter)
      : ranges_(ranges), take_(take), queue_(queue), meter_(meter) {}

  // Begins as many reads as fit into `arena`.
  void Begin(uint8_t* arena) {
    size_t slotBytes = 0;
    for (const ReadRange& range : ranges_) slotBytes = std::max(slotBytes, range.size);
    const size_t count = std::min(
        {size_t{ReadPipeline::kDepth}, ranges_.size(), ReadPipeline::kArenaBytes / slotBytes});
    slots_.resize(count);
    for (size_t i = 0; i < count; ++i) {
      slots_[i].buffer = arena + i * slotBytes;
      BeginNext(&slots_[i]);
    }
  }

  // Deals with reads that have ended and begins others in their place, until nothing is in flight.
  // On each thread of a team.  Who finds nothing in flight leaves; those that still deal with
  // something have at most the last few ranges to themselves.
  void Work() {
    while (ClaimOne()) {
      Slot* slot = static_cast<Slot*>(queue_.Next());
      if (!failed_) Note(TakeCaught(take_, slot->index, slot->buffer, slot->status));
      BeginNext(slot);
    }
  }

  const Status& Outcome() const { return outcome_; }

 private:
  struct Slot : QueuedRead {
    size_t index = 0;
  };

  void BeginNext(Slot* slot) {
    if (failed_) return;
    slot->index = next_++;
    if (slot->index >= ranges_.size()) return;
    const ReadRange& range = ranges_[slot->index];
    slot->source = range.source;
    slot->offset = range.offset;
    slot->size = range.size;
    meter_.counters.CountRequest(range.size);
    queue_.Begin(slot);
    ++inFlight_;
  }

  // Whether there is a read in flight that nobody else waits for.
  bool ClaimOne() {
    size_t left = inFlight_;
    while (left > 0 && !inFlight_.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
  }

  void Note(Status status) {
    if (status.Ok()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (outcome_.Ok()) outcome_ = std::move(status);
    failed_ = true;
  }

  const std::vector<ReadRange>& ranges_;
  const ReadPipeline::Taker& take_;
  ReadQueue& queue_;
  ReadMeter& meter_;
  std::vector<Slot> slots_;
  std::atomic<size_t> next_{0};
  std::atomic<size_t> inFlight_{0};  // and claimed by nobody
  std::atomic<bool> failed_{false};
  std::mutex mutex_;
  Status outcome_;
};

}  // namespace

Status ReadPipeline::Run(const std::vector<ReadRange>& ranges, const Taker& take) {
  if (arena_ == nullptr) arena_ = MakeArena();
  if (arena_ == nullptr) return Status::Failed("out of memory");
  if (ranges.size() <= kFew) return RunOneByOne(ranges, take);

  ThreadTeam& team = Team();
  Flight flight(ranges, take, QueueFor(ranges), meter_);
  flight.Begin(arena_.get());
  team.Run([&flight] { flight.Work(); });
  return flight.Outcome();
}

Status ReadPipeline::RunOneByOne(const std::vector<ReadRange>& ranges, const Taker& take) {
  for (size_t i = 0; i < ranges.size(); ++i) {
    QueuedRead read;
    read.source = ranges[i].source;
    read.offset = ranges[i].offset;
    read.buffer = arena_.get();
    read.size = ranges[i].size;
    meter_.counters.CountRequest(ranges[i].size);
    ReadPlainly(&read, 0);
    ENGINE_TRY(TakeCaught(take, i, read.buffer, read.status));
  }
  return Status();
}

// The ring needs a descriptor of each source.
ReadQueue& ReadPipeline::QueueFor(const std::vector<ReadRange>& ranges) {
  const bool fit = std::all_of(ranges.begin(), ranges.end(), [](const ReadRange& range) {
    return range.source->Descriptor() >= 0;
  });
  if (fit && Ring() != nullptr) {
    meter_.counters.way = ReadCounters::kRing;
    return *ring_;
  }
  if (threads_ == nullptr) threads_ = MakeThreadQueue(options_.readThreads);
  meter_.counters.way = ReadCounters::kThreads;
  return *threads_;
}

// The ring; null where the system refuses it, which is asked once.
ReadQueue* ReadPipeline::Ring() {
  if (ring_ == nullptr && options_.allowRing && !ringRefused_) {
    ring_ = MakeRingQueue(kDepth);
    ringRefused_ = ring_ == nullptr;
  }
  return ring_.get();
}

ThreadTeam& ReadPipeline::Team() {
  constexpr unsigned kMost = 4;
  if (!team_) {
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    team_.emplace(options_.visitThreads != 0 ? options_.visitThreads : std::min(processors, kMost));
  }
  return *team_;
}

}  // namespace ZorvEngine
