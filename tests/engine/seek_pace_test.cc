// When a disk that is said to rotate is taken for one.
#include "engine/io/seek_pace.h"

#include <gtest/gtest.h>

using namespace ZorvEngine;
using std::chrono::milliseconds;

namespace {

constexpr uint64_t kKiB = 1 << 10;

// Requests of which nothing is a gap.
SeekPace::Round Plain(size_t requests, uint64_t bytes, milliseconds time) {
  return {requests, bytes, bytes, time};
}

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
    ASSERT_EQ(64u, pace.RoundSize());
    EXPECT_EQ(c.readsGaps, pace.Note(Plain(64, 64 * c.bytesEach, milliseconds(c.milliseconds))));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
  }
}

TEST(SeekPace, TakesBackWhatNoHeadCanDo) {
  SeekPace pace;
  ASSERT_TRUE(
      pace.Note(Plain(64, 64 * 16 * kKiB, milliseconds(500))));  // something else held it up
  EXPECT_FALSE(pace.Note(Plain(64, 64 * 1024 * kKiB, milliseconds(330))));  // 200 MB a second
  EXPECT_TRUE(ReadsGaps(pace));
  EXPECT_TRUE(pace.Note(Plain(64, 64 * 1024 * kKiB, milliseconds(60))));  // 1.1 GB a second
  EXPECT_FALSE(ReadsGaps(pace));
}

TEST(SeekPace, LooksLessOftenWhereNothingChanges) {
  SeekPace pace;
  size_t last = pace.RoundSize();
  for (int i = 0; i < 10; ++i) {
    (void)pace.Note(Plain(pace.RoundSize(), 1, milliseconds(1)));
    EXPECT_GE(pace.RoundSize(), last);
    last = pace.RoundSize();
  }
  EXPECT_EQ(512u, last);
  ASSERT_TRUE(pace.Note(Plain(512, 1, milliseconds(5000))));
  EXPECT_EQ(4u, pace.RoundSize());
}

// 64 scattered requests come first; then four with gaps, of which a quarter is wanted.
TEST(SeekPace, ReadsGapsOnlyWhereTheyPay) {
  const struct {
    const char* name;
    int before;  // milliseconds of the 64
    int after;   // and of the four
    bool readsGaps;
  } kCases[] = {
      {"head", 320, 50, true},
      {"150 requests a second", 430, 27, true},
      {"512 KiB a second", 2000, 2000, false},
      {"1 MiB a second", 1000, 1000, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    SeekPace pace;
    ASSERT_TRUE(pace.Note(Plain(64, 64 * 16 * kKiB, milliseconds(c.before))));
    ASSERT_EQ(4u, pace.RoundSize());
    // Larger requests, or none with gaps.
    EXPECT_TRUE(pace.Note({4, 1024 * kKiB, 256 * kKiB, milliseconds(c.after)}));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
    // What was found out once stays, however slow it is elsewhere.
    EXPECT_FALSE(pace.Note({64, 4096 * kKiB, 64 * kKiB, milliseconds(20000)}));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
  }
}

TEST(SeekPace, DoesNotJudgeGapsByRoundsThatTellNothing) {
  SeekPace pace;
  ASSERT_TRUE(pace.Note(Plain(64, 64 * 16 * kKiB, milliseconds(320))));
  EXPECT_FALSE(pace.Note({3, 64 * kKiB, 16 * kKiB, milliseconds(1000)}));  // too short
  EXPECT_FALSE(pace.Note(Plain(4, 64 * kKiB, milliseconds(1000))));        // no gaps
  EXPECT_TRUE(ReadsGaps(pace));
}
