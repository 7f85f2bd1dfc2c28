// Policies and ages, in a zone whose clocks change.
#include "cli/retention.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "cli/time_text.h"

using namespace ZorvSnapUsage;

namespace {

// Everything here happens in this zone.
class Retention : public testing::Test {
 protected:
  Retention() {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
  }
  ~Retention() override {
    unsetenv("TZ");
    tzset();
  }

  static time_t At(const std::string& text) {
    return ParseTime(text, TimeBound::kFirstSecond).value();
  }

  static std::string Before(const std::string& now, const std::string& age) {
    return TimeForPeople(TimeBefore(At(now), ParsePeriods(age).value()));
  }

  // The times that a policy keeps.
  static std::vector<std::string> Kept(const std::string& policy,
                                       const std::vector<std::string>& texts) {
    std::vector<time_t> times;
    for (const std::string& text : texts) times.push_back(At(text));
    const std::vector<bool> kept = KeptBy(ParsePolicy(policy).value(), times);
    std::vector<std::string> left;
    for (size_t i = 0; i < texts.size(); ++i)
      if (kept[i]) left.push_back(texts[i]);
    return left;
  }
};

using Texts = std::vector<std::string>;

}  // namespace

TEST_F(Retention, ReadsPeriods) {
  EXPECT_EQ((PeriodCount{Period::kHour, 12}), ParsePeriods("12h"));
  EXPECT_EQ((PeriodCount{Period::kDay, 90}), ParsePeriods("90d"));
  EXPECT_EQ((PeriodCount{Period::kWeek, 4}), ParsePeriods("4w"));
  EXPECT_EQ((PeriodCount{Period::kMonth, 6}), ParsePeriods("6m"));
  EXPECT_EQ((PeriodCount{Period::kYear, 99999}), ParsePeriods("99999y"));
  for (const char* text : {"", "d", "90", "0d", "-1d", "1.5d", "90 d", "90D", "90s", "100000d",
                           "18446744073709551617d", "7d4w", "7d "})
    EXPECT_FALSE(ParsePeriods(text)) << text;
}

TEST_F(Retention, ReadsPolicies) {
  EXPECT_EQ((RetentionPolicy{
                {Period::kHour, 24}, {Period::kDay, 7}, {Period::kWeek, 4}, {Period::kMonth, 12}}),
            ParsePolicy("24h7d4w12m"));
  EXPECT_EQ((RetentionPolicy{{Period::kYear, 2}, {Period::kDay, 1}}), ParsePolicy("2y1d"));
  for (const char* text : {"", "7", "7d7d", "7d0w", "7d 4w", "d7", "7d,4w", "7x"})
    EXPECT_FALSE(ParsePolicy(text)) << text;
}

TEST_F(Retention, TimeBeforeFollowsTheCalendar) {
  const struct {
    const char *now, *age, *before;
  } kCases[] = {
      {"2024-06-15 12:30:01", "36h", "2024-06-14 00:30:01"},
      {"2024-06-15 12:30:01", "90d", "2024-03-17 12:30:01"},  // clocks went forward in between
      {"2024-04-01 12:00:00", "24h", "2024-03-31 12:00:00"},
      {"2024-03-31 12:00:00", "24h", "2024-03-30 11:00:00"},
      {"2024-03-31 12:00:00", "1d", "2024-03-30 12:00:00"},
      {"2024-06-15 12:30:01", "2w", "2024-06-01 12:30:01"},
      {"2024-03-31 08:00:00", "1m", "2024-02-29 08:00:00"},
      {"2023-03-31 08:00:00", "1m", "2023-02-28 08:00:00"},
      {"2024-01-15 08:00:00", "14m", "2022-11-15 08:00:00"},
      {"2024-02-29 08:00:00", "1y", "2023-02-28 08:00:00"},
      {"2024-06-15 12:30:01", "60y", "1970-01-01 01:00:00"},
      {"2024-06-15 12:30:01", "40000y", "1970-01-01 01:00:00"},  // once a year to come
      {"2024-06-15 12:30:01", "99999y", "1970-01-01 01:00:00"},
      {"2024-06-15 12:30:01", "99999d", "1970-01-01 01:00:00"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.before, Before(c.now, c.age)) << c.now << " " << c.age;
}

TEST_F(Retention, KeepsTheNewestOfEachPeriod) {
  const Texts times = {"2024-02-28 10:00:00", "2024-02-29 09:00:00", "2024-02-29 23:59:59",
                       "2024-03-01 00:00:00", "2024-03-03 23:00:00", "2024-03-04 00:00:00",
                       "2024-03-04 00:30:00"};
  EXPECT_EQ((Texts{times[4], times[6]}), Kept("2d", times));
  EXPECT_EQ((Texts{times[4], times[6]}), Kept("2w", times)) << "weeks begin on Monday, 4 March";
  EXPECT_EQ((Texts{times[2], times[6]}), Kept("9m", times));
  EXPECT_EQ((Texts{times[6]}), Kept("1y", times));
  EXPECT_EQ((Texts{times[3], times[4], times[6]}), Kept("3h", times));
}

TEST_F(Retention, PeriodsEndWithTheirLastSecond) {
  const struct {
    const char *policy, *first, *last, *next;
  } kCases[] = {
      {"2h", "2024-03-04 09:00:00", "2024-03-04 09:59:59", "2024-03-04 10:00:00"},
      {"2d", "2024-03-04 00:00:00", "2024-03-04 23:59:59", "2024-03-05 00:00:00"},
      {"2w", "2024-12-30 00:00:00", "2025-01-05 23:59:59", "2025-01-06 00:00:00"},
      {"2m", "2024-02-01 00:00:00", "2024-02-29 23:59:59", "2024-03-01 00:00:00"},
      {"2y", "2023-01-01 00:00:00", "2023-12-31 23:59:59", "2024-01-01 00:00:00"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ((Texts{c.last, c.next}), Kept(c.policy, {c.first, c.last, c.next})) << c.policy;
}

TEST_F(Retention, PeriodsOfOneNameAreNotOne) {
  const Texts hours = {"2024-03-04 10:00:00", "2024-03-05 10:00:00"};
  EXPECT_EQ(hours, Kept("2h", hours));
  const Texts months = {"2023-03-04 10:00:00", "2024-03-04 10:00:00"};
  EXPECT_EQ(months, Kept("2m", months));
}

TEST_F(Retention, PeriodsWithoutASnapshotDoNotCount) {
  const Texts times = {"2020-01-01 00:00:00", "2021-05-05 00:00:00", "2024-03-01 00:00:00"};
  EXPECT_EQ((Texts{times[1], times[2]}), Kept("2h", times));
  EXPECT_EQ(times, Kept("3m", times));
  EXPECT_EQ(times, Kept("99999y", times));
}

TEST_F(Retention, RulesDoNotSeeOneAnother) {
  const Texts times = {"2024-01-31 12:00:00", "2024-02-10 12:00:00", "2024-02-11 12:00:00",
                       "2024-02-11 18:00:00"};
  EXPECT_EQ((Texts{times[0], times[3]}), Kept("1d2m", times));
  EXPECT_EQ((Texts{times[0], times[1], times[3]}), Kept("2d2m", times));
}

TEST_F(Retention, HourThatComesTwiceIsTwoHours) {
  const time_t first = 1729988100;  // 02:15 summer time on 27 October 2024
  const std::vector<time_t> times = {first, first + 1800, first + 3600, first + 5400};
  EXPECT_EQ("2024-10-27 02:15:00", TimeForPeople(times[0]));
  EXPECT_EQ("2024-10-27 02:15:00", TimeForPeople(times[2]));
  EXPECT_EQ((std::vector<bool>{false, true, false, true}),
            KeptBy(ParsePolicy("2h").value(), times));
}

TEST_F(Retention, NothingToKeepOfNothing) {
  EXPECT_TRUE(KeptBy(ParsePolicy("7d").value(), {}).empty());
}
