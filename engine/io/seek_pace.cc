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

// A trial is at least that long: limits on requests or bytes hold back for a tenth of a second at a
// time, and let pass at once what has come together.
constexpr auto kTrialTime = std::chrono::milliseconds(400);
// How much larger its requests must be than those before.
constexpr double kTellingRatio = 1.5;

double Each(double sum, const SeekPace::Round& done) {
  return sum / static_cast<double>(done.requests);
}

double BytesEach(const SeekPace::Round& done) {
  return Each(static_cast<double>(done.bytes), done);
}

double TimeEach(const SeekPace::Round& done) {
  return Each(static_cast<double>(done.time.count()), done);
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
  if (!wasSlow) before_ = done;
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

// Where a head travels, larger requests take hardly longer; where bytes are few, by as much as they
// are larger.  Decides once, by the middle between both.
bool SeekPace::GapsPay(const Round& done) {
  if (tried_) return gapsPay_;
  trial_.requests += done.requests;
  trial_.bytes += done.bytes;
  trial_.time += done.time;
  const double larger = BytesEach(trial_) / BytesEach(before_);
  if (trial_.time < kTrialTime || larger < kTellingRatio) return true;
  tried_ = true;
  gapsPay_ = TimeEach(trial_) / TimeEach(before_) < (1 + larger) / 2;
  return gapsPay_;
}

}  // namespace ZorvEngine
