#include "engine/io/seek_pace.h"

#include <algorithm>

namespace ZorvEngine {
namespace {

// No head gets elsewhere in this time, with many requests to choose the next one from; everything
// without a head answers sooner.
constexpr std::chrono::nanoseconds kShortWait = std::chrono::milliseconds(1);
// Slower than any disk of these days reads where it is.
constexpr uint64_t kNanosecondsPerByte = 10;
// Faster than any single head reads: 500 MB a second.
constexpr uint64_t kBytesPerMicrosecond = 500;

}  // namespace

bool SeekPace::Note(size_t requests, uint64_t bytes, std::chrono::nanoseconds time) {
  const bool before = slow_;
  if (slow_) {
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    slow_ = bytes <= kBytesPerMicrosecond * static_cast<uint64_t>(microseconds);
  } else {
    slow_ = time > requests * kShortWait + std::chrono::nanoseconds(bytes * kNanosecondsPerByte);
  }
  round_ = slow_ == before ? std::min(2 * round_, kLongestRound) : kFirstRound;
  return slow_ != before;
}

}  // namespace ZorvEngine
