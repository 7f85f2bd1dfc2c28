// Clean-up of a task whose status file cannot be removed.
//
// TaskStatus::CleanFile never fails as it stands. This program puts its own in the place of it, so
// that what a failing one would bring about is seen all the same.
#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/task_status.h"

using namespace ZorvTest;

namespace {
constexpr char kUnit[] = "snap_calculator/snap_usage_cal";
int calls = 0;
}  // namespace

namespace ZorvBtrfsUsage {

// The library's calls come here.
bool TaskStatus::CleanFile(const std::string&) {
  ++calls;
  return false;
}

class SnapUsageCalculatorCleanAllStatus : public CalcWorld {};

TEST_F(SnapUsageCalculatorCleanAllStatus, FailureIsLoggedWithTheID) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1",
                                          std::vector<unsigned long long>{1}));
  calc.CleanAll();
  EXPECT_EQ(1, calls);
  EXPECT_FALSE(Exists(std::string(kResultDir) + "t1.result"));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "CleanAll", getpid(), "t1",
                              "Failed to clean task status, taskID: t1"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorCleanAllStatus, WithoutATaskTheMessageHasNoID) {
  SnapUsageCalculator calc;
  calc.CleanAll();
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "CleanAll", getpid(), "",
                              "Failed to clean task status, taskID: "))
      << log_.Dump();
}

}  // namespace ZorvBtrfsUsage
