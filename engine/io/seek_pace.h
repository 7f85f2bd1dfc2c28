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
// wait explain, the head travels, and gaps are read from then on.  A disk that gives few bytes a
// second looks the same at first: when the first requests with gaps, small ones, take longer by as
// much as they are larger, gaps are read no more.
class SeekPace {
 public:
  const RequestShape& Shape() const {
    if (!slow_) return kFlashShape;
    return tried_ ? kRotatingShape : kTrialShape;
  }

  // After how many requests Note is to be called.
  size_t RoundSize() const { return round_; }

  // What a round read, gaps included, and the time that it took.
  struct Round {
    size_t requests;
    uint64_t bytes;
    std::chrono::nanoseconds time;
  };

  // Takes what a round took.  True when the shape is another from now on.
  bool Note(const Round& done);

 private:
  bool IsSlow(const Round& done);
  bool GapsPay(const Round& done);

  // A limit on requests a second lets some pass at once before it holds the others back; a round
  // has more than those.
  static constexpr size_t kFirstRound = 64;
  // So many requests begin the trial: where bytes are few they take long.
  static constexpr size_t kTrialRound = 4;
  // Where heads begin to travel late, at most so many slow requests are made before it is seen.
  static constexpr size_t kLongestRound = 512;

  bool slow_ = false;
  bool tried_ = false;  // whether gaps pay, which is then known:
  bool gapsPay_ = true;
  Round before_{};  // the round that was found slow,
  Round trial_{};   // and those of the trial together
  size_t round_ = kFirstRound;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_SEEK_PACE_H_
