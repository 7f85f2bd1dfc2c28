// How a status object comes to be bound, where its files are, and how they go.
#include <errno.h>

#include <vector>

#include "tests/support/platform_hook.h"
#include "tests/utils/task_files.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

constexpr char kUnit[] = "utils/task_status";

using TaskStatusConstructor = TaskFiles;
using TaskStatusDestructor = TaskFiles;
using TaskStatusValid = TaskFiles;
using TaskStatusGetFilePath = TaskFiles;
using TaskStatusGetFileLockPath = TaskFiles;
using TaskStatusCheckFile = TaskFiles;
using TaskStatusCleanFile = TaskFiles;
using TaskStatusInit = TaskFiles;

// The four directories in the order in which they are made, and the parent of each.
const std::vector<std::pair<std::string, std::string>> kDirs = {
    {"/run/zorvbtrfssnapusage", "/run"},
    {"/run/lock/zorvbtrfssnapusage", "/run/lock"},
    {"/run/zorvbtrfssnapusage/task_status", "/run/zorvbtrfssnapusage"},
    {"/run/lock/zorvbtrfssnapusage/task_status", "/run/lock/zorvbtrfssnapusage"},
};

bool IsEmptyDir(const std::string& dir) {
  return std::filesystem::is_directory(dir) && std::filesystem::is_empty(dir);
}

}  // namespace

TEST_F(TaskStatusConstructor, DefaultIsBoundToNothing) {
  const OpenTaskStatus status;
  EXPECT_EQ("", status.taskID);
  EXPECT_EQ("", status.statusFilePath);
  EXPECT_EQ("", status.lockFilePath);
  EXPECT_EQ(-1, status.lockFd);
  EXPECT_FALSE(status.Valid());
}

TEST_F(TaskStatusConstructor, FromAnIDBindsWithoutAFile) {
  const OpenTaskStatus status("t1");
  EXPECT_TRUE(status.Valid());
  EXPECT_EQ("t1", status.taskID);
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t1", status.statusFilePath);
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/t1.lock", status.lockFilePath);
  EXPECT_EQ(-1, status.lockFd);
  EXPECT_TRUE(IsEmptyDir("/run/zorvbtrfssnapusage/task_status"));
  EXPECT_TRUE(IsEmptyDir("/run/lock/zorvbtrfssnapusage/task_status"));
}

TEST_F(TaskStatusConstructor, FromAnEmptyIDIsBoundToNothing) {
  const TaskStatus status("");
  EXPECT_FALSE(status.Valid());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusDestructor, LeavesFilesAndAHeldLockAlone) {
  int fd;
  {
    OpenTaskStatus status;
    ASSERT_TRUE(status.Init("t1", true));
    ASSERT_TRUE(status.LockFile(true));
    fd = status.lockFd;
  }
  pid_t self = getpid();
  EXPECT_EQ(F_WRLCK, LockOn("/run/lock/zorvbtrfssnapusage/task_status/t1.lock", &self));
  EXPECT_TRUE(TaskStatus::CheckFile("t1"));
  EXPECT_EQ(0, close(fd));
}

TEST_F(TaskStatusValid, FollowsTheStatusPath) {
  OpenTaskStatus status;
  EXPECT_FALSE(status.Valid());
  status.taskID = "t1";
  EXPECT_FALSE(status.Valid());
  status.statusFilePath = "/x";
  EXPECT_TRUE(status.Valid());
}

TEST_F(TaskStatusGetFilePath, IDIsUsedAsItIs) {
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t1", TaskStatus::GetFilePath("t1"));
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/../a b", TaskStatus::GetFilePath("../a b"));
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/", TaskStatus::GetFilePath(""));
}

TEST_F(TaskStatusGetFileLockPath, IDIsUsedAsItIsWithASuffix) {
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/t1.lock", TaskStatus::GetFileLockPath("t1"));
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/a b.lock",
            TaskStatus::GetFileLockPath("a b"));
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/.lock", TaskStatus::GetFileLockPath(""));
}

TEST_F(TaskStatusCheckFile, SaysWhetherTheStatusFileIsThere) {
  EXPECT_FALSE(TaskStatus::CheckFile("t1"));
  WriteFile(kRun + "/task_status/t1", "");
  EXPECT_TRUE(TaskStatus::CheckFile("t1"));
  EXPECT_FALSE(TaskStatus::CheckFile("t"));
}

TEST_F(TaskStatusCheckFile, AnIDTooLongForAPathHasNoFile) {
  PlatformHook<decltype(PLATCFileExist)> exist("PLATCFileExist");
  exist.Replace([](const char*) { return 1; });
  EXPECT_FALSE(TaskStatus::CheckFile(std::string(5000, 'a')));
  EXPECT_EQ(0, exist.Calls());
}

TEST_F(TaskStatusCheckFile, OnlyAnAnswerOfOneCounts) {
  PlatformHook<decltype(PLATCFileExist)> exist("PLATCFileExist");
  for (const int answer : {-1, 0, 2}) {
    SCOPED_TRACE(answer);
    exist.Replace([=](const char*) { return answer; });
    EXPECT_FALSE(TaskStatus::CheckFile("t1"));
  }
}

TEST_F(TaskStatusInit, FreshTaskMakesFourDirectoriesAndAFileWithOneMember) {
  for (const auto& [dir, parent] : kDirs) ASSERT_FALSE(std::filesystem::exists(dir));
  TaskStatus status;
  EXPECT_TRUE(status.Init("T1", true));
  for (const auto& [dir, parent] : kDirs) EXPECT_TRUE(std::filesystem::is_directory(dir)) << dir;
  EXPECT_EQ("{\"status\":\"ready\"}", ReadFile("/run/zorvbtrfssnapusage/task_status/T1"));
  EXPECT_EQ(0600, ModeOf("/run/zorvbtrfssnapusage/task_status/T1"));
  EXPECT_EQ(0644, ModeOf("/run/lock/zorvbtrfssnapusage/task_status/T1.lock"));
  EXPECT_EQ("", ReadFile("/run/lock/zorvbtrfssnapusage/task_status/T1.lock"));
  EXPECT_EQ("T1", status.TaskID());
  for (const SyslogLine& line : log.Lines()) EXPECT_EQ(LOG_DEBUG, line.priority) << line.text;
}

TEST_F(TaskStatusInit, DirectoriesAre0777UnderTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    SCOPED_TRACE(mask);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    const ScopedUmask scoped(mask);
    TaskStatus status;
    ASSERT_TRUE(status.Init("t1", false));
    for (const auto& [dir, parent] : kDirs)
      EXPECT_EQ(static_cast<int>(0777 & ~mask), ModeOf(dir)) << dir;
  }
}

TEST_F(TaskStatusInit, DirectoriesAreLookedAtInOrder) {
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  std::vector<std::string> seen;
  check.Replace([&](const char* dir) {
    seen.emplace_back(dir);
    return check.Real(dir);
  });
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  EXPECT_EQ(
      (std::vector<std::string>{kDirs[0].first, kDirs[1].first, kDirs[2].first, kDirs[3].first}),
      seen);
}

TEST_F(TaskStatusInit, ExistingStateIsKept) {
  TaskStatus first;
  ASSERT_TRUE(first.Init("T1", true));
  ASSERT_EQ(0, first.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  TaskStatus second;
  EXPECT_TRUE(second.Init("T1", true));
  EXPECT_EQ("{\"status\":\"process\"}", ReadFile("/run/zorvbtrfssnapusage/task_status/T1"));
}

TEST_F(TaskStatusInit, StateOutsideTheVocabularyIsKeptToo) {
  WriteFile(kRun + "/task_status/t1", "{\"status\":null}");
  TaskStatus status;
  EXPECT_TRUE(status.Init("t1", true));
  EXPECT_EQ("{\"status\":null}", ReadFile(kRun + "/task_status/t1"));
}

TEST_F(TaskStatusInit, FileWithoutAStateGetsOneAndKeepsTheRest) {
  WriteFile(kRun + "/task_status/t1", "{\"pid\":\"12\",\"theirs\":[1,{\"a\":null}]}");
  TaskStatus status;
  EXPECT_TRUE(status.Init("t1", true));
  EXPECT_EQ("{\"pid\":\"12\",\"status\":\"ready\",\"theirs\":[1,{\"a\":null}]}",
            ReadFile(kRun + "/task_status/t1"));
}

TEST_F(TaskStatusInit, WithoutCreateNothingIsWritten) {
  TaskStatus status;
  EXPECT_TRUE(status.Init("t1", false));
  EXPECT_TRUE(status.Valid());
  EXPECT_TRUE(IsEmptyDir(kRun + "/task_status"));
  EXPECT_TRUE(IsEmptyDir(kLock + "/task_status"));
}

TEST_F(TaskStatusInit, EmptyIDFailsSilently) {
  OpenTaskStatus status;
  EXPECT_FALSE(status.Init("", true));
  EXPECT_FALSE(status.Valid());
  EXPECT_FALSE(std::filesystem::exists(kRun));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();

  ASSERT_TRUE(status.Init("t1", false));
  EXPECT_FALSE(status.Init("", true));
  EXPECT_EQ("t1", status.taskID);
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t1", status.statusFilePath);
}

TEST_F(TaskStatusInit, SameIDReturnsAtOnce) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  std::filesystem::remove_all(kRun);
  EXPECT_TRUE(status.Init("t1", true));
  EXPECT_FALSE(std::filesystem::exists(kRun));
}

TEST_F(TaskStatusInit, OtherIDBindsAnew) {
  OpenTaskStatus status;
  ASSERT_TRUE(status.Init("t1", true));
  EXPECT_TRUE(status.Init("t2", true));
  EXPECT_EQ("t2", status.taskID);
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t2", status.statusFilePath);
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/t2.lock", status.lockFilePath);
  EXPECT_TRUE(TaskStatus::CheckFile("t1"));
  EXPECT_TRUE(TaskStatus::CheckFile("t2"));
}

TEST_F(TaskStatusInit, ImportedIDReturnsAtOnceWithTheOldPaths) {
  TaskStatus other;
  ASSERT_TRUE(other.Init("t2", true));
  OpenTaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  ASSERT_TRUE(status.Import(other));
  EXPECT_TRUE(status.Init("t2", true));
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t1", status.statusFilePath);
}

TEST_F(TaskStatusInit, OwnIDAfterAnImportBindsAnew) {
  TaskStatus other;
  ASSERT_TRUE(other.Init("t2", true));
  OpenTaskStatus status;
  ASSERT_TRUE(status.Init("t1", false));
  ASSERT_TRUE(status.Import(other));
  EXPECT_TRUE(status.Init("t1", false));
  EXPECT_EQ("t1", status.taskID);
}

TEST_F(TaskStatusInit, EachDirectoryThatCannotBeMadeFails) {
  for (const auto& [dir, parent] : kDirs) {
    SCOPED_TRACE(dir);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    OpenTaskStatus fresh;
    OpenTaskStatus bound;
    ASSERT_TRUE(bound.Init("t1", false));
    std::filesystem::remove_all(dir);
    log.Clear();
    {
      const ReadOnlyDir refuse(parent);
      EXPECT_FALSE(fresh.Init("t2", true));
      EXPECT_FALSE(bound.Init("t2", true));
    }
    EXPECT_EQ(2, log.CountExact(LOG_ERR, kUnit,
                                "Faild to mkdir " + dir + ", err:(Read-only file system)." + kTail))
        << log.Dump();
    EXPECT_EQ(2u, log.Lines().size()) << log.Dump();
    EXPECT_FALSE(fresh.Valid());
    EXPECT_EQ("", fresh.taskID);
    EXPECT_EQ("t1", bound.taskID);
    EXPECT_EQ("/run/zorvbtrfssnapusage/task_status/t1", bound.statusFilePath);
    EXPECT_EQ("/run/lock/zorvbtrfssnapusage/task_status/t1.lock", bound.lockFilePath);
  }
}

TEST_F(TaskStatusInit, FileInTheWayOfADirectoryFailsBelowIt) {
  WriteFile(kRun, "not a directory");
  TaskStatus status;
  EXPECT_FALSE(status.Init("t1", true));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                              "Faild to mkdir /run/zorvbtrfssnapusage/task_status, "
                              "err:(Not a directory)." +
                                  kTail))
      << log.Dump();
}

TEST_F(TaskStatusInit, DirectoryThatAnotherProcessMadeMeanwhileIsFine) {
  TaskStatus first;
  ASSERT_TRUE(first.Init("t1", true));
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  check.Replace([](const char*) { return 0; });
  TaskStatus second;
  EXPECT_TRUE(second.Init("t2", true));
  EXPECT_EQ(0, log.Count("mkdir")) << log.Dump();
}

TEST_F(TaskStatusInit, UnwritableFileFailsWithTheObjectBound) {
  TaskStatus status;
  {
    const ReadOnlyDir refuse(kRun + "/task_status");
    EXPECT_FALSE(status.Init("t1", true));
  }
  EXPECT_TRUE(status.Valid());
  EXPECT_FALSE(TaskStatus::CheckFile("t1"));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "Init", getpid(), "t1",
                             "Failed to initialize status of TaskStatus"))
      << log.Dump();
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "SetCalculatorStatus", getpid(), "t1",
                             "Failed to initialize status of TaskStatus"))
      << log.Dump();
}

TEST_F(TaskStatusInit, IDInAMissingDirectoryFails) {
  TaskStatus status;
  EXPECT_FALSE(status.Init("no/such", true));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "Init", getpid(), "no/such",
                             "Failed to initialize status of TaskStatus"))
      << log.Dump();
}

TEST_F(TaskStatusInit, NewFileIs0600AndReplacedOne0644) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", true));
  EXPECT_EQ(0600, ModeOf(kRun + "/task_status/t1"));
  ASSERT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  EXPECT_EQ(0644, ModeOf(kRun + "/task_status/t1"));
}

TEST_F(TaskStatusCleanFile, RemovesStatusAndLock) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", true));
  log.Clear();
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_TRUE(IsEmptyDir(kRun + "/task_status"));
  EXPECT_TRUE(IsEmptyDir(kLock + "/task_status"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCleanFile, OtherTasksStay) {
  TaskStatus status;
  ASSERT_TRUE(status.Init("t1", true));
  ASSERT_TRUE(status.Init("t12", true));
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_TRUE(std::filesystem::exists(kRun + "/task_status/t12"));
  EXPECT_TRUE(std::filesystem::exists(kLock + "/task_status/t12.lock"));
}

TEST_F(TaskStatusCleanFile, WithoutAStatusFileAStaleLockFileStays) {
  WriteFile(kLock + "/task_status/t1.lock", "");
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_TRUE(std::filesystem::exists(kLock + "/task_status/t1.lock"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCleanFile, WithoutALockFileNothingIsLogged) {
  WriteFile(kRun + "/task_status/t1", "{}");
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_FALSE(std::filesystem::exists(kRun + "/task_status/t1"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCleanFile, StatusFileThatVanishesMeanwhileIsNoFailure) {
  WriteFile(kRun + "/task_status/t1", "{}");
  WriteFile(kLock + "/task_status/t1.lock", "");
  PlatformHook<int(const char*)> removal("unlink");
  removal.FailsOnCall(1, 0, ENOENT);
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_FALSE(std::filesystem::exists(kLock + "/task_status/t1.lock"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskStatusCleanFile, EachFileThatCannotBeRemovedIsLogged) {
  std::filesystem::create_directories(kRun + "/task_status/t1");
  std::filesystem::create_directories(kLock + "/task_status/t1.lock");
  EXPECT_TRUE(TaskStatus::CleanFile("t1"));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "CleanFile", getpid(), "t1",
                             "Failed to unlink file (/run/zorvbtrfssnapusage/task_status/t1) "
                             "err:(Is a directory) "))
      << log.Dump();
  EXPECT_EQ(1,
            log.CountTask(LOG_ERR, kUnit, "CleanFile", getpid(), "t1",
                          "Failed to unlink file (/run/lock/zorvbtrfssnapusage/task_status/t1.lock)"
                          " err:(Is a directory) "))
      << log.Dump();
}

TEST_F(TaskStatusCleanFile, EmptyIDIsLoggedWithoutAnID) {
  std::filesystem::create_directories(kRun + "/task_status");
  EXPECT_TRUE(TaskStatus::CleanFile(""));
  EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, "CleanFile", getpid(), "",
                             "Failed to unlink file (/run/zorvbtrfssnapusage/task_status/) "
                             "err:(Is a directory) "))
      << log.Dump();
  EXPECT_TRUE(std::filesystem::is_directory(kRun + "/task_status"));
}
