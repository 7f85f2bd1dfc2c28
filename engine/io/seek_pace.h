// seek_pace.h: whether a disk that is said to rotate behaves so.
#ifndef ENGINE_IO_SEEK_PACE_H_
#define ENGINE_IO_SEEK_PACE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "engine/io/read_plan.h"

namespace ZorvEngine {

// Chooses the shape of requests by how fast they are answered.  The kernel's word alone will not
// do: many virtual disks are said to rotate and do not, and gaps read there cost many times the
// bytes. So requests begin as those for flash; where they take longer than the transfer and a short
// wait explain, the head travels, and gaps are read from then on.
class SeekPace {
 public:
  const RequestShape& Shape() const { return slow_ ? kRotatingShape : kFlashShape; }

  // After how many requests Note is to be called.
  size_t Round() const { return round_; }

  // Takes what a round took.  True when the shape is another from now on.
  bool Note(size_t requests, uint64_t bytes, std::chrono::nanoseconds time);

 private:
  // A limit on requests a second lets some pass at once before it holds the others back; a round
  // has more than those.
  static constexpr size_t kFirstRound = 64;
  // Where heads begin to travel late, at most so many slow requests are made before it is seen.
  static constexpr size_t kLongestRound = 512;

  bool slow_ = false;
  size_t round_ = kFirstRound;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_SEEK_PACE_H_
