// A calculation task apart from its run: ID, status file, queries, post-action, clean-up.
#include <errno.h>

#include <regex>
#include <stdexcept>

#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "snap_calculator/snap_usage_cal";
constexpr char kUuidgen[] = "/usr/bin/uuidgen";

struct ActionState {
  int calls = 0;
  int result = 0;
  std::string taskID;
  bool nullPointer = false;
};
ActionState action;

int PostAction(TaskStatus& status, void* data) {
  ++action.calls;
  action.taskID = status.TaskID();
  action.nullPointer = data == nullptr;
  return action.result;
}

int ThrowingPostAction(TaskStatus&, void*) { throw std::runtime_error("action"); }
int NumberThrowingPostAction(TaskStatus&, void*) { throw 7; }

class TaskWorld : public CalcWorld {
 protected:
  TaskWorld() {
    action = {};
    if (!Exists("/tmp/uuidgen")) std::filesystem::copy_file(kUuidgen, "/tmp/uuidgen");
  }
  ~TaskWorld() override {
    std::filesystem::remove(kUuidgen);
    std::filesystem::copy_file("/tmp/uuidgen", kUuidgen);
  }

  static void FakeUuidgen(const std::string& script) {
    std::filesystem::remove(kUuidgen);
    WriteScript(kUuidgen, script);
  }

  // A task with both result vectors.
  void TaskWithResults(SnapUsageCalculator& calc, const std::string& taskID) {
    ASSERT_EQ(0, calc.Init(taskID));
    const std::vector<unsigned long long> values = {1, 2};
    ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, taskID, values));
    ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, taskID, values));
  }

  void ExpectFiles(const std::string& taskID, bool there) {
    EXPECT_EQ(there, Exists(kStatusDir + taskID));
    EXPECT_EQ(there, Exists(kResultDir + taskID + ".result"));
    EXPECT_EQ(there, Exists(kResultDir + taskID + ".subvol_id"));
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, &PostAction, 1};
};

}  // namespace

class SnapUsageCalculatorConstructor : public TaskWorld {};
class SnapUsageCalculatorGenTaskID : public TaskWorld {};
class SnapUsageCalculatorInit : public TaskWorld {};
class SnapUsageCalculatorCreateTask : public TaskWorld {};
class SnapUsageCalculatorGetTaskStatus : public TaskWorld {};
class SnapUsageCalculatorGetCalculatorStatus : public TaskWorld {};
class SnapUsageCalculatorSetTaskStatusReady : public TaskWorld {};
class SnapUsageCalculatorPostCalAction : public TaskWorld {};
class SnapUsageCalculatorCleanAll : public TaskWorld {};

// ---- Identity -----------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorConstructor, DefaultHoldsNoTask) {
  const SnapUsageCalculator calc;
  EXPECT_FALSE(calc.Valid());
  EXPECT_EQ("", calc.TaskID());
}

TEST_F(SnapUsageCalculatorConstructor, WithAnIDTouchesNoFile) {
  const SnapUsageCalculator calc("some-task");
  EXPECT_EQ("some-task", calc.TaskID());
  EXPECT_FALSE(calc.Valid());
  EXPECT_FALSE(Exists("/run/zorvbtrfssnapusage"));
}

TEST_F(SnapUsageCalculatorGenTaskID, IsAFreshUuid) {
  std::string first;
  std::string second;
  EXPECT_TRUE(SnapUsageCalculator::GenTaskID(first));
  EXPECT_TRUE(SnapUsageCalculator::GenTaskID(second));
  const std::regex uuid("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(first, uuid)) << first;
  EXPECT_TRUE(std::regex_match(second, uuid)) << second;
  EXPECT_NE(first, second);
}

TEST_F(SnapUsageCalculatorGenTaskID, GoesOnWhileAStatusFileExists) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("taken"));
  WriteFile("/tmp/uuids", "taken\ntaken\ntaken\nfree\nlater\n");
  FakeUuidgen("head -n1 /tmp/uuids; sed -i 1d /tmp/uuids\n");
  std::string taskID;
  EXPECT_TRUE(SnapUsageCalculator::GenTaskID(taskID));
  EXPECT_EQ("free", taskID);
  EXPECT_EQ("later\n", ReadFile("/tmp/uuids"));
}

TEST_F(SnapUsageCalculatorGenTaskID, NoUuidIsAFailure) {
  FakeUuidgen("exit 0\n");
  std::string taskID = "untouched";
  EXPECT_FALSE(SnapUsageCalculator::GenTaskID(taskID));
  EXPECT_EQ("untouched", taskID);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to gen UUID." + Tail()))
      << log_.Dump();
}

// ---- Init and CreateTask ------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorInit, MakesAStatusFileInStateReady) {
  SnapUsageCalculator calc;
  EXPECT_EQ(0, calc.Init("t1"));
  EXPECT_TRUE(calc.Valid());
  EXPECT_EQ("t1", calc.TaskID());
  EXPECT_EQ((std::map<std::string, std::string>{{"status", "ready"}}), StatusOf("t1"));
}

TEST_F(SnapUsageCalculatorInit, KeepsAnExistingState) {
  WriteFile(std::string(kStatusDir) + "t1", "{\"status\":\"process\"}");
  SnapUsageCalculator calc;
  EXPECT_EQ(0, calc.Init("t1"));
  EXPECT_EQ("process", StatusOf("t1")["status"]);
}

TEST_F(SnapUsageCalculatorInit, CompletesAnObjectMadeWithAnID) {
  SnapUsageCalculator calc("t1");
  EXPECT_EQ(0, calc.Init("t1"));
  EXPECT_TRUE(calc.Valid());
}

TEST_F(SnapUsageCalculatorInit, FailureIsLoggedWithTheID) {
  SpoilTheDirectories();
  SnapUsageCalculator calc;
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(1, calc.Init("t1"));
  EXPECT_FALSE(calc.Valid());
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "Init", getpid(), "t1",
                              "Failed to initilize task status" + Tail()))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorInit, EmptyIDFailsAndIsLoggedWithoutAnID) {
  SnapUsageCalculator calc;
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(1, calc.Init(""));
  EXPECT_FALSE(calc.Valid());
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "Init", getpid(), "",
                              "Failed to initilize task status[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorCreateTask, GivesANewTaskInStateReady) {
  SnapUsageCalculator calc;
  EXPECT_TRUE(SnapUsageCalculator::CreateTask(calc));
  EXPECT_TRUE(calc.Valid());
  EXPECT_EQ(36u, calc.TaskID().size());
  EXPECT_EQ((std::map<std::string, std::string>{{"status", "ready"}}), StatusOf(calc.TaskID()));
}

TEST_F(SnapUsageCalculatorCreateTask, NoIDIsAFailure) {
  FakeUuidgen("exit 0\n");
  SnapUsageCalculator calc;
  EXPECT_FALSE(SnapUsageCalculator::CreateTask(calc));
  EXPECT_FALSE(calc.Valid());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to generate task ID")) << log_.Dump();
}

TEST_F(SnapUsageCalculatorCreateTask, NoStatusFileIsAFailure) {
  FakeUuidgen("echo the-id\n");
  SpoilTheDirectories();
  SnapUsageCalculator calc;
  EXPECT_FALSE(SnapUsageCalculator::CreateTask(calc));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                               "Failed to initialize the calculator task with ID :the-id"))
      << log_.Dump();
}

// ---- Queries ------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorGetTaskStatus, GivesTheTextOfAnAttribute) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  std::string value;
  EXPECT_EQ(0, calc.GetTaskStatus(TASKSTATUS_ATTR_STATUS, value));
  EXPECT_EQ("ready", value);
}

TEST_F(SnapUsageCalculatorGetTaskStatus, MissingAttributeLeavesTheValue) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  std::string value = "untouched";
  EXPECT_EQ(1, calc.GetTaskStatus(TASKSTATUS_ATTR_PID, value));
  EXPECT_EQ("untouched", value);
}

TEST_F(SnapUsageCalculatorGetTaskStatus, NoTaskIsAFailure) {
  SnapUsageCalculator calc;
  std::string value = "untouched";
  EXPECT_EQ(1, calc.GetTaskStatus(TASKSTATUS_ATTR_STATUS, value));
  EXPECT_EQ("untouched", value);
}

TEST_F(SnapUsageCalculatorGetCalculatorStatus, GivesStateAndErrorCode) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  CAL_TASK_STATUS state = CAL_TASK_STATUS_DONE;
  int errorCode = 5;
  EXPECT_EQ(0, calc.GetCalculatorStatus(state, errorCode));
  EXPECT_EQ(CAL_TASK_STATUS_READY, state);
  EXPECT_EQ(-1, errorCode);

  WriteFile(std::string(kStatusDir) + "t1", "{\"status\":\"stop\",\"error_code\":\"12\"}");
  EXPECT_EQ(0, calc.GetCalculatorStatus(state, errorCode));
  EXPECT_EQ(CAL_TASK_STATUS_STOP, state);
  EXPECT_EQ(12, errorCode);
}

TEST_F(SnapUsageCalculatorGetCalculatorStatus, FinishedTaskWithoutErrorCodeFails) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  WriteFile(std::string(kStatusDir) + "t1", "{\"status\":\"done\"}");
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int errorCode = 5;
  EXPECT_EQ(1, calc.GetCalculatorStatus(state, errorCode));
}

// ---- SetTaskStatusReady -------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorSetTaskStatusReady, WritesPidErrorCodeAndStartTime) {
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  EXPECT_EQ(0, calc.SetTaskStatusReady());
  auto status = StatusOf("t1");
  EXPECT_EQ(4u, status.size());
  EXPECT_EQ(std::to_string(getpid()), status["pid"]);
  EXPECT_EQ("-1", status["error_code"]);
  const std::regex time(R"(\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d)");
  EXPECT_TRUE(std::regex_match(status["start_time"], time)) << status["start_time"];
}

TEST_F(SnapUsageCalculatorSetTaskStatusReady, LeavesTheStateWordAlone) {
  WriteFile(std::string(kStatusDir) + "t1", "{\"status\":\"process\"}");
  SnapUsageCalculator calc;
  ASSERT_EQ(0, calc.Init("t1"));
  EXPECT_EQ(0, calc.SetTaskStatusReady());
  EXPECT_EQ("process", StatusOf("t1")["status"]);
}

TEST_F(SnapUsageCalculatorSetTaskStatusReady, StopsAtTheFirstFailedWrite) {
  const std::vector<const char*> order = {"pid", "error_code", "start_time"};
  for (size_t failing = 0; failing < order.size(); ++failing) {
    SCOPED_TRACE(order[failing]);
    const std::string taskID = "t" + std::to_string(failing);
    SnapUsageCalculator calc;
    ASSERT_EQ(0, calc.Init(taskID));
    PlatformHook<int(const char*, const char*)> move("rename");
    move.FailsOnCall(static_cast<int>(failing) + 1, 0, EIO);
    EXPECT_EQ(1, calc.SetTaskStatusReady());
    EXPECT_EQ(static_cast<int>(failing) + 1, move.Calls());
    const auto status = StatusOf(taskID);
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(i < failing, status.count(order[i]) == 1);
  }
}

TEST_F(SnapUsageCalculatorSetTaskStatusReady, NoTaskIsAFailure) {
  SnapUsageCalculator calc;
  EXPECT_EQ(1, calc.SetTaskStatusReady());
}

// ---- PostCalAction and CleanAll -----------------------------------------------------------------

TEST_F(SnapUsageCalculatorPostCalAction, RunsTheActionAndRemovesTheFiles) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  EXPECT_EQ(0, calc.PostCalAction(&task_));
  EXPECT_EQ(1, action.calls);
  EXPECT_EQ("t1", action.taskID);
  EXPECT_TRUE(action.nullPointer);
  ExpectFiles("t1", false);
}

TEST_F(SnapUsageCalculatorPostCalAction, WithoutAnActionRemovesTheFiles) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  task_.fpPostCalAction = nullptr;
  EXPECT_EQ(0, calc.PostCalAction(&task_));
  ExpectFiles("t1", false);
}

TEST_F(SnapUsageCalculatorPostCalAction, FailedActionKeepsTheFiles) {
  for (const int result : {1, -1, 256}) {
    SCOPED_TRACE(result);
    log_.Clear();
    SnapUsageCalculator calc;
    TaskWithResults(calc, "t1");
    action.result = result;
    PLATCErrSetEx(0x1234, "tests/unit", 7);
    EXPECT_EQ(1, calc.PostCalAction(&task_));
    ExpectFiles("t1", true);
    EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "PostCalAction", getpid(), "t1",
                                "Failed to perform post-calculation action[0x1234 tests/unit:7]"))
        << log_.Dump();
  }
}

TEST_F(SnapUsageCalculatorPostCalAction, FailureOfAnObjectWithoutTaskIsLoggedWithoutAnID) {
  SnapUsageCalculator calc;
  action.result = 1;
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(1, calc.PostCalAction(&task_));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "PostCalAction", getpid(), "",
                              "Failed to perform post-calculation action[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorPostCalAction, ActionThatThrowsHasFailed) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  for (const auto action : {&ThrowingPostAction, &NumberThrowingPostAction}) {
    SCOPED_TRACE(action == &ThrowingPostAction ? "an exception" : "a number");
    task_.fpPostCalAction = action;
    EXPECT_EQ(1, calc.PostCalAction(&task_));
    ExpectFiles("t1", true);
  }
}

TEST_F(SnapUsageCalculatorPostCalAction, NullRecordIsAnInvalidArgument) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  EXPECT_EQ(3, calc.PostCalAction(nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != opt_task)=[0]\n"))
      << log_.Dump();
  ExpectFiles("t1", true);
}

TEST_F(SnapUsageCalculatorCleanAll, RemovesResultsStatusAndLocks) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  calc.CleanAll();
  ExpectFiles("t1", false);
  const std::string locks = "/run/lock/zorvbtrfssnapusage/";
  EXPECT_FALSE(Exists(locks + "task_status/t1.lock"));
  EXPECT_FALSE(Exists(locks + "snap_cal_result/t1.result"));
  EXPECT_FALSE(Exists(locks + "snap_cal_result/t1.subvol_id"));
}

TEST_F(SnapUsageCalculatorCleanAll, FailedResultsDoNotKeepTheStatus) {
  SnapUsageCalculator calc;
  TaskWithResults(calc, "t1");
  {
    PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
    alloc.AlwaysFails(0x2A00, ENOMEM);
    calc.CleanAll();
  }
  EXPECT_FALSE(Exists(std::string(kStatusDir) + "t1"));
  EXPECT_TRUE(Exists(std::string(kResultDir) + "t1.result"));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "CleanAll", getpid(), "t1",
                              "Failed to clean task result, taskID: t1"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorCleanAll, WithoutATaskTheMessageHasNoID) {
  SnapUsageCalculator calc;
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails(0x2A00, ENOMEM);
  calc.CleanAll();
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "CleanAll", getpid(), "",
                              "Failed to clean task result, taskID: "))
      << log_.Dump();
}
