// Status and result files, each operation with its first, second, ... allocation failing: no
// exception, no lock kept, no file damaged.
#include <utility>
#include <vector>

#include "tests/support/scarce_memory.h"
#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

using Values = std::vector<unsigned long long>;

// Longer than what a string holds without memory of its own.
const std::string kTask = "0f0e0d0c-0b0a-4908-8706-050403020100";
const std::string kShare = "photos of the summer before the last one";

class TaskFilesMemory : public TaskFiles {
 protected:
  TaskFilesMemory() {
    TaskStatus task;
    EXPECT_TRUE(task.Init(kTask, true));
    ShareTaskStatus share;
    EXPECT_TRUE(share.Init(kShare, true));
    EXPECT_TRUE(TaskResult::InitWorkingDir());
  }

  // Runs `operation` until no allocation is left to fail; what it returns then is expected to be
  // `success`, and something else at least once before, unless it `alwaysSucceeds`.
  template <typename Operation, typename Result>
  void EachAllocationFails(Operation operation, Result success, bool alwaysSucceeds = false) {
    int failures = 0;
    for (int n = 1; !HasFailure(); ++n) {
      SCOPED_TRACE(n);
      Result result = success;
      bool failed = false;
      {
        OneAllocationFails one(n);
        EXPECT_NO_THROW(result = operation());
        failed = one.Failed();
      }
      ExpectSound();
      if (!failed) {
        EXPECT_EQ(success, result);
        break;
      }
      failures += result != success;
    }
    if (alwaysSucceeds)
      EXPECT_EQ(0, failures);
    else
      EXPECT_LT(0, failures);
  }

  // Status files that are there can be read, and no lock is left.
  static void ExpectSound() {
    for (const auto& [file, lock] :
         {std::pair(kRun + "/task_status/" + kTask, kLock + "/task_status/" + kTask + ".lock"),
          std::pair(kPersistent + "/share_task_status/" + kShare,
                    kLock + "/share_task_status/" + kShare)}) {
      Json::Value value;
      if (std::filesystem::exists(file)) {
        EXPECT_TRUE(Utils::JsonFromFile(value, file));
        EXPECT_TRUE(value.isObject());
      }
      if (std::filesystem::exists(lock)) {
        EXPECT_EQ(F_UNLCK, LockOn(lock));
      }
    }
  }
};

}  // namespace

TEST_F(TaskFilesMemory, BindingFails) {
  EachAllocationFails([] { return TaskStatus().Init(kTask, true); }, true);
  EachAllocationFails([] { return TaskStatus(kTask).Valid(); }, true);
  EachAllocationFails([] { return ShareTaskStatus().Init(kShare, true); }, true);
}

TEST_F(TaskFilesMemory, BindingThatFailsLeavesTheObject) {
  OpenTaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  const std::string file = status.statusFilePath;
  const std::string lock = status.lockFilePath;
  EachAllocationFails(
      [&] {
        if (status.Init(kTask, false)) return true;
        EXPECT_EQ("t1", status.taskID);
        EXPECT_EQ(file, status.statusFilePath);
        EXPECT_EQ(lock, status.lockFilePath);
        return false;
      },
      true);
}

TEST_F(TaskFilesMemory, WritersFail) {
  TaskStatus status(kTask);
  const std::string text = "a text that is longer than what a string holds by itself";
  EachAllocationFails([&] { return status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, text); }, 0);
  EachAllocationFails([&] { return status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 4711); }, 0);
  EachAllocationFails([&] { return status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME); }, 0);
  EachAllocationFails([&] { return status.SetCalculatorStatus(CAL_TASK_STATUS_DONE); }, 0);
  // A number outside the enumeration takes memory for its row in the table.
  const auto outside = static_cast<CAL_TASK_STATUS>(6);
  EachAllocationFails(
      [&] {
        const int code = status.SetCalculatorStatus(outside);
        _cal_task_status_str.erase(outside);
        return code;
      },
      0);
}

TEST_F(TaskFilesMemory, ReadersFail) {
  TaskStatus status(kTask);
  const std::string text = "a text that is longer than what a string holds by itself";
  ASSERT_EQ(0, status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, text));
  ASSERT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 4711));
  ASSERT_EQ(0, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME));
  EachAllocationFails(
      [&] {
        std::string read;
        return status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, read);
      },
      0);
  EachAllocationFails(
      [&] {
        int read = 0;
        return status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, read);
      },
      0);
  EachAllocationFails(
      [&] {
        time_t read = 0;
        return status.GetStatusTimeAttr(TASKSTATUS_ATTR_END_TIME, read);
      },
      0);
  EachAllocationFails(
      [&] {
        CAL_TASK_STATUS read = CAL_TASK_STATUS_FAIL;
        int errorCode = 0;
        return status.GetCalculatorStatus(read, errorCode);
      },
      0);
  EachAllocationFails([&] { return status.CheckAttrExist(TASKSTATUS_ATTR_STATUS); }, true);
}

// What could not be read reads as a missing file does: no failure, but nothing thrown either.
TEST_F(TaskFilesMemory, WholeObjectThrowsNothing) {
  TaskStatus status(kTask);
  for (int n = 1, failed = 1; failed != 0; ++n) {
    SCOPED_TRACE(n);
    Json::Value read;
    const OneAllocationFails one(n);
    EXPECT_NO_THROW((void)status.GetJsonVal(read));
    failed = one.Failed();
  }
  ExpectSound();
}

TEST_F(TaskFilesMemory, ImportFails) {
  TaskStatus status(kTask);
  ASSERT_EQ(0,
            status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "a text of the task, and a long one"));
  EachAllocationFails(
      [&] {
        ShareTaskStatus share;
        return share.Init(kShare, false) && share.Import(status);
      },
      true);
}

TEST_F(TaskFilesMemory, NamesOfFilesAreEmpty) {
  for (const auto path : {TaskStatus::GetFilePath, TaskStatus::GetFileLockPath,
                          TaskResult::GetFileBasePath, TaskResult::GetFileLockBasePath}) {
    std::string text = "not empty";
    const OneAllocationFails one(1);
    EXPECT_NO_THROW(text = path(kTask));
    EXPECT_EQ("", text);
  }
}

// A task that looked gone for want of memory would be given away while it runs.
TEST_F(TaskFilesMemory, TaskIsSeenWithoutMemory) {
  (void)TaskStatus::CheckFile(kTask);  // the first call of a platform function is looked up
  const ScarceMemory nothing(0);
  EXPECT_TRUE(TaskStatus::CheckFile(kTask));
}

TEST_F(TaskFilesMemory, ShareIsNotSeen) {
  EachAllocationFails([] { return ShareTaskStatus::CheckShareStatusFile(kShare); }, true);
}

TEST_F(TaskFilesMemory, RemovalThrowsNothing) {
  EachAllocationFails([] { return TaskStatus::CleanFile(kTask); }, true, /*alwaysSucceeds=*/true);
  EachAllocationFails([] { return ShareTaskStatus::CleanShareStatus(kShare); }, true);
  EachAllocationFails([] { return TaskResult::CleanFile(kTask); }, true);
}

TEST_F(TaskFilesMemory, ResultsFail) {
  const Values values = {1, 2};
  EachAllocationFails([] { return TaskResult::InitWorkingDir(); }, true);
  EachAllocationFails(
      [&] { return TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, kTask, values); }, 0);
  EachAllocationFails(
      [&] {
        Values read;
        return TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, kTask, read);
      },
      0);
  const std::string file = TaskResult::GetFileBasePath(kTask) + ".result";
  EachAllocationFails([&] { return TaskResult::WriteVtr(file, values); }, 0);
  EachAllocationFails(
      [&] {
        Values read;
        return TaskResult::ReadVtr(file, read);
      },
      0);
}
