// Stopping a task from another process, at every state and at every moment.
#include <errno.h>

#include <random>

#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/types.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "snap_calculator/snap_usage_cal";

// A finished task stays to be looked at when its post-action says that it was not handed over.
int KeepFiles(TaskStatus&, void*) { return 1; }

class StopWorld : public CalcWorld {
 protected:
  static void Status(const std::string& json) { WriteFile(std::string(kStatusDir) + "t1", json); }

  static void StatusInProcess(const std::string& pid) {
    Status("{\"status\":\"process\",\"pid\":\"" + pid + "\"}");
  }

  // Starts a new task; its ID and pid.
  std::pair<std::string, pid_t> StartOne() {
    SnapUsageCalculator calc;
    EXPECT_TRUE(SnapUsageCalculator::CreateTask(calc));
    PlatformHook<decltype(PLATCProcForkChildNoWait)> fork("PLATCProcForkChildNoWait");
    pid_t pid = -1;
    fork.Replace([&] { return pid = fork.Real(); });
    SzList list = ListOf({"257"});
    EXPECT_EQ(0, calc.Start(&task_, SzListRef(list)));
    return {calc.TaskID(), pid};
  }

  // Waits until a caller could see `process` and the pid.
  static bool AwaitPid(const std::string& taskID) {
    const std::string path = kStatusDir + taskID;
    for (const double end = Seconds() + 60; Seconds() < end;)
      if (ReadFile(path).find("\"pid\"") != std::string::npos) return true;
    return false;
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, &KeepFiles, 1};
};

}  // namespace

class SnapUsageCalculatorStop : public StopWorld {};

// ---- Nothing to stop ----------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStop, EmptyIDIsAnInvalidArgument) {
  EXPECT_EQ(3, SnapUsageCalculator::Stop(""));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (!taskID.empty())=[0]\n"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStop, TaskThatCannotBeOpenedIsOne) {
  SpoilTheDirectories();
  EXPECT_EQ(1, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to initialize object, taskID:(t1)" + Tail()))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStop, TaskThatNeverExistedIsNothingToStop) {
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to get calculator status, taskID:(t1)"))
      << log_.Dump();
  EXPECT_FALSE(Exists(std::string(kStatusDir) + "t1"));
}

TEST_F(SnapUsageCalculatorStop, UnreadableStatusIsNothingToStop) {
  const struct {
    const char* name;
    const char* json;
  } kCases[] = {{"no JSON", "{"},
                {"unknown word", "{\"status\":\"finished\"}"},
                {"done without error code", "{\"status\":\"done\"}"},
                {"an array", "[]"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    Status(c.json);
    EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Failed to get calculator status, taskID:(t1)"))
        << log_.Dump();
  }
}

TEST_F(SnapUsageCalculatorStop, OtherStatesAreNotSignalled) {
  PlatformHook<int(pid_t, int)> sent("kill");
  for (const char* state : {"ready", "fail", "stop", "done"}) {
    SCOPED_TRACE(state);
    Status(std::string("{\"status\":\"") + state + "\",\"error_code\":\"0\",\"pid\":\"" +
           std::to_string(getpid()) + "\"}");
    EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  }
  EXPECT_EQ(0, sent.Calls());
  EXPECT_EQ(0, log_.Count(kUnit)) << log_.Dump();
}

TEST_F(SnapUsageCalculatorStop, StateOutsideTheVocabularyIsLogged) {
  // A look-up with a number outside the enumeration adds a row; "" is then a state word.
  const auto beyond = static_cast<CAL_TASK_STATUS>(7);
  ASSERT_EQ("", _cal_task_status_str[beyond]);
  Status("{\"status\":\"\",\"error_code\":\"0\"}");
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  _cal_task_status_str.erase(beyond);
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "Stop", getpid(), "t1", "Invalid status = 7"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStop, ProcessWithoutPidIsNotSignalled) {
  PlatformHook<int(pid_t, int)> sent("kill");
  Status("{\"status\":\"process\"}");
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ(0, sent.Calls());
}

TEST_F(SnapUsageCalculatorStop, PidThatIsNoPidIsNotSignalled) {
  PlatformHook<int(pid_t, int)> sent("kill");
  for (const char* pid : {"", "abc", "0", "1", "-1", "-4711"}) {
    SCOPED_TRACE(pid);
    StatusInProcess(pid);
    EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  }
  EXPECT_EQ(0, sent.Calls());
}

TEST_F(SnapUsageCalculatorStop, ProcessThatIsGoneIsNothingToStop) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  ASSERT_EQ(0, WaitForExit(pid));
  StatusInProcess(std::to_string(pid));
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ(0, log_.Count(kUnit)) << log_.Dump();
}

// ---- A process to stop --------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStop, SendsSigtermToTheProcess) {
  StatusInProcess("4711");
  std::vector<std::pair<pid_t, int>> seen;
  PlatformHook<int(pid_t, int)> sent("kill");
  sent.Replace([&](pid_t pid, int sig) {
    seen.push_back({pid, sig});
    return 0;
  });
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ((std::vector<std::pair<pid_t, int>>{{4711, 0}, {4711, 15}}), seen);
  EXPECT_EQ("process", StatusOf("t1")["status"]);  // the child writes, not Stop
}

TEST_F(SnapUsageCalculatorStop, SignalThatIsNotSentIsOne) {
  StatusInProcess("4711");
  PlatformHook<int(pid_t, int)> sent("kill");
  sent.Replace([&](pid_t, int sig) {
    errno = EPERM;
    return sig == 0 ? 0 : -1;
  });
  EXPECT_EQ(1, SnapUsageCalculator::Stop("t1"));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "Stop", getpid(), "t1",
                              "failed to send signal [15] to [4711], err=Operation not permitted"))
      << log_.Dump();
}

// ---- At every moment ----------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStop, AtAnyMomentEndsInStopOrTheTaskHadEnded) {
  FakeBtrfs(
      "for i in {1..10}; do echo \"processed $i bytes\"; sleep 0.0005; done 2>/dev/null\n"
      "echo 'subvol(257) 1 bytes'\n");
  std::mt19937 random(20240305);
  std::uniform_int_distribution<useconds_t> delay(0, 60000);
  int stopped = 0;
  int done = 0;
  for (int round = 0; round < 300 || stopped < 100; ++round) {
    SCOPED_TRACE(round);
    ASSERT_LT(round, 3000) << "only " << stopped << " were stopped";
    const auto [taskID, pid] = StartOne();
    ASSERT_TRUE(AwaitPid(taskID));
    // Half of the stops come at once, when no handler is there yet.
    if (round % 2 == 1) usleep(delay(random));
    ASSERT_EQ(0, SnapUsageCalculator::Stop(taskID));
    const int status = WaitForExit(pid);
    auto members = StatusOf(taskID);
    if (members["status"] == "stop") {
      ++stopped;
      ASSERT_EQ(12, status);
      ASSERT_EQ("12", members["error_code"]);
      ASSERT_FALSE(Exists(kResultDir + taskID + ".result"));
    } else {
      ++done;
      ASSERT_EQ("done", members["status"]);
      ASSERT_EQ("0", members["error_code"]);
      ASSERT_EQ(9, status);  // the post-action that keeps the files
      ASSERT_TRUE(Exists(kResultDir + taskID + ".subvol_id"));
    }
    SnapUsageCalculator(taskID).CleanAll();
  }
  RecordProperty("stopped", stopped);
  RecordProperty("done", done);
}

TEST_F(SnapUsageCalculatorStop, BurstOfStopsIsOneStop) {
  FakeBtrfs("while echo 'processed 1 bytes'; do sleep 0.01; done 2>/dev/null\n");
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    log_.Clear();
    const auto [taskID, pid] = StartOne();
    ASSERT_TRUE(AwaitPid(taskID));
    for (int i = 0; i < 50; ++i) {
      ASSERT_EQ(0, SnapUsageCalculator::Stop(taskID));
      if (round % 2 == 1) usleep(500);
    }
    ASSERT_EQ(12, WaitForExit(pid));
    ASSERT_EQ("stop", StatusOf(taskID)["status"]);
    ASSERT_EQ("12", StatusOf(taskID)["error_code"]);
    // One that comes while the first is handled is let in with it; all others wait for ever.
    ASSERT_LE(log_.Count("SnapUsageCalculator got signal 15"), 2) << log_.Dump();
    ASSERT_EQ(1, log_.Count("Failed to start the calculator task, ret: 12")) << log_.Dump();
  }
}
