// read_meter.h: counts what there is to read and what has been read; may live in shared memory.
#ifndef ENGINE_IO_READ_METER_H_
#define ENGINE_IO_READ_METER_H_

#include <atomic>
#include <cstdint>

namespace ZorvEngine {

// What the reading took; only grows.
struct ReadCounters {
  // How many reads are kept in flight.  kNone: none had to be.
  enum Way : uint32_t { kNone, kRing, kThreads };

  std::atomic<uint64_t> requests{0};        // to devices, those for tree blocks
  std::atomic<uint64_t> bytesRead{0};       // by them, gaps between blocks included
  std::atomic<uint64_t> blocksVerified{0};  // that were found sound
  std::atomic<uint64_t> mirrorsUsed{0};     // blocks of which another copy than the first was taken
  std::atomic<uint32_t> way{kNone};         // of the last run that read many

  // A request of that many bytes is made.
  void CountRequest(uint64_t bytes) {
    ++requests;
    bytesRead += bytes;
  }
};

// Bytes of blocks.  Both numbers only grow, and `processed` never passes `total`: a reader that
// takes `processed` first and `total` second sees them in that relation too.
struct ReadMeter {
  std::atomic<uint64_t> total{0};
  std::atomic<uint64_t> processed{0};
  std::atomic<uint64_t> expected{0};  // of `total`, not planned yet; one thread plans
  ReadCounters counters;

  // That many bytes will be planned later on: what is known of the whole before its parts begin.
  void Expect(uint64_t bytes) {
    expected += bytes;
    total += bytes;
  }

  // That many bytes more are to be read; those that were expected are in `total` already.
  void Plan(uint64_t bytes) {
    const uint64_t known = bytes < expected ? bytes : expected.load();
    expected -= known;
    total += bytes - known;
  }

  // That many of the planned bytes have been read.
  void Done(uint64_t bytes) { processed += bytes; }

  // What is planned and not read will not be read: another attempt begins.
  void Abandon() {
    expected = 0;
    processed = total.load();
  }
};

static_assert(std::atomic<uint64_t>::is_always_lock_free &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "shared between processes");

}  // namespace ZorvEngine

#endif  // ENGINE_IO_READ_METER_H_
