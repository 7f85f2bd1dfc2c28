// patience.h: how long a run that commits overtake goes on.
#ifndef ENGINE_SIZE_PATIENCE_H_
#define ENGINE_SIZE_PATIENCE_H_

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace ZorvEngine {

// Tells a run whose attempts become shorter, and so will end, from one that will not.  It always
// runs out: an attempt cannot become shorter for ever.
class Patience {
 public:
  // Attempts in a row without one that was shorter by a tenth than all before.  Short attempts that
  // do not become shorter succeed by chance, sooner or later: this many leave little to it.
  static constexpr int kMostWithoutGain = 40;

  // Attempts in a row that read more than half of what the longest did, once the run has taken
  // `kShortRun`: long ones do not succeed by chance, and that many could take hours.
  static constexpr int kMostLong = 8;
  static constexpr std::chrono::seconds kShortRun{60};

  // Takes how many bytes the attempt has read that was overtaken just now, and how long the run has
  // taken.  Whether another attempt is worth it.
  bool GoesOn(uint64_t bytes, std::chrono::nanoseconds runTime) {
    const bool gain = bytes < shortest_ - shortest_ / 10;
    shortest_ = std::min(shortest_, bytes);
    longest_ = std::max(longest_, bytes);
    withoutGain_ = gain ? 1 : withoutGain_ + 1;
    long_ = bytes > longest_ / 2 ? long_ + 1 : 0;
    return withoutGain_ < kMostWithoutGain && (runTime < kShortRun || long_ < kMostLong);
  }

 private:
  uint64_t shortest_ = UINT64_MAX;
  uint64_t longest_ = 0;
  int withoutGain_ = 0;
  int long_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_PATIENCE_H_
