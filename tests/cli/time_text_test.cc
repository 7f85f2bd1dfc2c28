// Points in time as the user writes and reads them.
#include "cli/time_text.h"

#include <gtest/gtest.h>
#include <stdlib.h>

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

using TimeForPeopleTest = TimeText;

TEST_F(TimeForPeopleTest, IsLocal) { EXPECT_EQ("2024-03-05 18:04:09", TimeForPeople(kFive)); }

using TimeForProgramsTest = TimeText;

TEST_F(TimeForProgramsTest, CarriesItsZone) {
  EXPECT_EQ("2024-03-05T18:04:09+01:00", TimeForPrograms(kFive));
}

}  // namespace
