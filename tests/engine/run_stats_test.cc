// What a run says about itself: its phases add up, and nothing overflows.
#include "engine/size/run_stats.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace ZorvEngine;
using std::chrono::nanoseconds;

TEST(RunStatsAddTime, AddsTurnsOfTheSamePhase) {
  RunStats stats;
  stats.AddTime("chunks", nanoseconds(5));
  stats.AddTime("data", nanoseconds(7));
  stats.AddTime("chunks", nanoseconds(11));
  EXPECT_STREQ("chunks", stats.phases[0].name);
  EXPECT_EQ(16, stats.phases[0].time.count());
  EXPECT_STREQ("data", stats.phases[1].name);
  EXPECT_EQ(7, stats.phases[1].time.count());
  EXPECT_EQ(nullptr, stats.phases[2].name);
}

TEST(RunStatsAddTime, LosesNoTimeWhenThereAreTooManyPhases) {
  RunStats stats;
  std::vector<std::string> names;
  for (size_t i = 0; i < 2 * RunStats::kMostPhases; ++i) names.push_back(std::to_string(i));
  for (const std::string& name : names) stats.AddTime(name.c_str(), nanoseconds(1));
  nanoseconds sum{0};
  for (const RunStats::Phase& phase : stats.phases) sum += phase.time;
  EXPECT_EQ(32, sum.count());
}

TEST(RunStatsChoose, CutsWhatIsTooLong) {
  RunStats stats;
  stats.Choose(std::string(1000, 'x'), std::string(1000, 'y'));
  EXPECT_EQ(sizeof stats.method - 1, strlen(stats.method));
  EXPECT_EQ(sizeof stats.why - 1, strlen(stats.why));
  stats.Choose("walk", "");
  EXPECT_STREQ("walk", stats.method);
  EXPECT_STREQ("", stats.why);
}

TEST(PhaseTimer, TakesTheTimeOfItsScope) {
  RunStats stats;
  { const PhaseTimer timer(stats, "scope"); }
  EXPECT_STREQ("scope", stats.phases[0].name);
  EXPECT_GT(stats.phases[0].time.count(), 0);
}
