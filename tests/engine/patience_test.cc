// How long a run that commits overtake goes on.
#include "engine/size/patience.h"

#include <gtest/gtest.h>

#include <cmath>

using ZorvEngine::Patience;

namespace {

constexpr auto kLater = Patience::kShortRun + std::chrono::seconds(1);

// How many attempts a run makes whose attempt `n`, from 0, reads `bytes(n)`, the run having taken
// `time`.
template <typename Bytes>
int Attempts(const Bytes& bytes, std::chrono::nanoseconds time) {
  Patience patience;
  int attempts = 1;
  while (attempts < 100000 && patience.GoesOn(bytes(attempts - 1), time)) ++attempts;
  return attempts;
}

}  // namespace

TEST(Patience, RunsOutOnShortAttemptsThatStayAsTheyAre) {
  const auto same = [](int) { return 500'000; };
  EXPECT_EQ(Patience::kMostWithoutGain, Attempts(same, {}));
}

TEST(Patience, RunsOutSoonerOnLongAttemptsThatStayAsTheyAre) {
  const auto same = [](int) { return 500'000'000; };
  EXPECT_EQ(Patience::kMostLong, Attempts(same, kLater));
}

// An attempt that ended at its first block is the shortest; those after it become shorter all the
// same.
TEST(Patience, LastsWhileAttemptsBecomeShorter) {
  const auto shrinking = [](int n) { return n == 0 ? 16384.0 : std::ldexp(1e9, -n); };
  EXPECT_GT(Attempts(shrinking, kLater), 25);
  const auto slowly = [](int n) {
    double bytes = 1e9;
    for (int i = 0; i < n && i < 100; ++i) bytes *= 0.85;
    return static_cast<uint64_t>(bytes);
  };
  EXPECT_EQ(100 + Patience::kMostWithoutGain, Attempts(slowly, {}));
}

// Some are long because something large was changed; the next are short again.
TEST(Patience, OutlastsSomeLongAttempts) {
  const auto mixed = [](int n) {
    return (n + 1) % Patience::kMostLong == 0 ? 100'000 : 1'000'000'000;
  };
  EXPECT_EQ(Patience::kMostLong - 1 + Patience::kMostWithoutGain, Attempts(mixed, kLater));
}

TEST(Patience, AlwaysRunsOut) {
  const auto halves = [](int n) { return n < 64 ? UINT64_MAX >> n : 0; };
  EXPECT_LT(Attempts(halves, {}), 64 + Patience::kMostWithoutGain + 1);
}
