// Points in time as the user writes and reads them.
#include "cli/time_text.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <limits>

using namespace ZorvSnapUsage;

namespace {

class TimeText : public testing::Test {
 protected:
  // A zone with summer time: 2024-03-31 02:30 does not exist there.
  TimeText() {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
  }
  ~TimeText() override {
    unsetenv("TZ");
    tzset();
  }

  static constexpr time_t kFive = 1709658249;  // 2024-03-05 18:04:09 there
};

using ParseTimeTest = TimeText;

TEST_F(ParseTimeTest, ReadsEachForm) {
  const struct {
    const char* text;
    time_t first;
    time_t last;
  } cases[] = {
      {"2024.03.05-18.04.09", kFive, kFive},
      {"2024-03-05 18:04:09", kFive, kFive},
      {"2024-03-05T18:04:09", kFive, kFive},
      {"2024-03-05 18:04", kFive - 9, kFive + 50},
      {"2024-03-05T18:04", kFive - 9, kFive + 50},
      {"2024-03-05", kFive - 9 - 64 * 60 - 17 * 3600, kFive + 50 + 55 * 60 + 5 * 3600},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.first, ParseTime(c.text, TimeBound::kFirstSecond));
    EXPECT_EQ(c.last, ParseTime(c.text, TimeBound::kLastSecond));
  }
}

TEST_F(ParseTimeTest, RefusesWhatIsNoTime) {
  for (const char* text : {"", "yesterday", "2024", "2024-03", "2024-02-31", "2023-02-29",
                           "2024-03-05 25:00", "2024-03-05 18:04:09Z", "2024-03-05 18:04:09 ",
                           "2024.03.05", "1969-07-20", "2024-03-31 02:30"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(std::nullopt, ParseTime(text, TimeBound::kFirstSecond));
  }
}

TEST_F(ParseTimeTest, SummerTimeCounts) {
  EXPECT_EQ(1720109049, ParseTime("2024-07-04 18:04:09", TimeBound::kFirstSecond));
}

// 02:30 comes twice on that day. Which of the two mktime gives depends on what it was asked before.
TEST_F(ParseTimeTest, HourThatComesTwiceIsInARangeFromItsFirstToItsLast) {
  constexpr time_t kSummer = 1729989000;
  constexpr time_t kWinter = kSummer + 3600;
  for (const char* before : {"2024-07-04", "2024-12-24"}) {
    SCOPED_TRACE(before);
    const auto parse = [&](const char* text, TimeBound bound) {
      (void)ParseTime(before, bound);
      return ParseTime(text, bound);
    };
    EXPECT_EQ(kSummer, parse("2024-10-27 02:30:00", TimeBound::kFirstSecond));
    EXPECT_EQ(kWinter, parse("2024-10-27 02:30:00", TimeBound::kLastSecond));
    EXPECT_EQ(kSummer, parse("2024-10-27 02:30", TimeBound::kFirstSecond));
    EXPECT_EQ(kWinter + 59, parse("2024-10-27 02:30", TimeBound::kLastSecond));
  }
  EXPECT_EQ(kWinter + 1800, ParseTime("2024-10-27 03:00:00", TimeBound::kFirstSecond));
}

// Where summer time begins at midnight that day was refused as "no time".
TEST_F(ParseTimeTest, DayThatBeginsAtOneIsADay) {
  setenv("TZ", "<-03>3<-02>,M11.1.0/0,M2.3.0/0", 1);
  EXPECT_EQ(1541300400, ParseTime("2018-11-04", TimeBound::kFirstSecond));
  EXPECT_EQ(1541383199, ParseTime("2018-11-04", TimeBound::kLastSecond));
  EXPECT_EQ(std::nullopt, ParseTime("2018-11-04 00:30", TimeBound::kFirstSecond));
  // And the day on which it ends has 25 hours.
  EXPECT_EQ(1550372399, ParseTime("2019-02-16", TimeBound::kLastSecond));
  EXPECT_EQ(1550372400, ParseTime("2019-02-17", TimeBound::kFirstSecond));
}

TEST_F(ParseTimeTest, ShiftsOfHalfAnHourAreMetToo) {
  setenv("TZ", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 1);  // Lord Howe Island
  const auto first = ParseTime("2024-04-07 01:45:00", TimeBound::kFirstSecond);
  const auto last = ParseTime("2024-04-07 01:45:00", TimeBound::kLastSecond);
  ASSERT_TRUE(first && last);
  EXPECT_EQ(1800, *last - *first);
}

using TimeForPeopleTest = TimeText;

TEST_F(TimeForPeopleTest, IsLocal) { EXPECT_EQ("2024-03-05 18:04:09", TimeForPeople(kFive)); }

TEST_F(TimeForPeopleTest, BeyondTheCalendarThereIsNone) {
  EXPECT_EQ("-", TimeForPeople(std::numeric_limits<time_t>::max()));
}

using TimeForProgramsTest = TimeText;

TEST_F(TimeForProgramsTest, CarriesItsZone) {
  EXPECT_EQ("2024-03-05T18:04:09+01:00", TimeForPrograms(kFive));
}

}  // namespace
