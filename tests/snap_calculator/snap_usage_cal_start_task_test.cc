// The whole calculation in the calling process: what is written when, and how each way ends.
#include <errno.h>

#include <regex>

#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "snap_calculator/snap_usage_cal";
constexpr char kTask[] = "the-task";
constexpr char kCommand[] = "/sbin/btrfs subvolume size -vpm -r /volume1 257 ";

struct ProgressState {
  std::vector<std::string> states;  // the state word at each call
  bool nullPointer = true;
  _tag_progress_update_function_ret result = PROGRESS_UPDATE_OK;
  int raiseAtCall = 0;
};
ProgressState progress;

_tag_progress_update_function_ret Progress(TaskStatus& status, void* data) {
  std::string word;
  status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, word);
  progress.states.push_back(word);
  progress.nullPointer = progress.nullPointer && data == nullptr;
  if (progress.raiseAtCall == static_cast<int>(progress.states.size())) raise(SIGTERM);
  return progress.result;
}

// Records the members that each write of the status file sets or changes.
class WriteRecorder {
 public:
  WriteRecorder() : move_("rename") {
    before_ = StatusOf(kTask);
    move_.Replace([this](const char* from, const char* to) {
      const int ret = move_.Real(from, to);
      const auto now = StatusOf(kTask);
      for (const auto& [key, value] : now)
        if (before_.count(key) == 0 || before_[key] != value) order_.push_back(key);
      before_ = now;
      return ret;
    });
  }

  const std::vector<std::string>& Order() const { return order_; }

 private:
  PlatformHook<int(const char*, const char*)> move_;
  std::map<std::string, std::string> before_;
  std::vector<std::string> order_;
};

class StartTaskWorld : public CalcWorld {
 protected:
  StartTaskWorld() {
    progress = {};
    calc_.Init(kTask);
    log_.Clear();
  }

  int Run() {
    SzList list = ListOf({"257"});
    return calc_.StartTask(&task_, SzListRef(list));
  }

  // Expects state and code, and on failure what was run.
  void ExpectOutcome(const std::string& state, int code) {
    auto status = StatusOf(kTask);
    EXPECT_EQ(state, status["status"]);
    EXPECT_EQ(std::to_string(code), status["error_code"]);
    EXPECT_TRUE(
        std::regex_match(status["end_time"], std::regex(R"(\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d)")))
        << status["end_time"];
  }

  void ExpectFailure(int code, const std::string& btrfsCmd) {
    ExpectOutcome("fail", code);
    auto status = StatusOf(kTask);
    ASSERT_TRUE(status.count("error_msg") == 1 && status.count("btrfs_cmd") == 1);
    EXPECT_EQ("", status["error_msg"]);
    EXPECT_EQ(btrfsCmd, status["btrfs_cmd"]);
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  SnapUsageCalculator calc_;
};

}  // namespace

class SnapUsageCalculatorStartTask : public StartTaskWorld {};

// ---- Outcomes -----------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStartTask, SuccessEndsInDone) {
  FakeOutput("processed 10 bytes\nexclusive 5 bytes\nsubvol(257) 5 bytes\n");
  EXPECT_EQ(0, Run());
  ExpectOutcome("done", 0);
  auto status = StatusOf(kTask);
  EXPECT_EQ(std::to_string(getpid()), status["pid"]);
  EXPECT_EQ("10", status["processed_in_bytes"]);
  EXPECT_EQ("5", status["estimated_in_bytes"]);
  EXPECT_EQ(7u, status.size());  // and no "error_msg", no "btrfs_cmd"
  EXPECT_TRUE(Exists(std::string(kResultDir) + kTask + ".result"));
}

TEST_F(SnapUsageCalculatorStartTask, StopEndsInStop) {
  FakeOutput("subvol(257) 5 bytes\n");
  BtrfsTool::gSignal = 15;
  EXPECT_EQ(12, Run());
  ExpectOutcome("stop", 12);
  EXPECT_EQ(5u, StatusOf(kTask).size());  // and no "error_msg", no "btrfs_cmd"
}

TEST_F(SnapUsageCalculatorStartTask, UnreadableOutputEndsInFailWithTheCommand) {
  FakeOutput("subvol\n");
  EXPECT_EQ(1, Run());
  ExpectFailure(1, kCommand);
}

TEST_F(SnapUsageCalculatorStartTask, UnknownOptionIsFiveWithoutCommand) {
  FakeOutput("x\n");
  for (const int option : {3, 0, -1}) {
    SCOPED_TRACE(option);
    task_.calOption = option;
    EXPECT_EQ(5, Run());
    ExpectFailure(5, "");
    EXPECT_EQ(1, log_.CountTask(
                     LOG_ERR, kUnit, "StartTask", getpid(), kTask,
                     "Failed to recognize option [" + std::to_string(option) + "] of calculator"))
        << log_.Dump();
  }
}

TEST_F(SnapUsageCalculatorStartTask, MissingCommandIsSix) {
  EXPECT_EQ(6, Run());
  ExpectFailure(6, "");
}

TEST_F(SnapUsageCalculatorStartTask, CommandThatDoesNotStartIsThirteen) {
  std::filesystem::create_directory(kBtrfs);
  EXPECT_EQ(13, Run());
  ExpectFailure(13, "");
}

TEST_F(SnapUsageCalculatorStartTask, NullListIsThree) {
  FakeOutput("x\n");
  EXPECT_EQ(3, calc_.StartTask(&task_, nullptr));
  ExpectFailure(3, "");
}

TEST_F(SnapUsageCalculatorStartTask, NullRecordIsThreeAndWritesNothing) {
  SzList list = ListOf({"257"});
  EXPECT_EQ(3, calc_.StartTask(nullptr, SzListRef(list)));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != opt_task)=[0]\n"))
      << log_.Dump();
  EXPECT_EQ("ready", StatusOf(kTask)["status"]);
}

TEST_F(SnapUsageCalculatorStartTask, ByPathHandsThePathsOver) {
  FakeBtrfs("echo \"$@\" > /tmp/args\n");
  task_.calOption = CAL_OPT_BY_PATH;
  EXPECT_EQ(0, Run());
  EXPECT_EQ("subvolume size -vpm 257\n", ReadFile("/tmp/args"));
}

TEST_F(SnapUsageCalculatorStartTask, FailureByPathIsLoggedAsSuch) {
  task_.calOption = CAL_OPT_BY_PATH;
  EXPECT_EQ(6, Run());
  EXPECT_EQ(1, log_.Count("(CalculateByPath)")) << log_.Dump();
  EXPECT_EQ(0, log_.Count("(CalculateBySubvolID)")) << log_.Dump();
}

// ---- Order of writes ----------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStartTask, OrderOfWritesOfASuccess) {
  FakeOutput("processed 10 bytes\nexclusive 5 bytes\nprocessed 20 bytes\n");
  const WriteRecorder writes;
  EXPECT_EQ(0, Run());
  EXPECT_EQ((std::vector<std::string>{"status", "pid", "error_code", "start_time",
                                      "processed_in_bytes", "estimated_in_bytes",
                                      "processed_in_bytes", "status", "end_time", "error_code"}),
            writes.Order());
}

TEST_F(SnapUsageCalculatorStartTask, OrderOfWritesOfAFailure) {
  FakeOutput("subvol\n");
  const WriteRecorder writes;
  EXPECT_EQ(1, Run());
  EXPECT_EQ((std::vector<std::string>{"status", "pid", "error_code", "start_time", "status",
                                      "error_msg", "btrfs_cmd", "end_time", "error_code"}),
            writes.Order());
}

TEST_F(SnapUsageCalculatorStartTask, OrderOfWritesOfAStop) {
  FakeOutput("x\n");
  BtrfsTool::gSignal = 15;
  const WriteRecorder writes;
  EXPECT_EQ(12, Run());
  EXPECT_EQ((std::vector<std::string>{"status", "pid", "error_code", "start_time", "status",
                                      "end_time", "error_code"}),
            writes.Order());
}

// ---- Failed writes ------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStartTask, ProcessThatCannotBeSetGoesFromReadyToFail) {
  FakeOutput("x\n");
  PlatformHook<int(const char*, const char*)> move("rename");
  move.FailsOnCall(1, 0, EIO);
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  task_.fpProgressUpdate = &Progress;
  EXPECT_EQ(1, Run());
  EXPECT_EQ(0, open.Calls());
  ExpectFailure(1, "");
  EXPECT_EQ(0u, StatusOf(kTask).count("pid"));
  EXPECT_EQ(std::vector<std::string>{"fail"}, progress.states);  // told at the end alone
  EXPECT_EQ(0, log_.Count(kUnit)) << log_.Dump();
}

// Kept: an Init that fails takes the object's ID away and leaves it bound to its task.
TEST_F(SnapUsageCalculatorStartTask, WithoutItsIDLogsTheShortForm) {
  ASSERT_EQ(1, calc_.Init(""));
  task_.calOption = 9;
  EXPECT_EQ(5, Run());
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "StartTask", getpid(), "",
                              "Failed to recognize option [9] of calculator"))
      << log_.Dump();
  PlatformHook<int(const char*, const char*)> move("rename");
  move.FailsOnCall(2, 0, EIO);
  EXPECT_EQ(1, Run());
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "StartTask", getpid(), "",
                              "Failed to prepare the status of calculator"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStartTask, PidThatCannotBeWrittenIsAFailure) {
  FakeOutput("x\n");
  PlatformHook<int(const char*, const char*)> move("rename");
  move.FailsOnCall(2, 0, EIO);
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  EXPECT_EQ(1, Run());
  EXPECT_EQ(0, open.Calls());
  ExpectFailure(1, "");
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "StartTask", getpid(), kTask,
                              "Failed to prepare the status of calculator"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStartTask, FailedFinalWritesKeepTheResult) {
  FakeOutput("subvol(257) 5 bytes\n");
  PlatformHook<int(const char*, const char*)> move("rename");
  move.Replace([&](const char* from, const char* to) {
    if (move.Calls() <= 4) return move.Real(from, to);
    errno = EIO;
    return -1;
  });
  EXPECT_EQ(0, Run());
  EXPECT_EQ("process", StatusOf(kTask)["status"]);
}

TEST_F(SnapUsageCalculatorStartTask, ObjectWithoutTaskFails) {
  FakeOutput("x\n");
  SnapUsageCalculator none;
  SzList list = ListOf({"257"});
  EXPECT_EQ(1, none.StartTask(&task_, SzListRef(list)));
}

// ---- Callback -----------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStartTask, CallbackIsToldAtBeginningLinesAndEnd) {
  FakeOutput("processed 10 bytes\nsubvol(257) 1 bytes\nexclusive 5 bytes\n");
  task_.fpProgressUpdate = &Progress;
  EXPECT_EQ(0, Run());
  EXPECT_EQ((std::vector<std::string>{"process", "process", "process", "done"}), progress.states);
  EXPECT_TRUE(progress.nullPointer);
}

TEST_F(SnapUsageCalculatorStartTask, FailedCallbackIsLoggedAndIgnored) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpProgressUpdate = &Progress;
  progress.result = PROGRESS_UPDATE_FAIL;
  EXPECT_EQ(0, Run());
  ExpectOutcome("done", 0);
  EXPECT_EQ(
      2, log_.CountExact(LOG_ERR, kUnit, "Failed to execute progress updating call-back function"))
      << log_.Dump();
}

// ---- Stops --------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStartTask, StopBeforeTheHandlerIsThereWaitsForIt) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpProgressUpdate = &Progress;
  progress.raiseAtCall = 1;  // "process" is to be seen, nothing is installed
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  EXPECT_EQ(12, Run());
  EXPECT_EQ(0, open.Calls());
  ExpectOutcome("stop", 12);
}

TEST_F(SnapUsageCalculatorStartTask, StopDuringAnUpdateEndsBeforeTheNextLine) {
  FakeOutput("processed 1 bytes\nprocessed 2 bytes\nsubvol(257) 1 bytes\n");
  task_.fpProgressUpdate = &Progress;
  progress.raiseAtCall = 2;  // the first of the lines
  EXPECT_EQ(12, Run());
  ExpectOutcome("stop", 12);
  EXPECT_EQ("1", StatusOf(kTask)["processed_in_bytes"]);
  EXPECT_FALSE(Exists(std::string(kResultDir) + kTask + ".result"));
}

TEST_F(SnapUsageCalculatorStartTask, StopAfterTheLastLineIsTooLate) {
  FakeOutput("processed 1 bytes\n");
  task_.fpProgressUpdate = &Progress;
  progress.raiseAtCall = 2;
  EXPECT_EQ(0, Run());
  ExpectOutcome("done", 0);
  EXPECT_EQ(15, BtrfsTool::gSignal);  // came in when the caller's mask was restored
}

TEST_F(SnapUsageCalculatorStartTask, SignalMaskIsRestored) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  for (const int option : {CAL_OPT_BY_PATH + 0, CAL_OPT_BY_SUBVOLID + 0, 3}) {
    SCOPED_TRACE(option);
    FakeOutput("x\n");
    task_.calOption = option;
    (void)Run();
    EXPECT_FALSE(Blocks(SIGTERM));
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    (void)Run();
    EXPECT_TRUE(Blocks(SIGTERM));
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
  }
}

TEST_F(SnapUsageCalculatorStartTask, PostActionIsNotRun) {
  FakeOutput("subvol(257) 1 bytes\n");
  static bool ran;
  ran = false;
  task_.fpPostCalAction = [](TaskStatus&, void*) {
    ran = true;
    return 0;
  };
  EXPECT_EQ(0, Run());
  EXPECT_FALSE(ran);
  EXPECT_TRUE(Exists(std::string(kStatusDir) + kTask));
}
