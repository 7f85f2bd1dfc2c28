// The result files of a task: paths, directories, locks, removal.
#include <errno.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "tests/support/platform_hook.h"
#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

using Values = std::vector<unsigned long long>;

constexpr char kUnit[] = "utils/task_result";
const std::string kResults = "/run/zorvbtrfssnapusage/task_result";
const std::string kLocks = "/run/lock/zorvbtrfssnapusage/snap_cal_result";

class ResultFiles : public TaskFiles {
 protected:
  void ExpectInvalidArgument(const std::string& condition) {
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "Invaild Argument (" + condition + ")=[0]\n"))
        << log.Dump();
    EXPECT_EQ(0x0D00u, PLATCErrGet());
    EXPECT_STREQ(kUnit, PLATCErrorGetFile());
  }

  void ExpectTaskLine(const char* function, const std::string& id, const std::string& message) {
    EXPECT_EQ(1, log.CountTask(LOG_ERR, kUnit, function, getpid(), id, message)) << log.Dump();
  }

  void ExpectPlainLine(const std::string& message) {
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, message)) << log.Dump();
  }
};
using TaskResultGetFileBasePath = ResultFiles;
using TaskResultGetFileLockBasePath = ResultFiles;
using TaskResultInitWorkingDir = ResultFiles;
using TaskResultLockFile = ResultFiles;
using TaskResultUnlockFile = ResultFiles;
using TaskResultWriteResultVtr = ResultFiles;
using TaskResultGetResultVtr = ResultFiles;
using TaskResultCleanFile = ResultFiles;

// The four directories in the order in which they are made, and the parent of each.
const std::vector<std::pair<std::string, std::string>> kDirs = {
    {"/run/zorvbtrfssnapusage", "/run"},
    {"/run/lock/zorvbtrfssnapusage", "/run/lock"},
    {"/run/lock/zorvbtrfssnapusage/snap_cal_result", "/run/lock/zorvbtrfssnapusage"},
    {"/run/zorvbtrfssnapusage/task_result", "/run/zorvbtrfssnapusage"},
};

std::vector<std::string> NamesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

// ---- Paths and directories ---------------------------------------------------------------------

TEST_F(TaskResultGetFileBasePath, IDIsUsedAsItIs) {
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_result/t1", TaskResult::GetFileBasePath("t1"));
  EXPECT_EQ("/run/zorvbtrfssnapusage/task_result/", TaskResult::GetFileBasePath(""));
}

TEST_F(TaskResultGetFileLockBasePath, IDIsUsedAsItIs) {
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/snap_cal_result/t1",
            TaskResult::GetFileLockBasePath("t1"));
  EXPECT_EQ("/run/lock/zorvbtrfssnapusage/snap_cal_result/", TaskResult::GetFileLockBasePath(""));
}

TEST_F(TaskResultInitWorkingDir, MakesFourDirectoriesUnderTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}}) {
    SCOPED_TRACE(mask);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    const ScopedUmask scoped(mask);
    EXPECT_TRUE(TaskResult::InitWorkingDir());
    for (const auto& [dir, parent] : kDirs)
      EXPECT_EQ(static_cast<int>(0777 & ~mask), ModeOf(dir)) << dir;
    EXPECT_TRUE(TaskResult::InitWorkingDir());
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultInitWorkingDir, DirectoriesAreLookedAtInOrder) {
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  std::vector<std::string> seen;
  check.Replace([&](const char* dir) {
    seen.emplace_back(dir);
    return check.Real(dir);
  });
  EXPECT_TRUE(TaskResult::InitWorkingDir());
  EXPECT_EQ(
      (std::vector<std::string>{kDirs[0].first, kDirs[1].first, kDirs[2].first, kDirs[3].first}),
      seen);
}

TEST_F(TaskResultInitWorkingDir, EachDirectoryThatCannotBeMadeFails) {
  for (const auto& [dir, parent] : kDirs) {
    SCOPED_TRACE(dir);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    ASSERT_TRUE(TaskResult::InitWorkingDir());
    std::filesystem::remove_all(dir);
    log.Clear();
    {
      const ReadOnlyDir refuse(parent);
      EXPECT_FALSE(TaskResult::InitWorkingDir());
    }
    ExpectPlainLine("Faild to mkdir " + dir + ", err:(Read-only file system)." + kTail);
    EXPECT_EQ(1u, log.Lines().size()) << log.Dump();
  }
}

TEST_F(TaskResultInitWorkingDir, DirectoryThatAnotherProcessMadeMeanwhileIsFine) {
  ASSERT_TRUE(TaskResult::InitWorkingDir());
  PlatformHook<decltype(PLATCFileCheckDir)> check("PLATCFileCheckDir");
  check.Replace([](const char*) { return 0; });
  EXPECT_TRUE(TaskResult::InitWorkingDir());
}

// ---- Locks -------------------------------------------------------------------------------------

TEST_F(TaskResultLockFile, SharedAndExclusiveAreReadAndWriteLocks) {
  ASSERT_TRUE(TaskResult::InitWorkingDir());
  pid_t self = getpid();
  int fd = -1;
  EXPECT_TRUE(TaskResult::LockFile(kLocks + "/x", false, fd));
  EXPECT_GE(fd, 0);
  EXPECT_EQ(0644, ModeOf(kLocks + "/x"));
  EXPECT_EQ(F_RDLCK, LockOn(kLocks + "/x", &self));
  EXPECT_TRUE(TaskResult::UnlockFile(fd));
  EXPECT_TRUE(TaskResult::LockFile(kLocks + "/x", true, fd));
  EXPECT_EQ(F_WRLCK, LockOn(kLocks + "/x", &self));
  EXPECT_TRUE(TaskResult::UnlockFile(fd));
}

TEST_F(TaskResultLockFile, EmptyPathIsAnInvalidArgument) {
  int fd = -1;
  EXPECT_FALSE(TaskResult::LockFile("", true, fd));
  EXPECT_EQ(-1, fd);
  ExpectInvalidArgument("!fileLockPath.empty()");
}

TEST_F(TaskResultLockFile, LockThatIsNotToBeHadFails) {
  std::filesystem::create_directories(kLocks + "/x");
  int fd = -1;
  EXPECT_FALSE(TaskResult::LockFile(kLocks + "/x", true, fd));
  EXPECT_FALSE(TaskResult::LockFile(kLocks + "/x", false, fd));
  ExpectPlainLine(
      "Failed to lock the file, path: /run/lock/zorvbtrfssnapusage/snap_cal_result/x, "
      "exclusive: 1");
  ExpectPlainLine(
      "Failed to lock the file, path: /run/lock/zorvbtrfssnapusage/snap_cal_result/x, "
      "exclusive: 0");
}

TEST_F(TaskResultUnlockFile, DropsTheLockAndResetsTheDescriptor) {
  ASSERT_TRUE(TaskResult::InitWorkingDir());
  int fd = -1;
  ASSERT_TRUE(TaskResult::LockFile(kLocks + "/x", true, fd));
  const int was = fd;
  EXPECT_TRUE(TaskResult::UnlockFile(fd));
  EXPECT_EQ(-1, fd);
  EXPECT_EQ(-1, fcntl(was, F_GETFD));
  EXPECT_EQ(F_UNLCK, LockOn(kLocks + "/x"));
}

TEST_F(TaskResultUnlockFile, NoDescriptorIsTrueAndSilent) {
  int fd = -1;
  EXPECT_TRUE(TaskResult::UnlockFile(fd));
  EXPECT_EQ(-1, fd);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultUnlockFile, FailedUnlockIsLoggedAndTrue) {
  int fd = 9999;
  EXPECT_TRUE(TaskResult::UnlockFile(fd));
  EXPECT_EQ(-1, fd);
  ExpectPlainLine("Failed to unlock fd(9999)");
}

// ---- Writing -----------------------------------------------------------------------------------

TEST_F(TaskResultWriteResultVtr, EachKindHasItsFileAndItsLock) {
  EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{4096}));
  EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", Values{257}));
  EXPECT_EQ((std::vector<std::string>{"t1.result", "t1.subvol_id"}), NamesIn(kResults));
  EXPECT_EQ((std::vector<std::string>{"t1.result", "t1.subvol_id"}), NamesIn(kLocks));
  EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0\0\x10\0\0\0\0\0\0", 16),
            ReadFile(kResults + "/t1.result"));
  EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0\1\1\0\0\0\0\0\0", 16),
            ReadFile(kResults + "/t1.subvol_id"));
  EXPECT_EQ("", ReadFile(kLocks + "/t1.result"));
  EXPECT_EQ(0644, ModeOf(kLocks + "/t1.result"));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultWriteResultVtr, SuffixesBelongToTheValuesOneAndTwo) {
  EXPECT_EQ(1, TASK_RESULT_OPT_RESULT);
  EXPECT_EQ(2, TASK_RESULT_OPT_SUBVOL_ID);
}

TEST_F(TaskResultWriteResultVtr, RewriteReplacesTheWholeFile) {
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1, 2, 3}));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{9}));
  EXPECT_EQ(16u, std::filesystem::file_size(kResults + "/t1.result"));
}

TEST_F(TaskResultWriteResultVtr, EmptyTaskIDIsAnInvalidArgument) {
  EXPECT_EQ(3, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "", Values{1}));
  ExpectInvalidArgument("!taskID.empty()");
  EXPECT_FALSE(std::filesystem::exists(kRun));
}

TEST_F(TaskResultWriteResultVtr, MissingDirectoriesThatCannotBeMadeFail) {
  {
    const ReadOnlyDir refuse("/run");
    EXPECT_EQ(1, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  }
  ExpectPlainLine("Failed to check or make working path of task result" + kTail);
  ExpectPlainLine("Faild to mkdir /run/zorvbtrfssnapusage, err:(Read-only file system)." + kTail);
}

TEST_F(TaskResultWriteResultVtr, WithoutTheLockNothingIsWritten) {
  std::filesystem::create_directories(kLocks + "/t1.result");
  EXPECT_EQ(1, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  ExpectPlainLine("lock failed, path (/run/lock/zorvbtrfssnapusage/snap_cal_result/t1.result)");
  EXPECT_TRUE(std::filesystem::is_empty(kResults));
}

TEST_F(TaskResultWriteResultVtr, UnknownKindFailsAtTheLock) {
  for (const int option : {0, 3, -1, 99}) {
    SCOPED_TRACE(option);
    log.Clear();
    EXPECT_EQ(1, TaskResult::WriteResultVtr(static_cast<TASK_RESULT_OPT>(option), "t1", Values{1}));
    ExpectInvalidArgument("!fileLockPath.empty()");
    ExpectPlainLine("lock failed, path ()");
    EXPECT_TRUE(std::filesystem::is_empty(kResults));
    EXPECT_TRUE(std::filesystem::is_empty(kLocks));
  }
}

TEST_F(TaskResultWriteResultVtr, FailedWriteIsLoggedWithTheTask) {
  std::filesystem::create_directories(kResults + "/t1.subvol_id");
  EXPECT_EQ(1, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", Values{1}));
  ExpectPlainLine("File [/run/zorvbtrfssnapusage/task_result/t1.subvol_id] cannot be created.");
  ExpectTaskLine("WriteResultVtr", "t1",
                 "Failed to write task result to file: "
                 "/run/zorvbtrfssnapusage/task_result/t1.subvol_id, resultOpt: 2");
}

TEST_F(TaskResultWriteResultVtr, FullDiskIsAFailure) {
  std::filesystem::create_directories(kResults);
  ASSERT_EQ(0, mount("tmpfs", kResults.c_str(), "tmpfs", 0, "size=4k"));
  WriteFile(kResults + "/filler", std::string(4096, 'x'));
  EXPECT_EQ(1, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  ASSERT_EQ(0, umount2(kResults.c_str(), MNT_DETACH));
  ExpectPlainLine(
      "Some errors occur on output stream, file: "
      "/run/zorvbtrfssnapusage/task_result/t1.result");
  ExpectTaskLine("WriteResultVtr", "t1",
                 "Failed to write task result to file: "
                 "/run/zorvbtrfssnapusage/task_result/t1.result, resultOpt: 1");
}

TEST_F(TaskResultWriteResultVtr, LockIsDroppedOnEveryPath) {
  std::filesystem::create_directories(kResults + "/t1.subvol_id");
  EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  EXPECT_EQ(1, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", Values{1}));
  EXPECT_EQ(F_UNLCK, LockOn(kLocks + "/t1.result"));
  EXPECT_EQ(F_UNLCK, LockOn(kLocks + "/t1.subvol_id"));
}

TEST_F(TaskResultWriteResultVtr, WaitsForAnotherWriter) {
  for (const short held : {short{F_WRLCK}, short{F_RDLCK}}) {
    SCOPED_TRACE(held);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    ASSERT_TRUE(TaskResult::InitWorkingDir());
    auto holder = std::make_unique<LockHolder>(kLocks + "/t1.result", held);
    Background writer(
        [] { return TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}); });
    EXPECT_TRUE(WaitUntil([&] { return writer.WaitsForLock(); }));
    EXPECT_TRUE(std::filesystem::is_empty(kResults));
    holder.reset();
    EXPECT_EQ(0, writer.Wait());
    EXPECT_EQ(16u, std::filesystem::file_size(kResults + "/t1.result"));
  }
}

TEST_F(TaskResultWriteResultVtr, WritersOfOneFileNeverMix) {
  constexpr size_t kCount = 20000;
  std::vector<std::unique_ptr<Background>> writers;
  for (unsigned long long value = 1; value <= 4; ++value)
    writers.push_back(std::make_unique<Background>([value] {
      for (int round = 0; round < 20; ++round)
        if (TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1",
                                       Values(kCount * value, value)) != 0)
          return 1;
      return 0;
    }));
  for (auto& writer : writers) EXPECT_EQ(0, writer->Wait());
  Values values;
  ASSERT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", values));
  ASSERT_FALSE(values.empty());
  EXPECT_EQ(Values(kCount * values[0], values[0]), values);
  EXPECT_EQ(8 + 8 * values.size(), std::filesystem::file_size(kResults + "/t1.result"));
}

// ---- Reading -----------------------------------------------------------------------------------

TEST_F(TaskResultGetResultVtr, ReadsWhatWasWritten) {
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{4096, 0}));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", Values{257, 258}));
  Values sizes, ids;
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", sizes));
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", ids));
  EXPECT_EQ((Values{4096, 0}), sizes);
  EXPECT_EQ((Values{257, 258}), ids);
}

TEST_F(TaskResultGetResultVtr, TakesNoLockAndMakesNoDirectory) {
  Values values;
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", values));
  EXPECT_FALSE(std::filesystem::exists(kRun));
  EXPECT_FALSE(std::filesystem::exists(kLock));

  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{4096}));
  const LockHolder writer(kLocks + "/t1.result", F_WRLCK);
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", values));
}

TEST_F(TaskResultGetResultVtr, EmptyTaskIDIsAnInvalidArgument) {
  Values values = {77};
  EXPECT_EQ(3, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "", values));
  EXPECT_EQ(Values{77}, values);
  ExpectInvalidArgument("!taskID.empty()");
}

TEST_F(TaskResultGetResultVtr, ResultThatWasNeverWrittenFails) {
  Values values = {77};
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "t1", values));
  EXPECT_EQ(Values{77}, values);
  ExpectPlainLine("File [/run/zorvbtrfssnapusage/task_result/t1.result] cannot be opened.");
  ExpectTaskLine("GetResultVtr", "t1",
                 "Failed to read task result to file: "
                 "/run/zorvbtrfssnapusage/task_result/t1.result, resultOpt: 1");
}

TEST_F(TaskResultGetResultVtr, UnknownKindIsOneNotThree) {
  for (const int option : {0, 3, -1}) {
    SCOPED_TRACE(option);
    log.Clear();
    Values values = {77};
    EXPECT_EQ(1, TaskResult::GetResultVtr(static_cast<TASK_RESULT_OPT>(option), "t1", values));
    EXPECT_EQ(Values{77}, values);
    ExpectInvalidArgument("!filePath.empty()");
    ExpectTaskLine("GetResultVtr", "t1",
                   "Failed to read task result to file: , resultOpt: " + std::to_string(option));
  }
}

// ---- Removal -----------------------------------------------------------------------------------

TEST_F(TaskResultCleanFile, RemovesResultsAndLocks) {
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "t1", Values{1}));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "other", Values{1}));
  EXPECT_TRUE(TaskResult::CleanFile("t1"));
  EXPECT_EQ(std::vector<std::string>{"other.result"}, NamesIn(kResults));
  EXPECT_EQ(std::vector<std::string>{"other.result"}, NamesIn(kLocks));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultCleanFile, PlainPrefixTakesLongerIDsToo) {
  for (const char* id : {"ab", "abc", "ab-1", "a", "xab"})
    ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, id, Values{1}));
  EXPECT_TRUE(TaskResult::CleanFile("ab"));
  EXPECT_EQ((std::vector<std::string>{"a.result", "xab.result"}), NamesIn(kResults));
  EXPECT_EQ((std::vector<std::string>{"a.result", "xab.result"}), NamesIn(kLocks));
}

TEST_F(TaskResultCleanFile, MissingDirectoriesHoldNothing) {
  EXPECT_TRUE(TaskResult::CleanFile("t1"));
  EXPECT_FALSE(std::filesystem::exists(kRun));

  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  std::filesystem::remove_all(kLocks);
  EXPECT_TRUE(TaskResult::CleanFile("t1"));
  EXPECT_TRUE(std::filesystem::is_empty(kResults));

  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  std::filesystem::remove_all(kResults);
  EXPECT_TRUE(TaskResult::CleanFile("t1"));
  EXPECT_TRUE(std::filesystem::is_empty(kLocks));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultCleanFile, SubdirectoriesStay) {
  std::filesystem::create_directories(kResults + "/t1.dir");
  EXPECT_TRUE(TaskResult::CleanFile("t1"));
  EXPECT_TRUE(std::filesystem::is_directory(kResults + "/t1.dir"));
}

TEST_F(TaskResultCleanFile, EmptyIDMatchesEveryFile) {
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
  EXPECT_TRUE(TaskResult::CleanFile(""));
  EXPECT_TRUE(std::filesystem::is_empty(kResults));
  EXPECT_TRUE(std::filesystem::is_empty(kLocks));
}

TEST_F(TaskResultCleanFile, NoListFails) {
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.Replace([](int capacity) -> PLATSZLIST* {
    EXPECT_EQ(1024, capacity);
    return nullptr;
  });
  EXPECT_FALSE(TaskResult::CleanFile("t1"));
  EXPECT_EQ(1, alloc.Calls());
  ExpectPlainLine("PLATCSzListAlloc failed. " + kTail);
}

TEST_F(TaskResultCleanFile, FailedSearchFailsInBothForms) {
  const struct {
    const char* name;
    const char* id;
    std::string dir;
  } kCases[] = {
      {"results, with a task ID", "t1", kResults},
      {"results, without", "", kResults},
      {"locks, with a task ID", "t1", kLocks},
      {"locks, without", "", kLocks},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    for (const std::string& root : {kRun, kLock}) std::filesystem::remove_all(root);
    WriteFile(c.dir + "/t1.result", "");
    log.Clear();
    PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
    push.AlwaysFails(kPlatformError);
    EXPECT_FALSE(TaskResult::CleanFile(c.id));
    ExpectTaskLine(
        "CleanFile", c.id,
        "Failed to search result files over the path [" + c.dir + "][0x1234 tests/hook:1]");
    EXPECT_TRUE(std::filesystem::exists(c.dir + "/t1.result"));
  }
}

TEST_F(TaskResultCleanFile, FailedRemovalFailsInBothForms) {
  for (const std::string id : {"t1", ""}) {
    SCOPED_TRACE(id);
    ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "t1", Values{1}));
    {
      const ReadOnlyDir refuse(kResults);
      EXPECT_FALSE(TaskResult::CleanFile(id));
    }
    ExpectTaskLine("CleanFile", id, "Failed to delete the candidate files" + kTail);
    EXPECT_TRUE(std::filesystem::exists(kResults + "/t1.result"));
  }
}
