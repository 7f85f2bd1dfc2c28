// A calculation, each time with one allocation more that fails: no exception, and a final state
// whenever it can be written.
#include "tests/support/calc_world.h"
#include "tests/support/scarce_memory.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

// Longer than what a string holds without memory of its own.
const std::string kTask = "0f0e0d0c-0b0a-4908-8706-050403020100";

class SnapUsageCalculatorMemory : public CalcWorld {
 protected:
  // Runs `operation` with its first, second, ... allocation failing, until none is left to fail.
  template <typename Operation>
  void EachAllocationFails(Operation operation) {
    int failures = 0;
    for (int n = 1; !HasFailure(); ++n) {
      SCOPED_TRACE(n);
      const OneAllocationFails one(n);
      EXPECT_NO_THROW(operation());
      if (!one.Failed()) break;
      ++failures;
    }
    EXPECT_LT(0, failures);
  }
};

}  // namespace

TEST_F(SnapUsageCalculatorMemory, TaskIsMadeOrNot) {
  EachAllocationFails([] { const SnapUsageCalculator calc(kTask); });
  EachAllocationFails([] {
    std::string id;
    (void)SnapUsageCalculator::GenTaskID(id);
  });
  EachAllocationFails([] {
    SnapUsageCalculator calc;
    (void)calc.Init(kTask);
  });
  EachAllocationFails([] {
    SnapUsageCalculator calc;
    (void)SnapUsageCalculator::CreateTask(calc);
  });
}

TEST_F(SnapUsageCalculatorMemory, TaskThatCannotBeBoundIsOne) {
  SnapUsageCalculator calc;
  const OneAllocationFails one(1);
  EXPECT_EQ(1, calc.Init(kTask));
  EXPECT_FALSE(calc.Valid());
}

TEST_F(SnapUsageCalculatorMemory, QueriesFail) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init(kTask));
  EachAllocationFails([&] {
    std::string text;
    (void)calc.GetTaskStatus(TASKSTATUS_ATTR_STATUS, text);
  });
  // One that takes memory of its own.
  ASSERT_EQ(0, TaskStatus(kTask).SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, std::string(100, 'x')));
  EachAllocationFails([&] {
    std::string text;
    (void)calc.GetTaskStatus(TASKSTATUS_ATTR_ERROR_MSG, text);
  });
  EachAllocationFails([&] {
    CAL_TASK_STATUS state = CAL_TASK_STATUS_FAIL;
    int errorCode = 0;
    (void)calc.GetCalculatorStatus(state, errorCode);
  });
  EachAllocationFails([] { (void)SnapUsageCalculator::Stop(kTask); });
  EachAllocationFails([&] { (void)calc.SetTaskStatusReady(); });
}

TEST_F(SnapUsageCalculatorMemory, CleanupThrowsNothing) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init(kTask));
  _tag_ZORV_BTRFS_USAGE_CAL_TASK task = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  EachAllocationFails([&] { calc.CleanAll(); });
  EachAllocationFails([&] { (void)calc.PostCalAction(&task); });
}

// One failure may cost one member of the final state, never both.
TEST_F(SnapUsageCalculatorMemory, RunEndsInAFinalState) {
  FakeOutput("processed 1 bytes\nexclusive 1 bytes\nsubvol(257) 1 bytes\n");
  SzList list = ListOf({"257"});
  for (const int option : {CAL_OPT_BY_PATH, CAL_OPT_BY_SUBVOLID}) {
    SCOPED_TRACE(option);
    _tag_ZORV_BTRFS_USAGE_CAL_TASK task = {option, nullptr, nullptr, 1};
    bool failed = true;
    for (int n = 1; failed && !HasFailure(); ++n) {
      SCOPED_TRACE(n);
      SnapUsageCalculator calc;
      ASSERT_EQ(0, calc.Init(kTask));
      int ret = -1;
      {
        const OneAllocationFails one(n);
        EXPECT_NO_THROW(ret = calc.StartTask(&task, SzListRef(list)));
        failed = one.Failed();
      }
      auto members = StatusOf(kTask);
      const std::string expected = ret == 0 ? "done" : "fail";
      EXPECT_TRUE(members["status"] == expected || members["error_code"] == std::to_string(ret))
          << ret << " " << members["status"] << " " << members["error_code"];
      calc.CleanAll();
    }
  }
}
