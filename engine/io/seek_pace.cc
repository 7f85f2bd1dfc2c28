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

double NanosecondsPerWanted(const SeekPace::Round& done) {
  return static_cast<double>(done.time.count()) /
         static_cast<double>(std::max<uint64_t>(done.wanted, 1));
}

}  // namespace

bool SeekPace::Note(const Round& done) {
  const RequestShape& before = Shape();
  const bool wasSlow = slow_;
  slow_ = slow_ ? IsSlow(done) && GapsPay(done) : IsSlow(done) && gapsPay_;
  if (&Shape() == &before) {
    round_ = std::min(2 * round_, kLongestRound);
    return false;
  }
  if (!wasSlow) withoutGaps_ = NanosecondsPerWanted(done);
  round_ = slow_ && !tried_ ? kTrialRound : kFirstRound;
  return true;
}

// Whether it can be a head that answers.
bool SeekPace::IsSlow(const Round& done) {
  if (!slow_)
    return done.time >
           done.requests * kShortWait + std::chrono::nanoseconds(done.bytes * kNanosecondsPerByte);
  const auto time = std::chrono::duration_cast<std::chrono::microseconds>(done.time).count();
  return done.bytes <= kBytesPerMicrosecond * static_cast<uint64_t>(time);
}

// Looks once, at the first round with gaps that is long enough to tell: later ones read elsewhere,
// where what is wanted may lie farther apart.
bool SeekPace::GapsPay(const Round& done) {
  if (tried_ || done.requests < kTrialRound || done.bytes == done.wanted) return gapsPay_;
  tried_ = true;
  gapsPay_ = NanosecondsPerWanted(done) < withoutGaps_;
  return gapsPay_;
}

}  // namespace ZorvEngine
