// Caller, library, engine and result together, on real volumes: the numbers are the kernel's.
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"
#include "tests/support/engine_worker.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

class ShareCalculation : public VolumeTest {
 protected:
  ShareCalculation() {
    std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                               std::filesystem::copy_options::overwrite_existing);
  }

  static void Start(ShareSnapUsageCal& cal, const std::string& share) {
    ASSERT_EQ(0, cal.CreateTask(share));
    ASSERT_EQ(0, cal.Launch(nullptr, nullptr));
  }
  static std::string TaskOf(const std::string& share) {
    std::string id;
    bool expired = false;
    EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID(share, id, expired));
    return id;
  }
  static Vector Result(const TASK_RESULT_OPT& opt, const std::string& share) {
    Vector values;
    EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(opt, share, values));
    return values;
  }
  // The share's result is the kernel's, snapshot for snapshot.
  static void ExpectKernelsNumbers(const std::string& share, size_t snapshots,
                                   std::map<unsigned long long, unsigned long long> kernels) {
    const Vector ids = Result(TASK_RESULT_OPT_SUBVOL_ID, share);
    const Vector usage = Result(TASK_RESULT_OPT_RESULT, share);
    ASSERT_EQ(snapshots, ids.size());
    ASSERT_EQ(snapshots, usage.size());
    for (size_t i = 0; i < ids.size(); ++i) {
      ASSERT_EQ(1u, kernels.count(ids[i])) << ids[i];
      EXPECT_EQ(kernels[ids[i]], usage[i]) << share << " " << ids[i];
    }
  }
  // Whether the share's status is that of the newest calculation; for a moment it may be of one
  // before.
  bool ShowsThisCalculation(const std::string& share) const {
    return ShareStatus(share, "pid") == std::to_string(calculator_);
  }

  // Starts photos and stands still in the middle of it: the engine's worker, once held, is
  // returned. The calculation may be over before the worker is seen; then it is started again.
  pid_t StartAndHold() {
    for (int attempt = 0; attempt < 200; ++attempt) {
      PutMap("{}");
      ShareSnapUsageCal cal;
      Start(cal, "photos");
      const pid_t worker = HoldEngineWorker(2);
      if (worker > 0 && ShareStatus("photos", "status") == "process") return worker;
      if (worker > 0) kill(worker, SIGKILL);
      (void)WaitForCalculator();
    }
    return -1;
  }
};

TEST_F(ShareCalculation, NumbersAreTheKernels) {
  ShareSnapUsageCal cal;
  Start(cal, "photos");
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
  EXPECT_EQ("0", ShareStatus("photos", "error_code"));
  ExpectKernelsNumbers("photos", 3, Volume1().KernelExclusive());

  const Vector usage = Result(TASK_RESULT_OPT_RESULT, "photos");
  Vector totals;
  EXPECT_EQ(0, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", totals));
  EXPECT_EQ((Vector{usage[0], usage[0] + usage[1], usage[0] + usage[1] + usage[2]}), totals);
  EXPECT_EQ(std::to_string(totals[2]), ShareStatus("photos", "estimated_in_bytes"));
  EXPECT_NE("", ShareStatus("photos", "processed_in_bytes"));

  SzList names = MakeSzList();
  EXPECT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID(
                   "photos", Result(TASK_RESULT_OPT_SUBVOL_ID, "photos"), SzListRef(names)));
  EXPECT_EQ((std::vector<std::string>{kFirst, kSecond, kThird}), TextsOf(names.get()));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareCalculation, ListOfSomeSnapshotsHasTheirNumbersAlone) {
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("photos"));
  SzList list = ListOf({SnapPath("photos", kThird), SnapPath("photos", kFirst)});
  ASSERT_EQ(0, cal.Launch(SzListRef(list)));
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ(
      (Vector{SubvolumeID(SnapPath("photos", kThird)), SubvolumeID(SnapPath("photos", kFirst))}),
      Result(TASK_RESULT_OPT_SUBVOL_ID, "photos"));
  ExpectKernelsNumbers("photos", 2, Volume1().KernelExclusive());
}

TEST_F(ShareCalculation, TwoSharesAtOnce) {
  ShareSnapUsageCal photos, music;
  Start(photos, "photos");
  const pid_t first = calculator_;
  Start(music, "music");
  EXPECT_EQ(0, WaitForExit(first));
  EXPECT_EQ(0, WaitForCalculator());
  ExpectKernelsNumbers("photos", 3, Volume1().KernelExclusive());
  ExpectKernelsNumbers("music", 1, Volume2().KernelExclusive());
}

TEST_F(ShareCalculation, VolatileVectorServesWhereTheCopyIsMissing) {
  PlatformHook<decltype(ZORVFileCopy)> copy("ZORVFileCopy");
  copy.AlwaysFails(0x2A00);
  ShareSnapUsageCal cal;
  Start(cal, "photos");
  EXPECT_EQ(9, WaitForCalculator());
  EXPECT_TRUE(std::filesystem::is_empty(ShareSnapUsageCal::GetResultBasePath("photos")));
  ExpectKernelsNumbers("photos", 3, Volume1().KernelExclusive());
}

TEST_F(ShareCalculation, RelaunchReplacesTheCopies) {
  ShareSnapUsageCal first, second;
  Start(first, "photos");
  EXPECT_EQ(0, WaitForCalculator());
  const std::string old = TaskOf("photos");
  Start(second, "photos");
  EXPECT_EQ(0, WaitForCalculator());
  const std::string dir = ShareSnapUsageCal::GetResultBasePath("photos") + "/";
  EXPECT_FALSE(std::filesystem::exists(dir + old + ".result"));
  EXPECT_TRUE(std::filesystem::exists(dir + TaskOf("photos") + ".result"));
  EXPECT_TRUE(std::filesystem::exists(dir + TaskOf("photos") + ".subvol_id"));
}

TEST_F(ShareCalculation, RunningShareIsBusyAndShowsItsProgress) {
  const pid_t worker = StartAndHold();
  ASSERT_GT(worker, 0);
  std::string id;
  EXPECT_FALSE(ShareSnapUsageCal::CheckAvail("photos", id));
  EXPECT_EQ(TaskOf("photos"), id);
  ShareSnapUsageCal other;
  EXPECT_EQ(4, other.CreateTask("photos"));
  // The engine's front prints while its worker stands still.
  EXPECT_TRUE(WaitUntil([this] { return ShowsThisCalculation("photos"); }));
  EXPECT_TRUE(WaitUntil([] { return ShareStatus("photos", "processed_in_bytes") != ""; }));
  EXPECT_EQ("-1", ShareStatus("photos", "error_code"));
  kill(worker, SIGCONT);
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
  ExpectKernelsNumbers("photos", 3, Volume1().KernelExclusive());
}

TEST_F(ShareCalculation, StopInTheMiddleEndsWithinASecond) {
  pid_t worker = -1;
  double shortest = 60;  // what else the machine does makes it longer, never shorter
  for (int attempt = 0; attempt < 10 && shortest >= 1; ++attempt) {
    worker = StartAndHold();
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(WaitUntil([this] { return ShowsThisCalculation("photos"); }));
    const double asked = Seconds();
    EXPECT_EQ(0, ShareSnapUsageCal::Stop("photos"));
    EXPECT_EQ(12, WaitForCalculator());
    shortest = std::min(shortest, Seconds() - asked);
  }
  EXPECT_LT(shortest, 1);

  EXPECT_EQ("stop", ShareStatus("photos", "status"));
  EXPECT_EQ("12", ShareStatus("photos", "error_code"));
  EXPECT_NE("", ShareStatus("photos", "end_time"));
  EXPECT_TRUE(TaskStatus::CheckFile(TaskOf("photos")));
  Vector values;
  EXPECT_EQ(1, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", values));
  // Nothing of the engine goes on; its processes have come to this one.
  EXPECT_TRUE(WaitUntil([&] {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return kill(worker, 0) != 0;
  }));

  std::string id;
  EXPECT_TRUE(ShareSnapUsageCal::CheckAvail("photos", id));
  ShareSnapUsageCal again;
  Start(again, "photos");
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
}

TEST_F(ShareCalculation, CalculatorThatWasKilledIsNotDoneAndIsCleaned) {
  const pid_t worker = StartAndHold();
  ASSERT_GT(worker, 0);
  kill(calculator_, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, WaitForCalculator());
  EXPECT_EQ("process", ShareStatus("photos", "status"));
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_EQ("{}", MapText());
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("photos"));
  EXPECT_TRUE(WaitUntil([&] {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return kill(worker, 0) != 0;
  }));
}

// Kept: a claim lasts two minutes. The run that has lost its share finds no place for its results.
TEST_F(ShareCalculation, LivingRunIsTakenOverWhenItsClaimHasRunOut) {
  const pid_t worker = StartAndHold();
  ASSERT_GT(worker, 0);
  const pid_t first = calculator_;
  const std::string lost = TaskOf("photos");
  PutMap(R"({"photos":)" + Entry(lost, time(nullptr) - 119) + "}");
  ShareSnapUsageCal tooEarly, other;
  EXPECT_EQ(4, tooEarly.CreateTask("photos"));
  PutMap(R"({"photos":)" + Entry(lost, time(nullptr) - 120) + "}");
  Start(other, "photos");
  EXPECT_NE(lost, TaskOf("photos"));
  kill(worker, SIGCONT);
  EXPECT_EQ(9, WaitForExit(first));
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
  ExpectKernelsNumbers("photos", 3, Volume1().KernelExclusive());
}

TEST_F(ShareCalculation, EngineThatFailsIsNeverTakenForNumbers) {
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("photos"));
  SzList list = ListOf(PhotosPaths());
  // The snapshots are on volume 1; the command is asked about volume 2.
  PlatformHook<decltype(ZORVMountVolInfoGet)> info("ZORVMountVolInfoGet");
  info.Replace([&](const char* path, ZORVMOUNTVOLINFO* out) {
    const int result = info.Real(path, out);
    out->volumeNum = 7;
    return result;
  });
  ASSERT_EQ(0, cal.Launch(SzListRef(list)));
  EXPECT_EQ(1, WaitForCalculator());
  EXPECT_EQ("fail", ShareStatus("photos", "status"));
  EXPECT_EQ("1", ShareStatus("photos", "error_code"));
  EXPECT_EQ(
      0u, ShareStatus("photos", "btrfs_cmd").find("/sbin/btrfs subvolume size -vpm -r /volume7 "));
}

}  // namespace
}  // namespace ZorvTest
