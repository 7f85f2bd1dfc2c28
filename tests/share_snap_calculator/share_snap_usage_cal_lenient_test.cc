// What the library does with names, records and files that lead elsewhere: it trusts them, since
// root alone can have put them there. And what it does for who is not root: nothing.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"
#include "tests/support/user_rights.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

constexpr char kAway[] = "/opt/away/file";
constexpr char kAwayName[] = "../../../../opt/away";  // from a share's results and status
constexpr char kTask[] = "8b0f0c36-8a3f-4a57-9f6f-1f7e5d0c1a55";
constexpr uid_t kSomebody = 4711;

class Lenient : public ShareTest {
 protected:
  Lenient() { WriteFile(kAway, "somebody's"); }
  ~Lenient() override { fs::remove_all("/opt/away"); }
};

TEST_F(Lenient, ShareNameThatIsAPathIsUsedAsItIs) {
  fs::create_directories(kShareTaskResultDir);
  EXPECT_TRUE(ShareSnapUsageCal::CleanTaskResultFile(kAwayName, /*removeDir=*/true));
  EXPECT_FALSE(fs::exists("/opt/away"));
}

TEST_F(Lenient, MemberOfTheMapThatIsAPathIsCleaned) {
  const KnownShares shares({"photos"});
  fs::create_directories(kShareTaskResultDir);
  PutMap("{\"" + std::string(kAwayName) + "\":" + Entry(kTask, 1) + "}");
  fs::create_directories(kLockDir);
  EXPECT_EQ(RESULT_OK, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_FALSE(fs::exists("/opt/away"));
}

TEST_F(Lenient, TaskThatIsAPathIsUsedAsItIs) {
  fs::create_directories(kTaskStatusDir);
  EXPECT_TRUE(TaskStatus::CleanFile("../../../opt/away/file"));
  EXPECT_FALSE(fs::exists(kAway));
}

TEST_F(Lenient, EmptyTaskIsEveryTask) {
  const std::string result = TaskResult::GetFileBasePath(kTask) + ".result";
  WriteFile(result, "");
  SnapUsageCalculator("").CleanAll();
  EXPECT_FALSE(fs::exists(result));
}

TEST_F(Lenient, StopSignalsWhoeverHasTheNumber) {
  for (const char* form : {"%d", " %d", "%dx", "00%d"}) {
    SCOPED_TRACE(form);
    const pid_t other = fork();
    if (other == 0)
      for (;;) pause();
    char pid[32];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)snprintf(pid, sizeof pid, form, other);
#pragma GCC diagnostic pop
    PutMap("{\"photos\":" + Entry(kTask, 1) + "}");
    PutTaskStatus(kTask, std::string(R"({"status":"process","pid":")") + pid + "\"}");
    EXPECT_EQ(RESULT_OK, ShareSnapUsageCal::Stop("photos"));
    EXPECT_EQ(128 + SIGTERM, WaitForExit(other));
  }
}

TEST_F(Lenient, LockFileThatIsALinkIsFollowed) {
  fs::create_directories(kLockDir);
  fs::create_symlink("/opt/away/new", kShareMapLock);
  std::string task;
  bool expired = false;
  EXPECT_EQ(RESULT_NOT_FOUND, ShareSnapUsageCal::FindTaskID("photos", task, expired));
  EXPECT_TRUE(fs::exists("/opt/away/new"));
}

TEST_F(Lenient, RecordThatIsALinkIsReadThroughItAndReplaced) {
  WriteFile(kAway, R"({"status":"fail"})");
  fs::create_directories(kShareTaskStatusDir);
  fs::create_symlink(kAway, ShareStatusPath("photos"));
  ShareTaskStatus status;
  ASSERT_TRUE(status.Init("photos", /*create=*/false));
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  EXPECT_EQ(RESULT_OK, status.GetCalculatorStatus(state));
  EXPECT_EQ(CAL_TASK_STATUS_FAIL, state);
  EXPECT_EQ(RESULT_OK, status.SetCalculatorStatus(CAL_TASK_STATUS_STOP));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(ShareStatusPath("photos"))));
  EXPECT_EQ(R"({"status":"fail"})", ReadFile(kAway));
}

TEST_F(Lenient, ResultThatIsALinkIsWrittenThroughIt) {
  fs::create_directories(kTaskResultDir);
  fs::create_symlink(kAway, TaskResult::GetFileBasePath(kTask) + ".result");
  EXPECT_EQ(RESULT_OK, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, kTask,
                                                  std::vector<unsigned long long>{7}));
  EXPECT_EQ(16u, fs::file_size(kAway));
}

TEST_F(Lenient, PipeInPlaceOfARecordIsWaitedFor) {
  ASSERT_EQ(0, mkfifo("/opt/away/pipe", 0600));
  const pid_t reader = fork();
  if (reader == 0) {
    Json::Value value;
    _exit(Utils::JsonFromFile(value, "/opt/away/pipe") ? 1 : 0);
  }
  const std::string waits = "/proc/" + std::to_string(reader) + "/syscall";
  const std::string inOpen = std::to_string(SYS_openat) + " ";
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(waits).rfind(inOpen, 0) == 0; }));
  (void)UniqueFd(open("/opt/away/pipe", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(0, WaitForExit(reader));
}

TEST_F(Lenient, NamesAreLoggedAsTheyAre) {
  int fd = -1;
  EXPECT_FALSE(Utils::GeneralFileLock("/nowhere/a\nb", /*exclusive=*/true, fd));
  EXPECT_EQ(1, syslog_.Count("Failed to open file [/nowhere/a\nb]")) << syslog_.Dump();
}

// The number of the first operation that does not answer as it is documented for a lock or a
// directory that cannot be had; 0: all do.
int AnswersWithoutRights() {
  std::string text;
  bool expired = false;
  std::vector<unsigned long long> values;
  SzList shares = MakeSzList();
  SzList names = MakeSzList();
  ShareSnapUsageCal calculation;
  int number = 0;
  for (const bool expected : {
           calculation.CreateTask("photos") == RESULT_FAILURE,
           !calculation.Valid(),
           ShareSnapUsageCal::FindTaskID("photos", text, expired) == RESULT_FAILURE,
           ShareSnapUsageCal::FindShareNameByTaskID(kTask, text) == RESULT_FAILURE,
           !ShareSnapUsageCal::GetShareTaskList(SzListRef(shares)),
           ShareSnapUsageCal::Stop("photos") == RESULT_FAILURE,
           ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", values) ==
               RESULT_FAILURE,
           ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", values) == RESULT_FAILURE,
           ShareSnapUsageCal::FindSnapNameBySubvolID("photos", {257}, SzListRef(names)) ==
               RESULT_FAILURE,
           !ShareSnapUsageCal::CleanTaskResultFile("photos", true),
           ShareSnapUsageCal::CleanAllSResult() == RESULT_FAILURE,
           ShareSnapUsageCal::CleanNotDoneTask() == RESULT_FAILURE,
           !Utils::ReminderStatusSet(true),
           !Utils::ReminderStatusGet(expired),
       }) {
    ++number;
    if (!expected) return number;
  }
  ShareSnapUsageCal::CleanAll("photos");
  return 0;
}

class WithoutRights : public ShareTest {
 protected:
  WithoutRights() {
    PutMap("{\"photos\":" + Entry(kTask, 1) + "}");
    PutShareStatus("photos", R"({"status":"process"})");
    PutTaskStatus(kTask, R"({"status":"process","pid":"1"})");
    WriteFile(ShareResultDir("photos") + "/" + kTask + ".result", "");
    fs::create_directories(kLockDir);
    for (const char* root : {kRunDir, kLockDir, kPersistentDir})
      fs::permissions(root, fs::perms(0700));
  }

  void ExpectNothingLost() {
    EXPECT_TRUE(fs::exists(kShareMap));
    EXPECT_TRUE(fs::exists(ShareStatusPath("photos")));
    EXPECT_TRUE(fs::exists(TaskStatusPath(kTask)));
    EXPECT_TRUE(fs::exists(ShareResultDir("photos") + "/" + kTask + ".result"));
    EXPECT_LT(0, syslog_.Count("Permission denied")) << syslog_.Dump();
  }
};

TEST_F(WithoutRights, OrdinaryUserGetsFailures) {
  EXPECT_EQ(0, InChild([] {
              BecomeUser(kSomebody);
              return AnswersWithoutRights();
            }));
  ExpectNothingLost();
}

TEST_F(WithoutRights, RootOfAUserNamespaceGetsFailures) {
  EXPECT_EQ(0, InChild([] {
              BecomeRootOfUserNamespace(kSomebody);
              return AnswersWithoutRights();
            }));
  ExpectNothingLost();
}

// In /run/lock, which everybody can write to, a caller without rights makes what will then be in
// the way: why the directory is to be made at boot.
TEST_F(WithoutRights, WhoComesFirstOwnsTheLocks) {
  for (const char* root : {kRunDir, kLockDir, kPersistentDir}) fs::remove_all(root);
  EXPECT_EQ(0, InChild([] {
              BecomeUser(kSomebody);
              ShareSnapUsageCal calculation;
              return calculation.CreateTask("photos") == RESULT_FAILURE &&
                             !Utils::ReminderStatusSet(true)
                         ? 0
                         : 1;
            }));
  EXPECT_FALSE(fs::exists(kRunDir));
  EXPECT_FALSE(fs::exists(kPersistentDir));
  std::string task;
  bool expired = false;
  EXPECT_EQ(0, InChild([&] {
              BecomeUser(kSomebody);
              return ShareSnapUsageCal::FindTaskID("photos", task, expired) == RESULT_NOT_FOUND ? 0
                                                                                                : 1;
            }));
  struct stat status;
  ASSERT_EQ(0, stat(kLockDir, &status));
  EXPECT_EQ(kSomebody, status.st_uid);
}

}  // namespace
