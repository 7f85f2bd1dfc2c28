// Which snapshots the words of a plan choose, to the second.
#include "cli/plan_request.h"

#include <gtest/gtest.h>

#include "cli/failure.h"
#include "cli/time_text.h"

using namespace ZorvSnapUsage;

namespace {

constexpr time_t kNow = 1709629449;

// The places of snapshots of these times, the oldest first, that go.
std::vector<uint32_t> Chosen(const PlanWords& words, const std::vector<time_t>& times) {
  std::vector<Snapshot> snapshots;
  for (const time_t time : times)
    snapshots.push_back({std::to_string(time), "", 256 + snapshots.size(), time, std::nullopt});
  return SelectForPlan(ReadPlanWords(words, kNow), snapshots);
}

}  // namespace

TEST(PlanRequest, WhatIsAsOldAsTheAgeIsNotOlder) {
  PlanWords words;
  words.olderThan = "36h";
  const time_t asOld = kNow - 36 * 3600;
  EXPECT_EQ((std::vector<uint32_t>{0}), Chosen(words, {asOld - 1, asOld, asOld + 1}));
}

TEST(PlanRequest, UntilADayIsUntilItsLastSecond) {
  PlanWords words;
  words.until = "2024-03-02";
  const time_t last = ParseTime("2024-03-02 23:59:59", TimeBound::kFirstSecond).value();
  EXPECT_EQ((std::vector<uint32_t>{0, 1}), Chosen(words, {last - 1, last, last + 1}));
}

// The only snapshot was taken for it, where its folder has no name of its own.
TEST(PlanRequest, AnEmptyNameIsNoSnapshot) {
  PlanWords words;
  words.deletions = {std::to_string(kNow) + ","};
  EXPECT_THROW((void)Chosen(words, {kNow}), Failure);
}
