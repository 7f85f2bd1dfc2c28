// read_meter.h: counts what there is to read and what has been read; may live in shared memory.
#ifndef ENGINE_IO_READ_METER_H_
#define ENGINE_IO_READ_METER_H_

#include <atomic>
#include <cstdint>

namespace ZorvEngine {

// Bytes of blocks.  Both numbers only grow, and `processed` never passes `total`: a reader that
// takes `processed` first and `total` second sees them in that relation too.
struct ReadMeter {
  std::atomic<uint64_t> total{0};
  std::atomic<uint64_t> processed{0};

  // That many bytes more are to be read.
  void Plan(uint64_t bytes) { total += bytes; }

  // That many of the planned bytes have been read.
  void Done(uint64_t bytes) { processed += bytes; }

  // What is planned and not read will not be read: another attempt begins.
  void Abandon() { processed = total.load(); }
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared between processes");

}  // namespace ZorvEngine

#endif  // ENGINE_IO_READ_METER_H_
