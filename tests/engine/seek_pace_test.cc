// When a disk that is said to rotate is taken for one.
#include "engine/io/seek_pace.h"

#include <gtest/gtest.h>

using namespace ZorvEngine;
using std::chrono::milliseconds;

namespace {

constexpr uint64_t kKiB = 1 << 10;

bool ReadsGaps(const SeekPace& pace) { return pace.Shape().mostGap > 0; }

}  // namespace

TEST(SeekPace, TellsHeadsFromTheRest) {
  const struct {
    const char* name;
    uint64_t bytesEach;
    int milliseconds;  // for 64 requests
    bool readsGaps;
  } kCases[] = {
      {"flash, small requests", 16 * kKiB, 3, false},
      {"flash, large requests", 128 * kKiB, 5, false},
      {"virtual disk of 100 MB a second", 128 * kKiB, 84, false},
      {"head, scattered requests", 16 * kKiB, 320, true},
      {"head, requests side by side", 128 * kKiB, 50, false},
      {"150 requests a second, the first 15 at once", 16 * kKiB, 330, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    SeekPace pace;
    EXPECT_FALSE(ReadsGaps(pace));
    ASSERT_EQ(64u, pace.Round());
    EXPECT_EQ(c.readsGaps, pace.Note(64, 64 * c.bytesEach, milliseconds(c.milliseconds)));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
  }
}

TEST(SeekPace, TakesBackWhatNoHeadCanDo) {
  SeekPace pace;
  ASSERT_TRUE(pace.Note(64, 64 * 16 * kKiB, milliseconds(500)));     // something else held it up
  EXPECT_FALSE(pace.Note(64, 64 * 1024 * kKiB, milliseconds(330)));  // 200 MB a second
  EXPECT_TRUE(ReadsGaps(pace));
  EXPECT_TRUE(pace.Note(64, 64 * 1024 * kKiB, milliseconds(60)));  // 1.1 GB a second
  EXPECT_FALSE(ReadsGaps(pace));
}

TEST(SeekPace, LooksLessOftenWhereNothingChanges) {
  SeekPace pace;
  size_t last = pace.Round();
  for (int i = 0; i < 10; ++i) {
    (void)pace.Note(pace.Round(), 1, milliseconds(1));
    EXPECT_GE(pace.Round(), last);
    last = pace.Round();
  }
  EXPECT_EQ(512u, last);
  ASSERT_TRUE(pace.Note(512, 1, milliseconds(5000)));
  EXPECT_EQ(64u, pace.Round());
}
