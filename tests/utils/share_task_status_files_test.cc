// The status file of a share: where it is, how it comes and goes.
#include <errno.h>

#include <vector>

#include "tests/support/platform_hook.h"
#include "tests/support/ext4_volume.h"
#include "tests/support/sync_calls.h"
#include "tests/utils/task_files.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/share_task_status";
constexpr char kBaseUnit[] = "utils/task_status";
const std::string kFile = "/usr/local/zorvbtrfssnapusage/share_task_status/photos";
const std::string kLockFile = "/run/lock/zorvbtrfssnapusage/share_task_status/photos";

// The fields of a share's status object.
struct OpenShareTaskStatus : ShareTaskStatus {
  using ShareTaskStatus::shareName;
  using TaskStatus::lockFd;
  using TaskStatus::lockFilePath;
  using TaskStatus::statusFilePath;
  using TaskStatus::taskID;
};

class ShareTaskStatusFiles : public TaskFiles {
 protected:
  void ExpectInvalidArgument() {
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "Invaild Argument (!shareName.empty())=[0]\n"))
        << log.Dump();
    EXPECT_EQ(1u, log.Lines().size()) << log.Dump();
    EXPECT_EQ(0xD00u, PLATCErrGet());
    EXPECT_STREQ(kUnit, PLATCErrorGetFile());
    EXPECT_EQ(1, log.Count(std::string(kUnit) + ":" + std::to_string(PLATCErrorGetLine()) + " "))
        << log.Dump();
  }
};
using ShareTaskStatusConstructor = ShareTaskStatusFiles;
using ShareTaskStatusDestructor = ShareTaskStatusFiles;
using ShareTaskStatusInit = ShareTaskStatusFiles;
using ShareTaskStatusCleanShareStatus = ShareTaskStatusFiles;
using ShareTaskStatusCheckShareStatusFile = ShareTaskStatusFiles;

// The four directories in the order in which they are made, and the parent of each.
const std::vector<std::pair<std::string, std::string>> kDirs = {
    {"/usr/local/zorvbtrfssnapusage", "/usr/local"},
    {"/run/lock/zorvbtrfssnapusage", "/run/lock"},
    {"/usr/local/zorvbtrfssnapusage/share_task_status", "/usr/local/zorvbtrfssnapusage"},
    {"/run/lock/zorvbtrfssnapusage/share_task_status", "/run/lock/zorvbtrfssnapusage"},
};

ino_t InodeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

}  // namespace

TEST_F(ShareTaskStatusConstructor, IsBoundToNothing) {
  const OpenShareTaskStatus share;
  EXPECT_EQ("", share.shareName);
  EXPECT_EQ("", share.taskID);
  EXPECT_EQ("", share.statusFilePath);
  EXPECT_EQ("", share.lockFilePath);
  EXPECT_EQ(-1, share.lockFd);
  EXPECT_FALSE(share.Valid());
}

TEST_F(ShareTaskStatusDestructor, LeavesFilesAndAHeldLockAlone) {
  int fd;
  {
    OpenShareTaskStatus share;
    ASSERT_TRUE(share.Init("photos", true));
    ASSERT_TRUE(share.LockFile(true));
    fd = share.lockFd;
  }
  pid_t self = getpid();
  EXPECT_EQ(F_WRLCK, LockOn(kLockFile, &self));
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("photos"));
  EXPECT_EQ(0, close(fd));
}

TEST_F(ShareTaskStatusInit, FreshShareMakesFourDirectoriesAndAFileWithOneMember) {
  OpenShareTaskStatus share;
  EXPECT_TRUE(share.Init("photos", true));
  for (const auto& [dir, parent] : kDirs) EXPECT_TRUE(std::filesystem::is_directory(dir)) << dir;
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kFile));
  EXPECT_EQ(0600, ModeOf(kFile));
  EXPECT_EQ(0644, ModeOf(kLockFile));
  EXPECT_EQ("photos", share.shareName);
  EXPECT_EQ("", share.taskID);
  EXPECT_EQ(kFile, share.statusFilePath);
  EXPECT_EQ(kLockFile, share.lockFilePath);
}

TEST_F(ShareTaskStatusInit, DirectoriesAre0777UnderTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    SCOPED_TRACE(mask);
    for (const std::string& root : {kPersistent, kLock}) std::filesystem::remove_all(root);
    const ScopedUmask scoped(mask);
    ShareTaskStatus share;
    ASSERT_TRUE(share.Init("photos", false));
    for (const auto& [dir, parent] : kDirs)
      EXPECT_EQ(static_cast<int>(0777 & ~mask), ModeOf(dir)) << dir;
  }
}

TEST_F(ShareTaskStatusInit, DirectoriesAreLookedAtInOrderOnEveryCall) {
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  std::vector<std::string> seen;
  check.Replace([&](const char* dir) {
    seen.emplace_back(dir);
    return check.Real(dir);
  });
  ShareTaskStatus share;
  for (const int call : {1, 2}) {
    SCOPED_TRACE(call);
    seen.clear();
    EXPECT_TRUE(share.Init("photos", false));
    EXPECT_EQ(
        (std::vector<std::string>{kDirs[0].first, kDirs[1].first, kDirs[2].first, kDirs[3].first}),
        seen);
  }
}

TEST_F(ShareTaskStatusInit, WithoutCreateNothingIsWritten) {
  ShareTaskStatus share;
  EXPECT_TRUE(share.Init("photos", false));
  EXPECT_TRUE(share.Valid());
  EXPECT_TRUE(std::filesystem::is_empty(kPersistent + "/share_task_status"));
  EXPECT_TRUE(std::filesystem::is_empty(kLock + "/share_task_status"));
}

TEST_F(ShareTaskStatusInit, SecondCallRewritesNothingAndChecksTheDirectories) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  ASSERT_EQ(0, share.SetCalculatorStatus(CAL_TASK_STATUS_STOP));
  const ino_t inode = InodeOf(kFile);  // a write would put another file in its place
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  EXPECT_TRUE(share.Init("photos", true));
  EXPECT_EQ(inode, InodeOf(kFile));
  EXPECT_EQ("{\"status\":\"stop\"}", ReadFile(kFile));
  EXPECT_LE(4, check.Calls());
}

TEST_F(ShareTaskStatusInit, SameNameMakesLostDirectoriesAndTheStateAgain) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  for (const std::string& root : {kPersistent, kLock}) std::filesystem::remove_all(root);
  EXPECT_TRUE(share.Init("photos", true));
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kFile));
}

TEST_F(ShareTaskStatusInit, OtherNameBindsAnew) {
  OpenShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  EXPECT_TRUE(share.Init("music", true));
  EXPECT_EQ("music", share.shareName);
  EXPECT_EQ("/usr/local/zorvbtrfssnapusage/share_task_status/music", share.statusFilePath);
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/share_task_status/music", share.lockFilePath);
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("photos"));
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("music"));
}

TEST_F(ShareTaskStatusInit, NamesAreUsedAsTheyAre) {
  for (const std::string name : {"a b", "gr\xc3\xbc\xc3\x9f", "line\nend", ".hidden", "\xff\xfe"}) {
    SCOPED_TRACE(name);
    ShareTaskStatus share;
    EXPECT_TRUE(share.Init(name, true));
    EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kPersistent + "/share_task_status/" + name));
    EXPECT_TRUE(std::filesystem::exists(kLock + "/share_task_status/" + name));
    EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile(name));
  }
}

TEST_F(ShareTaskStatusInit, EmptyNameIsAnInvalidArgument) {
  ShareTaskStatus share;
  EXPECT_FALSE(share.Init("", true));
  EXPECT_FALSE(share.Valid());
  EXPECT_FALSE(std::filesystem::exists(kPersistent));
  ExpectInvalidArgument();
}

TEST_F(ShareTaskStatusInit, EachDirectoryThatCannotBeMadeFails) {
  for (const auto& [dir, parent] : kDirs) {
    SCOPED_TRACE(dir);
    for (const std::string& root : {kPersistent, kLock}) std::filesystem::remove_all(root);
    OpenShareTaskStatus fresh;
    ShareTaskStatus bound;
    ASSERT_TRUE(bound.Init("photos", false));
    std::filesystem::remove_all(dir);
    log.Clear();
    {
      const ReadOnlyDir refuse(parent);
      EXPECT_FALSE(fresh.Init("music", true));
      EXPECT_FALSE(bound.Init("photos", true));
    }
    EXPECT_EQ(2, log.CountExact(LOG_ERR, kUnit,
                                "Faild to mkdir " + dir + ", err:(Read-only file system)." + kTail))
        << log.Dump();
    EXPECT_EQ(2u, log.Lines().size()) << log.Dump();
    EXPECT_FALSE(fresh.Valid());
    EXPECT_EQ("", fresh.shareName);
  }
}

TEST_F(ShareTaskStatusInit, FileInTheWayOfADirectoryFailsBelowIt) {
  WriteFile(kPersistent, "not a directory");
  ShareTaskStatus share;
  EXPECT_FALSE(share.Init("photos", true));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Faild to mkdir /usr/local/zorvbtrfssnapusage/share_task_status, "
                              "err:(Not a directory)." +
                                  kTail))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, UnwritableFileFails) {
  ShareTaskStatus share;
  {
    const ReadOnlyDir refuse(kPersistent + "/share_task_status");
    EXPECT_FALSE(share.Init("photos", true));
  }
  EXPECT_TRUE(share.Valid());
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Failed to initialize status of ShareTaskStatus, share:[photos]"))
      << log.Dump();
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kBaseUnit, "SetCalculatorStatus", getpid(), "",
                             "Failed to initialize status of TaskStatus"))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, NameInAMissingDirectoryFails) {
  ShareTaskStatus share;
  EXPECT_FALSE(share.Init("no/such", true));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Failed to initialize status of ShareTaskStatus, share:[no/such]"))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, FileThatIsNoObjectFails) {
  WriteFile(kFile, "[]");
  ShareTaskStatus share;
  EXPECT_FALSE(share.Init("photos", true));
  EXPECT_EQ("[]", ReadFile(kFile));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Failed to initialize status of ShareTaskStatus, share:[photos]"))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, WithoutTheLockTheStateIsWrittenAllTheSame) {
  std::filesystem::create_directories(kLockFile);
  ShareTaskStatus share;
  EXPECT_TRUE(share.Init("photos", true));
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kFile));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kBaseUnit, "SetStatusAttr", getpid(), "", "lock failed"))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, LinesShowATaskOnlyAfterAnImport) {
  TaskStatus task;
  ASSERT_TRUE(task.Init("t1", true));
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  std::string text;
  EXPECT_EQ(1, share.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ(1, log.CountTask(LOG_DEBUG, kBaseUnit, "GetStatusAttr", getpid(), "",
                             "Do not have member (pid)"))
      << log.Dump();
  ASSERT_TRUE(share.Import(task));
  EXPECT_EQ(1, share.GetStatusAttr(TASKSTATUS_ATTR_PID, text));
  EXPECT_EQ(1, log.CountTask(LOG_DEBUG, kBaseUnit, "GetStatusAttr", getpid(), "t1",
                             "Do not have member (pid)"))
      << log.Dump();
}

TEST_F(ShareTaskStatusInit, WorksThroughTheBase) {
  ShareTaskStatus share;
  TaskStatus& base = share;
  EXPECT_TRUE(base.Init("photos", true));
  EXPECT_TRUE(std::filesystem::exists(kFile));
  EXPECT_FALSE(TaskStatus::CheckFile("photos"));
}

TEST_F(ShareTaskStatusFiles, MemberOperationsWorkOnTheSharesFile) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  EXPECT_EQ(0, share.SetCalculatorStatus(CAL_TASK_STATUS_STOP));
  EXPECT_EQ(0, share.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, 12));
  EXPECT_EQ(0, share.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "stopped"));
  EXPECT_EQ("{\"error_code\":\"12\",\"error_msg\":\"stopped\",\"status\":\"stop\"}",
            ReadFile(kFile));
  EXPECT_EQ(0644, ModeOf(kFile));

  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int code = 0;
  Json::Value value;
  EXPECT_EQ(0, share.GetCalculatorStatus(state, code));
  EXPECT_EQ(CAL_TASK_STATUS_STOP, state);
  EXPECT_EQ(12, code);
  EXPECT_TRUE(share.CheckAttrExist(TASKSTATUS_ATTR_ERROR_MSG));
  EXPECT_EQ(0, share.GetJsonVal(value));
  EXPECT_EQ(3u, value.size());
  EXPECT_TRUE(share.LockFile(true));
  pid_t self = getpid();
  EXPECT_EQ(F_WRLCK, LockOn(kLockFile, &self));
  EXPECT_TRUE(share.UnlockFile());
}

TEST_F(ShareTaskStatusFiles, ImportedStateOutlivesTheTask) {
  TaskStatus task;
  ASSERT_TRUE(task.Init("t1", true));
  ASSERT_EQ(0, task.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 12));
  ASSERT_EQ(0, task.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  {
    ShareTaskStatus share;
    ASSERT_TRUE(share.Init("photos", true));
    ASSERT_TRUE(share.Import(task));
  }
  ASSERT_TRUE(TaskStatus::CleanFile("t1"));
  std::filesystem::remove_all(kRun);
  std::filesystem::remove_all(kLock);
  ShareTaskStatus later;
  ASSERT_TRUE(later.Init("photos", true));
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  EXPECT_EQ(0, later.GetCalculatorStatus(state));
  EXPECT_EQ(CAL_TASK_STATUS_PROCESS, state);
}

TEST_F(ShareTaskStatusFiles, ChangeOfStateIsSyncedAndProgressIsNot) {
  const Ext4Volume disk("/usr/local");
  const std::string directory = kPersistent + "/share_task_status";
  const std::vector<std::string> synced = {"sync " + kFile + ".XXXXXX", "rename to " + kFile,
                                           "sync " + directory};
  const std::vector<std::string> writtenOut = {"write out " + kFile + ".XXXXXX",
                                               "rename to " + kFile};
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  SyncCalls calls;
  for (int attr = TASKSTATUS_ATTR_STATUS; attr <= TASKSTATUS_ATTR_RANGE_END; ++attr) {
    SCOPED_TRACE(attr);
    const bool progress =
        attr == TASKSTATUS_ATTR_PROCESSED_IN_BYTES || attr == TASKSTATUS_ATTR_ESTIMATED_IN_BYTES;
    EXPECT_EQ(0, share.SetStatusAttr(static_cast<TASKSTATUS_ATTR>(attr), "1"));
    EXPECT_EQ(progress ? writtenOut : synced, calls.Events());
  }
}

TEST_F(ShareTaskStatusFiles, ImportOfProgressAloneIsNotSynced) {
  const Ext4Volume disk("/usr/local");
  const std::string source = kRun + "/task_status/id";
  const struct {
    const char* name;
    std::string text;
    bool synced;
  } kCases[] = {
      {"first", R"({"pid":"12","processed_in_bytes":"1","status":"process"})", true},
      {"same again", R"({"pid":"12","processed_in_bytes":"1","status":"process"})", false},
      {"further", R"({"pid":"12","processed_in_bytes":"2","status":"process"})", false},
      {"first estimate",
       R"({"estimated_in_bytes":"7","pid":"12","processed_in_bytes":"2","status":"process"})",
       false},
      {"another process", R"({"pid":"13","processed_in_bytes":"2","status":"process"})", true},
      {"end, and further", R"({"pid":"13","processed_in_bytes":"3","status":"done"})", true},
      {"member that was not there", R"({"end_time":"1","pid":"13","status":"done"})", true},
      {"only what is there already", R"({"status":"done"})", false},
  };
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  TaskStatus task;
  ASSERT_TRUE(task.Init("id", true));
  SyncCalls calls;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(source, c.text);
    EXPECT_TRUE(share.Import(task));
    const std::vector<std::string> events = calls.Events();
    EXPECT_EQ(c.synced ? 3u : 2u, events.size());
    EXPECT_EQ((c.synced ? "sync " : "write out ") + kFile + ".XXXXXX", events.at(0));
  }
}

// What the disk refuses must not take the place of what it has.
TEST_F(ShareTaskStatusFiles, ProgressThatTheDiskRefusesIsNotWritten) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  SyncCalls calls;
  calls.Fail(kFile + ".XXXXXX", EIO);
  EXPECT_EQ(1, share.SetStatusAttr(TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "1"));
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile(kFile));
}

TEST_F(ShareTaskStatusFiles, StatusOfATaskIsNeverSynced) {
  SyncCalls calls;
  TaskStatus task;
  ASSERT_TRUE(task.Init("id", true));
  EXPECT_EQ(0, task.SetStatusAttr(TASKSTATUS_ATTR_PID, "12"));
  EXPECT_EQ(0, task.SetStatusAttr(TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "1"));
  const std::string rename = "rename to " + kRun + "/task_status/id";
  EXPECT_EQ(std::vector<std::string>(3, rename), calls.Events());
}

TEST_F(ShareTaskStatusCleanShareStatus, RemovesStatusAndLock) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  ASSERT_TRUE(share.Init("photos2", true));
  log.Clear();
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  EXPECT_FALSE(std::filesystem::exists(kFile));
  EXPECT_FALSE(std::filesystem::exists(kLockFile));
  EXPECT_TRUE(std::filesystem::exists(kFile + "2"));
  EXPECT_TRUE(std::filesystem::exists(kLockFile + "2"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(ShareTaskStatusCleanShareStatus, ARemovedStatusDoesNotComeBackAfterAPowerCut) {
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("photos", true));
  SyncCalls calls;
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  EXPECT_EQ(std::vector<std::string>{"sync " + kPersistent + "/share_task_status"}, calls.Events());
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  EXPECT_EQ(std::vector<std::string>{}, calls.Events());
}

TEST_F(ShareTaskStatusCleanShareStatus, NothingThereIsTrueAndSilent) {
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("photos"));
}

TEST_F(ShareTaskStatusCleanShareStatus, LockFileGoesAlsoWithoutAStatusFile) {
  WriteFile(kLockFile, "");
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  EXPECT_FALSE(std::filesystem::exists(kLockFile));
}

TEST_F(ShareTaskStatusCleanShareStatus, EachFileThatCannotBeRemovedIsLogged) {
  std::filesystem::create_directories(kFile);
  std::filesystem::create_directories(kLockFile);
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("photos"));
  for (const std::string& path : {kFile, kLockFile})
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                                "Failed to unlink file (" + path + ") err:(Is a directory) "))
        << log.Dump();
}

TEST_F(ShareTaskStatusCleanShareStatus, EmptyNameIsAnInvalidArgument) {
  EXPECT_FALSE(ShareTaskStatus::CleanShareStatus(""));
  ExpectInvalidArgument();
}

TEST_F(ShareTaskStatusCheckShareStatusFile, FollowsTheFile) {
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("photos"));
  WriteFile(kFile, "{}");
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("photos"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(ShareTaskStatusCheckShareStatusFile, OnlyAnAnswerOfOneCounts) {
  PlatformHook<decltype(PLATCFileExist)> exist("PLATCFileExist");
  for (const int answer : {-1, 0, 2}) {
    SCOPED_TRACE(answer);
    exist.Replace([=](const char*) { return answer; });
    EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("photos"));
  }
}

TEST_F(ShareTaskStatusCheckShareStatusFile, EmptyNameIsAnInvalidArgument) {
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile(""));
  ExpectInvalidArgument();
}
