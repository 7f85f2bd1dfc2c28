// What the calculator calls: UpdateTaskStatus and ExecCalPostAction.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"
#include "zorvbtrfssnapusage/task_result.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

// ---- UpdateTaskStatus ---------------------------------------------------------------------------

class ShareSnapUsageCalUpdateTaskStatus : public ShareTest {
 protected:
  ShareSnapUsageCalUpdateTaskStatus() {
    PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
    PutTaskStatus("T1", R"({"pid":"4711","processed_in_bytes":"5","status":"process","x":"y"})");
  }
  int Update(const std::string& id) {
    TaskStatus status;
    if (!id.empty()) status.Init(id, false);
    return ShareSnapUsageCal::UpdateTaskStatus(status, nullptr);
  }
  int Messages(const std::string& id, const std::string& message) {
    return syslog_.CountTask(LOG_ERR, kShareUnit, "UpdateTaskStatus", getpid(), id, message);
  }
};

TEST_F(ShareSnapUsageCalUpdateTaskStatus, MirrorsTheTaskIntoTheShare) {
  PutShareStatus("photos", R"({"note":"kept","range_start":"r","status":"ready"})");
  EXPECT_EQ(0, Update("T1"));
  EXPECT_EQ(
      R"({"note":"kept","pid":"4711","processed_in_bytes":"5","range_start":"r","status":"process"})",
      ReadFile(ShareStatusPath("photos")));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

// Kept: the state of a new task comes first, its number later; until then the share has the number
// and the code of the task before.
TEST_F(ShareSnapUsageCalUpdateTaskStatus, NewStateStandsBesideTheNumberOfTheTaskBefore) {
  PutShareStatus("photos", R"({"error_code":"12","pid":"4710","status":"ready"})");
  PutTaskStatus("T1", R"({"status":"process"})");
  EXPECT_EQ(0, Update("T1"));
  EXPECT_EQ(R"({"error_code":"12","pid":"4710","status":"process"})",
            ReadFile(ShareStatusPath("photos")));
}

TEST_F(ShareSnapUsageCalUpdateTaskStatus, UserDataIsNotLookedAt) {
  TaskStatus status("T1");
  EXPECT_EQ(PROGRESS_UPDATE_OK,
            ShareSnapUsageCal::UpdateTaskStatus(status, reinterpret_cast<void*>(1)));
}

TEST_F(ShareSnapUsageCalUpdateTaskStatus, UnknownTaskWritesNothing) {
  PutTaskStatus("T2", R"({"status":"process"})");
  EXPECT_EQ(1, Update("T2"));
  EXPECT_EQ(1, Messages("T2", "Failed to get the corresponding share name[]" + Tail()))
      << syslog_.Dump();
  EXPECT_FALSE(std::filesystem::exists(kShareTaskStatusDir));
}

TEST_F(ShareSnapUsageCalUpdateTaskStatus, TaskWithoutIDFailsInTheShortForm) {
  EXPECT_EQ(1, Update(""));
  EXPECT_EQ(1, Messages("", "Failed to get the corresponding share name[]" + Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalUpdateTaskStatus, UnopenableShareStatusFails) {
  TaskStatus status("T1");
  const ReadOnlyDir readOnly(kPersistentDir);
  EXPECT_EQ(1, ShareSnapUsageCal::UpdateTaskStatus(status, nullptr));
  EXPECT_EQ(
      1, Messages("T1", "Failed to initialize task status of share snapshot calculator" + Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalUpdateTaskStatus, FailedImportFails) {
  PutDirectory(ShareStatusLock("photos"));
  EXPECT_EQ(1, Update("T1"));
  EXPECT_EQ(1, Messages("T1", "Failed to import task status of snapshot calculator" + Tail()))
      << syslog_.Dump();
  EXPECT_FALSE(std::filesystem::exists(ShareStatusPath("photos")));
}

// ---- ExecCalPostAction --------------------------------------------------------------------------

class ShareSnapUsageCalExecCalPostAction : public ShareTest {
 protected:
  ShareSnapUsageCalExecCalPostAction() {
    PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
    std::filesystem::create_directories(dir_);
    EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "T1", Vector{10, 5}));
    EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "T1", Vector{257, 258}));
    EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "T2", Vector{1}));
  }
  int Exec(const std::string& id) {
    TaskStatus status;
    if (!id.empty()) status.Init(id, false);
    return ShareSnapUsageCal::ExecCalPostAction(status, nullptr);
  }
  int Messages(const std::string& id, const std::string& message) {
    return syslog_.CountTask(LOG_ERR, kShareUnit, "ExecCalPostAction", getpid(), id, message);
  }
  std::vector<std::string> Copies() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  const std::string dir_ = "/usr/local/zorvbtrfssnapusage/share_task_result/photos";
  const std::string source_ = std::string(kTaskResultDir) + "/T1";
  const std::string cleanFailed_ =
      "Failed to clean task result of share snapshot calculator, share: photos";
};

TEST_F(ShareSnapUsageCalExecCalPostAction, CopiesTheTasksFilesInPlaceOfEarlierOnes) {
  WriteFile(dir_ + "/OLD.result", "old");
  WriteFile(dir_ + "/OLD.subvol_id", "old");
  EXPECT_EQ(0, Exec("T1"));
  EXPECT_EQ((std::vector<std::string>{"T1.result", "T1.subvol_id"}), Copies());
  EXPECT_EQ(ReadFile(source_ + ".result"), ReadFile(dir_ + "/T1.result"));
  EXPECT_EQ(ReadFile(source_ + ".subvol_id"), ReadFile(dir_ + "/T1.subvol_id"));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalExecCalPostAction, PlainCopies) {
  std::vector<int> flags;
  PlatformHook<decltype(ZORVFileCopy)> copy("ZORVFileCopy");
  copy.Replace([&](const char* from, const char* to, int asked) {
    flags.push_back(asked);
    return copy.Real(from, to, asked);
  });
  EXPECT_EQ(0, Exec("T1"));
  EXPECT_EQ((std::vector<int>{0, 0}), flags);
}

TEST_F(ShareSnapUsageCalExecCalPostAction, UnknownTaskWritesNothing) {
  WriteFile(dir_ + "/OLD.result", "old");
  EXPECT_EQ(1, Exec("T2"));
  EXPECT_EQ(1, Messages("T2", "Failed to get the corresponding share name" + Tail()))
      << syslog_.Dump();
  EXPECT_EQ(std::vector<std::string>{"OLD.result"}, Copies());
}

TEST_F(ShareSnapUsageCalExecCalPostAction, TaskWithoutIDFailsInTheShortForm) {
  EXPECT_EQ(1, Exec(""));
  EXPECT_EQ(1, Messages("", "Failed to get the corresponding share name" + Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalExecCalPostAction, TaskWithoutFilesStillEmptiesTheDirectory) {
  WriteFile(dir_ + "/OLD.result", "old");
  std::filesystem::remove_all(kTaskResultDir);
  EXPECT_EQ(0, Exec("T1"));
  EXPECT_TRUE(Copies().empty());
}

TEST_F(ShareSnapUsageCalExecCalPostAction, DirectoryThatCannotBeCleanedGetsTheFilesAnyway) {
  WriteFile(dir_ + "/OLD.result", "old");
  PlatformHook<int(const char*)> remove("unlink");
  remove.Replace([&](const char* path) {
    if (std::string(path).find("OLD") == std::string::npos) return remove.Real(path);
    errno = EBUSY;
    return -1;
  });
  EXPECT_EQ(0, Exec("T1"));
  EXPECT_EQ((std::vector<std::string>{"OLD.result", "T1.result", "T1.subvol_id"}), Copies());
  EXPECT_EQ(1, Errors(cleanFailed_ + Tail())) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalExecCalPostAction, MissingDirectoryFailsAtTheCopy) {
  std::filesystem::remove_all(dir_);
  EXPECT_EQ(1, Exec("T1"));
  EXPECT_EQ(1, syslog_.Count(cleanFailed_)) << syslog_.Dump();
  EXPECT_EQ(1, syslog_.Count("[T1]: Failed to copy from (")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalExecCalPostAction, FailedCopyKeepsTheFilesCopiedBefore) {
  std::vector<std::string> failed;
  PlatformHook<decltype(ZORVFileCopy)> copy("ZORVFileCopy");
  copy.Replace([&](const char* from, const char* to, int flags) {
    if (copy.Calls() == 1) return copy.Real(from, to, flags);
    failed = {from, to};
    PLATCErrSetEx(0x2A00, "tests/hook", 1);
    return -1;
  });
  EXPECT_EQ(1, Exec("T1"));
  ASSERT_EQ(2u, failed.size());
  EXPECT_EQ(0u, failed[0].find(source_));
  EXPECT_EQ(dir_ + failed[0].substr(std::string(kTaskResultDir).size()), failed[1]);
  EXPECT_EQ(1, Messages("T1", "Failed to copy from (" + failed[0] + ") to (" + failed[1] + ")" +
                                  HookTail(0x2A00)))
      << syslog_.Dump();
  EXPECT_EQ(1u, Copies().size());
  Vector values;
  const bool resultMissing = failed[1] == dir_ + "/T1.result";
  std::filesystem::remove_all(kTaskResultDir);
  EXPECT_EQ(
      1, ShareSnapUsageCal::GetResultVtr(
             resultMissing ? TASK_RESULT_OPT_RESULT : TASK_RESULT_OPT_SUBVOL_ID, "photos", values));
}

TEST_F(ShareSnapUsageCalExecCalPostAction, FailedAllocationFails) {
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails(0x2A00);
  EXPECT_EQ(1, Exec("T1"));
  EXPECT_EQ(1, Errors("PLATCSzListAlloc failed. " + HookTail(0x2A00))) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalExecCalPostAction, FailedSearchFails) {
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  push.AlwaysFails(0x2A00);
  for (const char* id : {"T1", ""}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(1, Exec(id));
    EXPECT_EQ(1, Messages(id, std::string("Failed to search result files over the path "
                                          "[/run/zorvbtrfssnapusage/task_result]") +
                                  HookTail(0x2A00)))
        << syslog_.Dump();
  }
}

TEST_F(ShareSnapUsageCalExecCalPostAction, SourceFilesStay) {
  EXPECT_EQ(0, Exec("T1"));
  EXPECT_TRUE(std::filesystem::exists(source_ + ".result"));
  EXPECT_TRUE(std::filesystem::exists(source_ + ".subvol_id"));
}

}  // namespace
}  // namespace ZorvTest
