// A calculation in its forked child: what the caller gets, how the child exits, what it leaves.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/calc_world.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "snap_calculator/snap_usage_cal";

int SucceedingAction(TaskStatus&, void*) { return 0; }
int FailingAction(TaskStatus&, void*) { return 1; }
int RecordingAction(TaskStatus& status, void*) {
  WriteFile("/tmp/action", std::to_string(getpid()) + " " + status.TaskID());
  return 0;
}
_tag_progress_update_function_ret RecordingProgress(TaskStatus&, void*) {
  WriteFile("/tmp/progress", std::to_string(getpid()));
  return PROGRESS_UPDATE_OK;
}
_tag_progress_update_function_ret ThrowingProgress(TaskStatus&, void*) {
  throw std::runtime_error("progress");
}

class StartWorld : public CalcWorld {
 protected:
  StartWorld() {
    std::filesystem::remove("/tmp/action");
    std::filesystem::remove("/tmp/progress");
    calc_.Init("t1");
    log_.Clear();
    fork_.Replace([this] { return pid_ = fork_.Real(); });
  }

  int Start(SnapUsageCalculator& calc) {
    SzList list = ListOf({"257"});
    return calc.Start(&task_, SzListRef(list));
  }

  // Starts and gives the child's exit status.
  int ExitOfChild() {
    EXPECT_EQ(0, Start(calc_));
    return WaitForExit(pid_);
  }

  void ExpectState(const std::string& state, int code) {
    auto status = StatusOf("t1");
    EXPECT_EQ(state, status["status"]);
    EXPECT_EQ(std::to_string(code), status["error_code"]);
    EXPECT_EQ(std::to_string(pid_), status["pid"]);
  }

  // How often the child said that the calculation did not succeed.
  int Complaints(int code) {
    int count = 0;
    const std::string part =
        "(Start)[" + std::to_string(pid_) +
        "][t1]: Failed to start the calculator task, ret: " + std::to_string(code) + "[0x";
    for (const SyslogLine& line : log_.Lines())
      count += line.priority == LOG_DEBUG && line.text.find(part) != std::string::npos;
    return count;
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  SnapUsageCalculator calc_;
  PlatformHook<decltype(PLATCProcForkChildNoWait)> fork_{"PLATCProcForkChildNoWait"};
  pid_t pid_ = -1;
};

}  // namespace

class SnapUsageCalculatorStart : public StartWorld {};

// ---- The caller ---------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStart, NullRecordIsAnInvalidArgument) {
  SzList list = ListOf({"257"});
  EXPECT_EQ(3, calc_.Start(nullptr, SzListRef(list)));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != opt_task)=[0]\n"))
      << log_.Dump();
  EXPECT_EQ(0, fork_.Calls());
}

TEST_F(SnapUsageCalculatorStart, NullListIsAnInvalidArgument) {
  EXPECT_EQ(3, calc_.Start(&task_, nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (NULL != ppData)=[0]\n"))
      << log_.Dump();
  EXPECT_EQ(0, fork_.Calls());
}

TEST_F(SnapUsageCalculatorStart, ObjectWithoutTaskIsSevenWithoutForking) {
  SnapUsageCalculator none;
  EXPECT_EQ(7, Start(none));
  SnapUsageCalculator idAlone("t2");
  EXPECT_EQ(7, Start(idAlone));
  EXPECT_EQ(0, fork_.Calls());
}

TEST_F(SnapUsageCalculatorStart, FailedForkIsTen) {
  fork_.AlwaysFails(0x2A00, EAGAIN);
  EXPECT_EQ(10, Start(calc_));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "Start", getpid(), "t1",
                              "Failed to fork() [0x2A00 tests/hook:1]"))
      << log_.Dump();
  EXPECT_EQ("ready", StatusOf("t1")["status"]);
}

TEST_F(SnapUsageCalculatorStart, CallerDoesNotWait) {
  ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
  FakeBtrfs("read < /tmp/hold; echo 'subvol(257) 1 bytes'\n");
  EXPECT_EQ(0, Start(calc_));
  EXPECT_TRUE(WaitUntil([] { return StatusOf("t1")["status"] == "process"; }));
  WriteFile("/tmp/hold", "go\n");  // the child is here to be let go
  EXPECT_EQ(0, WaitForExit(pid_));
  std::filesystem::remove("/tmp/hold");
}

// ---- The child's exit ---------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStart, SuccessExitsWithZeroAndLeavesNoFiles) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpPostCalAction = &SucceedingAction;
  EXPECT_EQ(0, ExitOfChild());
  EXPECT_FALSE(Exists(std::string(kStatusDir) + "t1"));
  EXPECT_FALSE(Exists(std::string(kResultDir) + "t1.result"));
  EXPECT_FALSE(Exists(std::string(kResultDir) + "t1.subvol_id"));
}

TEST_F(SnapUsageCalculatorStart, CallbacksRunInTheChild) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpProgressUpdate = &RecordingProgress;
  task_.fpPostCalAction = &RecordingAction;
  EXPECT_EQ(0, ExitOfChild());
  EXPECT_EQ(std::to_string(pid_), ReadFile("/tmp/progress"));
  EXPECT_EQ(std::to_string(pid_) + " t1", ReadFile("/tmp/action"));
}

TEST_F(SnapUsageCalculatorStart, FailedPostActionExitsWithNineAndKeepsTheFiles) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpPostCalAction = &FailingAction;
  EXPECT_EQ(9, ExitOfChild());
  ExpectState("done", 0);
  EXPECT_TRUE(Exists(std::string(kResultDir) + "t1.result"));
  EXPECT_TRUE(Exists(std::string(kResultDir) + "t1.subvol_id"));
  for (const char* function : {"PostCalAction", "Start"})
    EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, function, pid_, "t1",
                                "Failed to perform post-calculation action[0x0000 :0]"))
        << log_.Dump();
}

TEST_F(SnapUsageCalculatorStart, FailuresExitWithTheirCodeAndRunNoPostAction) {
  const struct {
    const char* name;
    void (*make)();
    int option;
    int code;
  } kCases[] = {
      {"unreadable output", [] { WriteScript(kBtrfs, "echo exclusivex\n"); }, 2, 1},
      {"unknown option", [] { WriteScript(kBtrfs, ""); }, 3, 5},
      {"no command", [] {}, 2, 6},
      {"command that does not start", [] { std::filesystem::create_directory(kBtrfs); }, 1, 13},
  };
  task_.fpPostCalAction = &RecordingAction;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(kBtrfs);
    c.make();
    task_.calOption = c.option;
    EXPECT_EQ(c.code, ExitOfChild());
    ExpectState("fail", c.code);
    EXPECT_EQ(1, Complaints(c.code)) << log_.Dump();
    EXPECT_FALSE(Exists("/tmp/action"));
  }
}

TEST_F(SnapUsageCalculatorStart, NullListBehindThePointerExitsWithThree) {
  FakeOutput("x\n");
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(0, calc_.Start(&task_, &none));
  EXPECT_EQ(3, WaitForExit(pid_));
  ExpectState("fail", 3);
}

TEST_F(SnapUsageCalculatorStart, DebugLineCarriesThePlatformError) {
  PLATCErrSetEx(0x1234, "tests/unit", 7);  // the child inherits the record
  EXPECT_EQ(6, ExitOfChild());
  EXPECT_EQ(1, log_.CountTask(LOG_DEBUG, kUnit, "Start", pid_, "t1",
                              "Failed to start the calculator task, ret: 6[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorStart, CallbackThatThrowsDoesNotReturnFromTheChild) {
  FakeOutput("subvol(257) 1 bytes\n");
  task_.fpProgressUpdate = &ThrowingProgress;
  EXPECT_EQ(0, ExitOfChild());
}

TEST_F(SnapUsageCalculatorStart, CallersBufferedOutputIsWrittenOnce) {
  FakeOutput("subvol(257) 1 bytes\n");
  EXPECT_EQ(0, InChild([&] {
              FILE* const out = fopen("/tmp/buffered", "w");
              fputs("once", out);
              return Start(calc_) == 0 ? fclose(out) : 1;
            }));
  while (waitpid(-1, nullptr, 0) > 0) {
  }  // the calculator, an orphan by now, has ended and written what it holds
  EXPECT_EQ("once", ReadFile("/tmp/buffered"));
}

// What a caller's handler without SA_RESTART interrupts is not the end of the output: a result that
// lacks snapshots must not look whole.
TEST_F(SnapUsageCalculatorStart, CallersSignalHandlerDoesNotEndTheOutput) {
  ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
  FakeBtrfs(
      "echo 'processed 1 bytes'; printf 'subvol(25'; echo > /tmp/waiting; read < /tmp/hold\n"
      "echo '7) 5 bytes'\n");
  std::filesystem::remove("/tmp/waiting");
  task_.fpPostCalAction = &FailingAction;  // keeps the files
  struct sigaction handler = {};
  handler.sa_handler = [](int) { WriteFile("/tmp/handled", ""); };
  struct sigaction before;
  std::filesystem::remove("/tmp/handled");
  ASSERT_EQ(0, sigaction(SIGUSR1, &handler, &before));
  EXPECT_EQ(0, Start(calc_));
  sigaction(SIGUSR1, &before, nullptr);
  ASSERT_TRUE(WaitUntil([this] {
    return Exists("/tmp/waiting") && StatusOf("t1")["processed_in_bytes"] == "1" &&
           ReadFile("/proc/" + std::to_string(pid_) + "/stat").find(") S ") != std::string::npos;
  }));
  ASSERT_EQ(0, kill(pid_, SIGUSR1));
  ASSERT_TRUE(WaitUntil([] { return Exists("/tmp/handled"); }));
  WriteFile("/tmp/hold", "go\n");
  EXPECT_EQ(9, WaitForExit(pid_));
  EXPECT_EQ((std::vector<unsigned long long>{1, 257}),
            WordsOf(std::string(kResultDir) + "t1.subvol_id"));
  EXPECT_EQ((std::vector<unsigned long long>{1, 5}),
            WordsOf(std::string(kResultDir) + "t1.result"));
  std::filesystem::remove("/tmp/hold");
}

// ---- Stopped children ---------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorStart, StopDuringParsingExitsWithTwelveAndKeepsTheFiles) {
  ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
  FakeBtrfs(
      "echo 'processed 1 bytes'; read < /tmp/hold; echo 'processed 2 bytes'\n"
      "echo 'subvol(257) 1 bytes'\n");
  task_.fpPostCalAction = &RecordingAction;
  EXPECT_EQ(0, Start(calc_));
  ASSERT_TRUE(WaitUntil([] { return StatusOf("t1")["processed_in_bytes"] == "1"; }));
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  WriteFile("/tmp/hold", "go\n");
  EXPECT_EQ(12, WaitForExit(pid_));
  ExpectState("stop", 12);
  EXPECT_EQ("1", StatusOf("t1")["processed_in_bytes"]);
  EXPECT_EQ(0u, StatusOf("t1").count("error_msg"));
  EXPECT_FALSE(Exists("/tmp/action"));
  EXPECT_FALSE(Exists(std::string(kResultDir) + "t1.result"));
  EXPECT_EQ(1, Complaints(12)) << log_.Dump();
  std::filesystem::remove("/tmp/hold");
}

TEST_F(SnapUsageCalculatorStart, CallerThatBlocksSigtermDoesNotMakeTheChildDeaf) {
  ASSERT_EQ(0, mkfifo("/tmp/hold", 0600));
  FakeBtrfs("read < /tmp/hold; echo 'processed 2 bytes'; echo more\n");
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  EXPECT_EQ(0, Start(calc_));
  EXPECT_TRUE(Blocks(SIGTERM));
  pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
  ASSERT_TRUE(WaitUntil([] { return StatusOf("t1").count("start_time") == 1; }));
  EXPECT_EQ(0, SnapUsageCalculator::Stop("t1"));
  WriteFile("/tmp/hold", "go\n");
  EXPECT_EQ(12, WaitForExit(pid_));
  std::filesystem::remove("/tmp/hold");
}
