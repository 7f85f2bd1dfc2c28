// Claiming a share: CheckAvail, CreateTask, and what they leave on the disk.
#include <errno.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "base/scoped_umask.h"
#include "tests/share_snap_calculator/share_fixture.h"
#include "tests/support/syscall_stepper.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

constexpr time_t kNow = 1750000000;

std::string CurrentTask(const std::string& share) {
  std::string id;
  bool expired = false;
  EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID(share, id, expired));
  return id;
}

// ---- Construction -------------------------------------------------------------------------------

class ShareSnapUsageCalValid : public ShareTest {};

TEST_F(ShareSnapUsageCalValid, DefaultObjectIsNot) {
  EXPECT_FALSE(ShareSnapUsageCal().Valid());
  EXPECT_FALSE(std::filesystem::exists(kRunDir));
}

TEST_F(ShareSnapUsageCalValid, ObjectOfATaskAloneIsNotButBindsToTheTask) {
  const ShareSnapUsageCal cal("T1");
  EXPECT_FALSE(cal.Valid());
  EXPECT_EQ(R"({"status":"ready"})", ReadFile(TaskStatusPath("T1")));
}

TEST_F(ShareSnapUsageCalValid, AfterCreateTaskItIs) {
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("photos"));
  EXPECT_TRUE(cal.Valid());
}

TEST_F(ShareSnapUsageCalValid, DestructionRemovesNothing) {
  {
    ShareSnapUsageCal cal;
    ASSERT_EQ(0, cal.CreateTask("photos"));
  }
  EXPECT_TRUE(TaskStatus::CheckFile(CurrentTask("photos")));
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
}

// ---- CheckAvail ---------------------------------------------------------------------------------

class ShareSnapUsageCalCheckAvail : public ShareTest {
 protected:
  bool Check() { return ShareSnapUsageCal::CheckAvail("photos", id_); }

  // A share with a task of this age whose own status file is there.
  void PutTask(time_t age, const std::string& shareStatus) {
    PutMap(R"({"photos":)" + Entry("T1", kNow - age) + "}");
    PutTaskStatus("T1", "{}");
    PutShareStatus("photos", shareStatus);
  }

  Clock clock_{kNow};
  std::string id_ = "left over";
};

TEST_F(ShareSnapUsageCalCheckAvail, EmptyNameIsInvalid) {
  EXPECT_FALSE(ShareSnapUsageCal::CheckAvail("", id_));
  EXPECT_EQ(1, InvalidArguments("!shareName.empty()")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
}

TEST_F(ShareSnapUsageCalCheckAvail, ShareWithoutTaskIsFree) {
  EXPECT_TRUE(Check());
  EXPECT_EQ("", id_);
}

TEST_F(ShareSnapUsageCalCheckAvail, DecidesByStateWhileTheTaskIsYoung) {
  const struct {
    const char* status;
    bool available;
  } cases[] = {{R"({"status":"ready"})", false},
               {R"({"status":"process"})", false},
               {R"({"status":"fail","error_code":"1"})", true},
               {R"({"status":"stop","error_code":"12"})", true},
               {R"({"status":"done","error_code":"0"})", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    PutTask(119, c.status);
    id_ = "left over";
    EXPECT_EQ(c.available, Check());
    EXPECT_EQ("T1", id_);
  }
}

TEST_F(ShareSnapUsageCalCheckAvail, ExpiredTaskBlocksNobodyWhateverItsState) {
  for (const char* status : {"ready", "process", "done"}) {
    SCOPED_TRACE(status);
    PutTask(120, std::string(R"({"status":")") + status + R"("})");
    EXPECT_TRUE(Check());
    EXPECT_EQ("T1", id_);
  }
}

TEST_F(ShareSnapUsageCalCheckAvail, TaskWithoutStatusFileBlocksNobody) {
  PutTask(0, R"({"status":"process"})");
  std::filesystem::remove(TaskStatusPath("T1"));
  EXPECT_TRUE(Check());
  EXPECT_EQ("T1", id_);
}

TEST_F(ShareSnapUsageCalCheckAvail, UnopenableShareStatusIsNotFree) {
  PutTask(0, "{}");
  std::filesystem::remove_all(kShareTaskStatusDir);
  const ReadOnlyDir readOnly(kPersistentDir);
  EXPECT_FALSE(Check());
  EXPECT_EQ(1,
            Errors("Failed to initialize task status of share snapshot calculator, share: photos" +
                   Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalCheckAvail, UnreadableStateIsNotFree) {
  for (const char* status : {"{}", "[]", "", R"({"status":"finished"})", R"({"status":"done"})",
                             R"({"status":"done","error_code":"x"})"}) {
    SCOPED_TRACE(status);
    PutTask(0, status);
    EXPECT_FALSE(Check());
    // The share's status has no task until an import.
    EXPECT_EQ(1, Errors("Failed to get calculator status, taskID:()")) << syslog_.Dump();
    syslog_.Clear();
  }
}

TEST_F(ShareSnapUsageCalCheckAvail, UnreadableMapLeavesTheDecisionToTheShareStatus) {
  PutDirectory(kShareMapLock);
  PutShareStatus("photos", R"({"status":"done","error_code":"0"})");
  EXPECT_TRUE(Check());
  EXPECT_EQ("", id_);
  PutShareStatus("photos", R"({"status":"process"})");
  id_ = "no task of this share";
  EXPECT_FALSE(Check());
  EXPECT_EQ("", id_);
}

// A state outside the enumeration has a word once somebody has looked its text up.
TEST_F(ShareSnapUsageCalCheckAvail, StateOutsideTheEnumerationIsNotFree) {
  const auto outside = static_cast<CAL_TASK_STATUS>(9);
  _cal_task_status_str[outside] = "odd";
  PutTask(0, R"({"status":"odd","error_code":"0"})");
  EXPECT_FALSE(Check());
  EXPECT_EQ(
      1, syslog_.CountTask(LOG_ERR, kShareUnit, "CheckAvail", getpid(), "T1", "Invalid status = 9"))
      << syslog_.Dump();
  PutDirectory(kShareMapLock);
  EXPECT_FALSE(Check());
  EXPECT_EQ(
      1, syslog_.CountTask(LOG_ERR, kShareUnit, "CheckAvail", getpid(), "", "Invalid status = 9"))
      << syslog_.Dump();
  _cal_task_status_str.erase(outside);
}

// ---- CreateTask ---------------------------------------------------------------------------------

class ShareSnapUsageCalCreateTask : public ShareTest {
 protected:
  int Create() { return cal_.CreateTask("photos"); }

  const std::string lock_ = std::string(kShareTaskLockDir) + "/photos.lock";
  ShareSnapUsageCal cal_;
};

TEST_F(ShareSnapUsageCalCreateTask, EmptyNameIsInvalid) {
  EXPECT_EQ(3, cal_.CreateTask(""));
  EXPECT_EQ(1, InvalidArguments("!shareName.empty()")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_FALSE(std::filesystem::exists(kRunDir));
}

TEST_F(ShareSnapUsageCalCreateTask, WritesTheMapByteForByte) {
  Clock clock(kNow);
  ASSERT_EQ(0, Create());
  const std::string id = CurrentTask("photos");
  EXPECT_EQ(36u, id.size());
  EXPECT_EQ(R"({"photos":{"snap_list":null,"task_id":")" + id + R"(","time":1750000000}})",
            MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, MakesTaskAndShareReady) {
  ASSERT_EQ(0, Create());
  EXPECT_EQ(R"({"status":"ready"})", ReadFile(TaskStatusPath(CurrentTask("photos"))));
  EXPECT_EQ(R"({"status":"ready"})", ReadFile(ShareStatusPath("photos")));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalCreateTask, PathsAndPermissionBits) {
  const ScopedUmask mask(0);
  ASSERT_EQ(0, Create());
  for (const char* dir :
       {"/run/zorvbtrfssnapusage", "/run/lock/zorvbtrfssnapusage", "/usr/local/zorvbtrfssnapusage",
        "/run/lock/zorvbtrfssnapusage/share_task",
        "/usr/local/zorvbtrfssnapusage/share_task_result",
        "/usr/local/zorvbtrfssnapusage/share_task_result/photos"})
    EXPECT_EQ(0777, ModeOf(dir)) << dir;
  EXPECT_EQ(0644, ModeOf("/run/lock/zorvbtrfssnapusage/share_task/photos.lock"));
  EXPECT_EQ(0644, ModeOf("/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock"));
  EXPECT_EQ(0600, ModeOf("/usr/local/zorvbtrfssnapusage/share_snap_cal_map"));
  EXPECT_EQ(0u, std::filesystem::file_size(lock_));

  ShareSnapUsageCal second;
  ASSERT_EQ(0, second.CreateTask("docs"));
  EXPECT_EQ(0644, ModeOf("/usr/local/zorvbtrfssnapusage/share_snap_cal_map"));
}

TEST_F(ShareSnapUsageCalCreateTask, UmaskHoldsForDirectories) {
  const ScopedUmask mask(027);
  ASSERT_EQ(0, Create());
  EXPECT_EQ(0750, ModeOf(kShareTaskResultDir));
}

TEST_F(ShareSnapUsageCalCreateTask, ValidObjectIsLeftAlone) {
  ASSERT_EQ(0, Create());
  const std::string map = MapText();
  std::filesystem::remove(ShareStatusPath("photos"));
  EXPECT_EQ(0, Create());
  EXPECT_EQ(0, cal_.CreateTask("docs"));
  EXPECT_EQ(map, MapText());
  EXPECT_FALSE(std::filesystem::exists(ShareStatusPath("photos")));
}

TEST_F(ShareSnapUsageCalCreateTask, BusyShareIsRefusedUntilItsTaskIs120SecondsOld) {
  Clock clock(kNow);
  ASSERT_EQ(0, Create());
  PutShareStatus("photos", R"({"status":"process"})");
  const std::string map = MapText();
  const std::string first = CurrentTask("photos");

  ShareSnapUsageCal other;
  clock.Set(kNow + 119);
  EXPECT_EQ(4, other.CreateTask("photos"));
  EXPECT_EQ(map, MapText());
  EXPECT_FALSE(other.Valid());

  clock.Set(kNow + 120);
  EXPECT_EQ(0, other.CreateTask("photos"));
  EXPECT_NE(first, CurrentTask("photos"));
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
}

TEST_F(ShareSnapUsageCalCreateTask, RelaunchRemovesTheOldStatusFileAndKeepsTheVolume) {
  Clock clock(kNow);
  PutMap(R"({"photos":{"snap_list":{"a":"257"},"task_id":"OLD","time":1,"volume_id":3}})");
  PutTaskStatus("OLD", R"({"status":"done","error_code":"0"})");
  WriteFile(TaskStatusLock("OLD"), "");
  WriteFile(PathIn(kTaskResultDir, "OLD.result"), "old result");
  PutShareStatus("photos", R"({"error_code":"0","note":"kept","status":"done"})");
  ASSERT_EQ(0, Create());
  EXPECT_FALSE(TaskStatus::CheckFile("OLD"));
  EXPECT_FALSE(std::filesystem::exists(TaskStatusLock("OLD")));
  EXPECT_EQ("old result", ReadFile(PathIn(kTaskResultDir, "OLD.result")));
  EXPECT_EQ(R"({"photos":{"snap_list":null,"task_id":")" + CurrentTask("photos") +
                R"(","time":1750000000,"volume_id":3}})",
            MapText());
  EXPECT_EQ(R"({"error_code":"0","note":"kept","status":"ready"})",
            ReadFile(ShareStatusPath("photos")));
}

TEST_F(ShareSnapUsageCalCreateTask, OtherSharesStayInTheMap) {
  PutMap(R"({"docs":{"task_id":"T9","time":1},"gone":{}})");
  ASSERT_EQ(0, Create());
  EXPECT_EQ(0u, MapText().find(R"({"docs":{"task_id":"T9","time":1},"gone":{},"photos":{)"))
      << MapText();
}

TEST_F(ShareSnapUsageCalCreateTask, NamesAreCarriedAsTheyAre) {
  for (const std::string name : {"with blank", "ä ö 日本", "quote\"back\\slash", "new\nline",
                                 "%s%n", "{}", ".hidden", "\x01\x7f"}) {
    SCOPED_TRACE(name);
    ShareSnapUsageCal cal;
    ASSERT_EQ(0, cal.CreateTask(name));
    std::string share;
    EXPECT_EQ(0, ShareSnapUsageCal::FindShareNameByTaskID(CurrentTask(name), share));
    EXPECT_EQ(name, share);
    EXPECT_TRUE(std::filesystem::is_directory(PathIn(kShareTaskResultDir, name)));
    EXPECT_TRUE(std::filesystem::exists(PathIn(kShareTaskLockDir, name + ".lock")));
  }
}

TEST_F(ShareSnapUsageCalCreateTask, NameThatIsNotUtf8IsRefusedAtTheMap) {
  PutMap(R"({"docs":{}})");
  for (const char* name : {"caf\xe9", "\xff", "\xed\xa0\x80"}) {
    ShareSnapUsageCal cal;
    EXPECT_EQ(1, cal.CreateTask(name));
    EXPECT_EQ(R"({"docs":{}})", MapText());
  }
}

TEST_F(ShareSnapUsageCalCreateTask, NameThatNoDirectoryCanHaveFails) {
  const std::string name(300, 'x');
  EXPECT_EQ(1, cal_.CreateTask(name));
  EXPECT_EQ(1, Errors("Faild to mkdir " + PathIn(kShareTaskResultDir, name) +
                      ", err:(File name too long)." + Tail()))
      << syslog_.Dump();
}

// Takes one directory's place, so that those after it cannot be made.
struct DirBreaker {
  const char* broken;
  void (*breakIt)();
  void (*mendIt)();
  const char* reason;
};

TEST_F(ShareSnapUsageCalCreateTask, EachDirectoryThatCannotBeMadeFails) {
  static std::optional<ReadOnlyDir> readOnly;
  const DirBreaker breakers[] = {
      {"/run/zorvbtrfssnapusage", [] { readOnly.emplace("/run"); }, [] { readOnly.reset(); },
       "Read-only file system"},
      {"/run/lock/zorvbtrfssnapusage",
       [] {
         std::filesystem::rename("/run/lock", "/run/lock.aside");
         WriteFile("/run/lock", "");
       },
       [] {
         std::filesystem::remove("/run/lock");
         std::filesystem::rename("/run/lock.aside", "/run/lock");
       },
       "Not a directory"},
      {"/usr/local/zorvbtrfssnapusage", [] { readOnly.emplace("/usr/local"); },
       [] { readOnly.reset(); }, "Read-only file system"},
      {"/run/lock/zorvbtrfssnapusage/share_task", [] { WriteFile(kLockDir, ""); },
       [] { std::filesystem::remove(kLockDir); }, "Not a directory"},
      {"/usr/local/zorvbtrfssnapusage/share_task_result", [] { WriteFile(kPersistentDir, ""); },
       [] { std::filesystem::remove(kPersistentDir); }, "Not a directory"},
      {"/usr/local/zorvbtrfssnapusage/share_task_result/photos",
       [] { WriteFile(kShareTaskResultDir, ""); },
       [] { std::filesystem::remove(kShareTaskResultDir); }, "Not a directory"},
  };
  for (const DirBreaker& b : breakers) {
    SCOPED_TRACE(b.broken);
    for (const char* dir : {kRunDir, kLockDir, kPersistentDir}) std::filesystem::remove_all(dir);
    b.breakIt();
    EXPECT_EQ(1, Create());
    EXPECT_EQ(
        1, Errors(std::string("Faild to mkdir ") + b.broken + ", err:(" + b.reason + ")." + Tail()))
        << syslog_.Dump();
    EXPECT_EQ(1, LinesOfUnit());
    b.mendIt();
    syslog_.Clear();
  }
}

TEST_F(ShareSnapUsageCalCreateTask, DirectoriesAreMadeInTheirOrder) {
  std::vector<std::string> checked;
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  check.Replace([&](const char* dir) {
    checked.push_back(dir);
    return check.Real(dir);
  });
  ASSERT_EQ(0, Create());
  checked.resize(6);
  EXPECT_EQ((std::vector<std::string>{"/run/zorvbtrfssnapusage", "/run/lock/zorvbtrfssnapusage",
                                      "/usr/local/zorvbtrfssnapusage",
                                      "/run/lock/zorvbtrfssnapusage/share_task",
                                      "/usr/local/zorvbtrfssnapusage/share_task_result",
                                      "/usr/local/zorvbtrfssnapusage/share_task_result/photos"}),
            checked);
}

TEST_F(ShareSnapUsageCalCreateTask, FailedShareLockFails) {
  PutDirectory(lock_);
  EXPECT_EQ(1, Create());
  EXPECT_EQ(1, Errors("Failed to lock the file, path: " + lock_ + ", exclusive: 1"))
      << syslog_.Dump();
  EXPECT_EQ("", MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, FailedShareStatusFailsWithTheNameSet) {
  PutDirectory(ShareStatusPath("photos"));
  EXPECT_EQ(1, Create());
  EXPECT_EQ(1, Errors("Failed to initialize task status of snapshot calculator for share [photos]" +
                      Tail()))
      << syslog_.Dump();
  EXPECT_EQ("", MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, FailedReadyStateFails) {
  PutShareStatus("photos", R"({"error_code":"0","status":"done"})");
  const UnwritableFile status(ShareStatusPath("photos"));
  EXPECT_EQ(1, Create());
  EXPECT_EQ(1, Errors("Failed to set ShareTaskStatus for share [photos] as ready status" + Tail()))
      << syslog_.Dump();
  EXPECT_EQ("", MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, NoCalculatorLeavesTheShareReady) {
  PlatformHook<decltype(PLATCPopen)> popen("PLATCPopen");
  popen.AlwaysFails(0x0900);
  EXPECT_EQ(11, Create());
  EXPECT_EQ(1, Errors("Failed to create the calculator for share [photos]")) << syslog_.Dump();
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
  EXPECT_EQ("", MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, ObjectWithoutACalculatorGetsOneTheNextTime) {
  ShareSnapUsageCal cal;
  {
    PlatformHook<decltype(PLATCPopen)> popen("PLATCPopen");
    popen.AlwaysFails(0x0900);
    EXPECT_EQ(11, cal.CreateTask("photos"));
  }
  EXPECT_EQ(0, cal.CreateTask("photos"));
}

TEST_F(ShareSnapUsageCalCreateTask, FailedClockFailsBeforeTheMap) {
  Clock clock(-1);
  EXPECT_EQ(1, Create());
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
  EXPECT_EQ("", MapText());
}

// The lock is taken away once the map has been read for the first time.
TEST_F(ShareSnapUsageCalCreateTask, FailedMapLockFails) {
  PlatformHook<decltype(PLATCPopen)> popen("PLATCPopen");
  popen.Replace([&](const char* command, const char* mode) {
    PutDirectory(kShareMapLock);
    return popen.Real(command, mode);
  });
  EXPECT_EQ(1, Create());
  EXPECT_EQ(
      1, Errors(std::string("Failed to lock the file, path: ") + kShareMapLock + ", exclusive: 1"))
      << syslog_.Dump();
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
  EXPECT_EQ("", MapText());
}

TEST_F(ShareSnapUsageCalCreateTask, FailedMapWriteFails) {
  PutMap(R"({"docs":{}})");
  const UnwritableFile map(kShareMap);
  EXPECT_EQ(1, Create());
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
  EXPECT_EQ(R"({"docs":{}})", MapText());
}

// It counts as missing, as any file that cannot be read.
TEST_F(ShareSnapUsageCalCreateTask, MapThatCannotBeReadForTheMomentLosesTheOtherShares) {
  PutMap(R"({"docs":)" + Entry("T2", 1) + "}");
  const int code = SyscallStepper(std::vector<WatchedCall>{{SYS_openat}})
                       .Run([] { return ShareSnapUsageCal().CreateTask("photos"); },
                            [](const Step& step) {
                              const bool reads =
                                  step.text == std::string("openat(") + kShareMap + ")";
                              return reads ? Action::Fail(EMFILE) : Action::GoOn();
                            });
  EXPECT_EQ(0, code);
  EXPECT_EQ(0u, MapText().find(R"({"photos":)")) << MapText();
  EXPECT_EQ(std::string::npos, MapText().find("docs")) << MapText();
}

TEST_F(ShareSnapUsageCalCreateTask, ShareLockIsFreeAfterwards) {
  ASSERT_EQ(0, Create());
  EXPECT_EQ(0, InChild([&] {
              int fd = -1;
              alarm(60);
              return Utils::GeneralFileLock(lock_, true, fd) ? 0 : 1;
            }));
}

// Starts `count` processes that call CreateTask at the same moment; their codes.
std::vector<int> RaceForTasks(const std::vector<std::string>& shares) {
  int gate[2];
  if (pipe(gate) != 0) throw std::runtime_error("no pipe");
  std::vector<pid_t> pids;
  for (const std::string& share : shares) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(gate[1]);
      char c;
      (void)!read(gate[0], &c, 1);
      ShareSnapUsageCal cal;
      _exit(cal.CreateTask(share));
    }
    pids.push_back(pid);
  }
  close(gate[0]);
  close(gate[1]);
  std::vector<int> codes;
  for (const pid_t pid : pids) codes.push_back(WaitForExit(pid));
  return codes;
}

TEST_F(ShareSnapUsageCalCreateTask, OfTwoProcessesExactlyOneWins) {
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    for (const char* dir : {kRunDir, kLockDir, kPersistentDir}) std::filesystem::remove_all(dir);
    EXPECT_THAT(RaceForTasks({"photos", "photos"}), testing::UnorderedElementsAre(0, 4));
  }
}

TEST_F(ShareSnapUsageCalCreateTask, OfEightProcessesExactlyOneWins) {
  const std::vector<int> codes = RaceForTasks(std::vector<std::string>(8, "photos"));
  EXPECT_EQ(1, std::count(codes.begin(), codes.end(), 0));
  EXPECT_EQ(7, std::count(codes.begin(), codes.end(), 4));
}

TEST_F(ShareSnapUsageCalCreateTask, SharesAtOnceDoNotLoseEachOthersEntries) {
  std::vector<std::string> shares;
  for (int i = 0; i < 10; ++i) shares.push_back("share" + std::to_string(i));
  EXPECT_EQ(std::vector<int>(10, 0), RaceForTasks(shares));
  for (const std::string& share : shares) EXPECT_EQ(36u, CurrentTask(share).size()) << share;
}

}  // namespace
}  // namespace ZorvTest
