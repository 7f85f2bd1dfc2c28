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
    ASSERT_EQ(64u, pace.RoundSize());
    EXPECT_EQ(c.readsGaps, pace.Note({64, 64 * c.bytesEach, milliseconds(c.milliseconds)}));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
  }
}

TEST(SeekPace, TakesBackWhatNoHeadCanDo) {
  SeekPace pace;
  ASSERT_TRUE(pace.Note({64, 64 * 16 * kKiB, milliseconds(500)}));     // something else held it up
  EXPECT_FALSE(pace.Note({64, 64 * 1024 * kKiB, milliseconds(330)}));  // 200 MB a second
  EXPECT_TRUE(ReadsGaps(pace));
  EXPECT_TRUE(pace.Note({64, 64 * 1024 * kKiB, milliseconds(60)}));  // 1.1 GB a second
  EXPECT_FALSE(ReadsGaps(pace));
}

TEST(SeekPace, LooksLessOftenWhereNothingChanges) {
  SeekPace pace;
  size_t last = pace.RoundSize();
  for (int i = 0; i < 10; ++i) {
    (void)pace.Note({pace.RoundSize(), 1, milliseconds(1)});
    EXPECT_GE(pace.RoundSize(), last);
    last = pace.RoundSize();
  }
  EXPECT_EQ(512u, last);
  ASSERT_TRUE(pace.Note({512, 1, milliseconds(5000)}));
  EXPECT_EQ(4u, pace.RoundSize());
}

// 64 requests come first; then those with gaps, of 256 KiB.
TEST(SeekPace, ReadsGapsOnlyWhereTheyPay) {
  const struct {
    const char* name;
    uint64_t bytesBefore;  // of each of the 64
    int before;            // milliseconds of them all
    double after;          // of each with gaps
    bool readsGaps;
  } kCases[] = {
      {"head, scattered", 16 * kKiB, 320, 6.7, true},
      {"head, side by side", 128 * kKiB, 380, 6.7, true},
      {"150 requests a second", 16 * kKiB, 430, 6.7, true},
      {"150 requests a second, large ones", 128 * kKiB, 430, 6.7, true},
      {"512 KiB a second", 16 * kKiB, 2000, 500, false},
      {"512 KiB a second, large requests", 128 * kKiB, 16000, 500, false},
      {"20 MiB a second, large requests", 128 * kKiB, 400, 12.5, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    SeekPace pace;
    ASSERT_TRUE(pace.Note({64, 64 * c.bytesBefore, milliseconds(c.before)}));
    EXPECT_TRUE(ReadsGaps(pace));
    ASSERT_EQ(4u, pace.RoundSize());
    for (bool decided = false; !decided;) {
      const size_t count = pace.RoundSize();
      ASSERT_LT(count, 512u);
      decided = pace.Note({count, count * 256 * kKiB,
                           milliseconds(static_cast<int>(c.after * static_cast<double>(count)))});
    }
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
    // What was found out once stays, however slow it is elsewhere.
    EXPECT_FALSE(pace.Note({64, 4096 * kKiB, milliseconds(20000)}));
    EXPECT_EQ(c.readsGaps, ReadsGaps(pace));
  }
}

// A limit that holds requests back for a tenth of a second at a time, and lets many pass at once.
TEST(SeekPace, DoesNotJudgeGapsByRoundsThatTellNothing) {
  SeekPace pace;
  ASSERT_TRUE(pace.Note({64, 64 * 128 * kKiB, milliseconds(430)}));
  EXPECT_FALSE(pace.Note({4, 4 * 256 * kKiB, milliseconds(100)}));    // too short
  EXPECT_FALSE(pace.Note({8, 8 * 256 * kKiB, milliseconds(10)}));     // likewise
  EXPECT_FALSE(pace.Note({90, 90 * 128 * kKiB, milliseconds(600)}));  // no larger
  EXPECT_TRUE(ReadsGaps(pace));
  EXPECT_EQ(kTrialShape.mostBytes, pace.Shape().mostBytes);
}
