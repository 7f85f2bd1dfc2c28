// What removes the traces of shares: CleanTaskResultFile, CleanAll, CleanAllSResult,
// CleanNotDoneTask.
#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

class CleanupTest : public ShareTest {
 protected:
  // Everything that a share leaves behind, but its map entry.
  static void PutTraces(const std::string& share, const std::string& status = "done") {
    WriteFile(ResultDir(share) + "/T1.result", "r");
    WriteFile(ResultDir(share) + "/T1.subvol_id", "s");
    PutShareStatus(share, R"({"status":")" + status + R"("})");
    WriteFile(ShareStatusLock(share), "");
  }
  static std::string ResultDir(const std::string& share) {
    return ShareSnapUsageCal::GetResultBasePath(share);
  }
  static bool HasResults(const std::string& share) {
    return std::filesystem::exists(ResultDir(share) + "/T1.result");
  }
  static bool HasStatus(const std::string& share) {
    return std::filesystem::exists(ShareStatusPath(share));
  }
};

// ---- CleanTaskResultFile ------------------------------------------------------------------------

class ShareSnapUsageCalCleanTaskResultFile : public CleanupTest {
 protected:
  bool Clean(bool removeDir) { return ShareSnapUsageCal::CleanTaskResultFile("photos", removeDir); }
};

TEST_F(ShareSnapUsageCalCleanTaskResultFile, RemovesTheFilesAndKeepsTheDirectory) {
  PutTraces("photos");
  PutTraces("docs");
  WriteFile(ResultDir("photos") + "/.hidden and other", "x");
  EXPECT_TRUE(Clean(/*removeDir=*/false));
  EXPECT_TRUE(std::filesystem::is_empty(ResultDir("photos")));
  EXPECT_TRUE(HasResults("docs"));
  EXPECT_TRUE(HasStatus("photos"));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, RemovesTheDirectoryWhenAsked) {
  PutTraces("photos");
  EXPECT_TRUE(Clean(/*removeDir=*/true));
  EXPECT_FALSE(std::filesystem::exists(ResultDir("photos")));
  EXPECT_TRUE(std::filesystem::exists(kShareTaskResultDir));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, EmptyDirectoryIsKept) {
  std::filesystem::create_directories(ResultDir("photos"));
  EXPECT_TRUE(Clean(/*removeDir=*/false));
  EXPECT_TRUE(std::filesystem::exists(ResultDir("photos")));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, MissingDirectoryFailsWithoutAMessage) {
  EXPECT_FALSE(Clean(/*removeDir=*/false));
  EXPECT_FALSE(Clean(/*removeDir=*/true));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

// Without a name the path is the directory of all shares' results.
TEST_F(ShareSnapUsageCalCleanTaskResultFile, EmptyNameIsInvalid) {
  WriteFile(std::string(kShareTaskResultDir) + "/file", "x");
  EXPECT_FALSE(ShareSnapUsageCal::CleanTaskResultFile("", /*removeDir=*/true));
  EXPECT_EQ(1, InvalidArguments("!shareName.empty()")) << syslog_.Dump();
  EXPECT_TRUE(std::filesystem::exists(std::string(kShareTaskResultDir) + "/file"));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, FailedAllocationsFail) {
  PutTraces("photos");
  for (const int call : {1, 2}) {
    SCOPED_TRACE(call);
    PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
    alloc.FailsOnCall(call, 0x2A00);
    EXPECT_FALSE(Clean(/*removeDir=*/true));
    EXPECT_EQ(call, Errors("PLATCSzListAlloc failed. " + HookTail(0x2A00))) << syslog_.Dump();
    EXPECT_TRUE(HasResults("photos"));
  }
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, ListsFilesOfThisDirectoryAlone) {
  PutTraces("photos");
  PlatformHook<decltype(PLATCFileEnumDir)> list("PLATCFileEnumDir");
  list.Replace([&](const char* path, int flags, PLATSZLIST** names, int type) {
    EXPECT_EQ(ResultDir("photos"), path);
    EXPECT_EQ(0, flags);
    EXPECT_EQ(128, type);
    return list.Real(path, flags, names, type);
  });
  EXPECT_TRUE(Clean(/*removeDir=*/false));
  EXPECT_EQ(1, list.Calls());
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, FailedJoinFails) {
  PutTraces("photos");
  PlatformHook<decltype(PLATCFileEnumDir)> list("PLATCFileEnumDir");
  PlatformHook<decltype(PLATCSzListPush)> push("PLATCSzListPush");
  list.Replace(
      [&](const char*, int, PLATSZLIST** names, int) { return push.Real(names, "T1.result"); });
  push.AlwaysFails(0x2A00);
  EXPECT_FALSE(Clean(/*removeDir=*/true));
  EXPECT_TRUE(HasResults("photos"));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, FailedRemovalFails) {
  PutTraces("photos");
  PlatformHook<int(const char*)> remove("unlink");
  remove.AlwaysFails(0, EBUSY);
  EXPECT_FALSE(Clean(/*removeDir=*/true));
  EXPECT_TRUE(HasResults("photos"));
}

TEST_F(ShareSnapUsageCalCleanTaskResultFile, DirectoryThatCannotBeRemovedFails) {
  PutTraces("photos");
  std::filesystem::create_directories(ResultDir("photos") + "/directory");
  EXPECT_FALSE(Clean(/*removeDir=*/true));
  EXPECT_FALSE(HasResults("photos"));
  EXPECT_EQ(
      1, Errors("Failed to remove path [" + ResultDir("photos") + "], errno: Directory not empty"))
      << syslog_.Dump();
}

// ---- CleanAll -----------------------------------------------------------------------------------

class ShareSnapUsageCalCleanAll : public CleanupTest {
 protected:
  ShareSnapUsageCalCleanAll() {
    PutMap(R"({"docs":{},"photos":{}})");
    PutTraces("docs");
    PutTraces("photos");
  }
  KnownShares known_{{"docs", "photos"}};
};

TEST_F(ShareSnapUsageCalCleanAll, RemovesEveryTraceOfTheShare) {
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_FALSE(std::filesystem::exists(ResultDir("photos")));
  EXPECT_FALSE(HasStatus("photos"));
  EXPECT_FALSE(std::filesystem::exists(ShareStatusLock("photos")));
  EXPECT_EQ(R"({"docs":{}})", MapText());
  EXPECT_TRUE(HasResults("docs"));
  EXPECT_TRUE(HasStatus("docs"));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalCleanAll, ShareWithoutEntryIsLeftAlone) {
  PutTraces("music");
  ShareSnapUsageCal::CleanAll("music");
  EXPECT_TRUE(HasResults("music"));
  EXPECT_TRUE(HasStatus("music"));
  EXPECT_EQ(R"({"docs":{},"photos":{}})", MapText());
}

TEST_F(ShareSnapUsageCalCleanAll, EmptyNameDoesNothingWithoutAMessage) {
  PutMap(R"({"":{}})");
  ShareSnapUsageCal::CleanAll("");
  EXPECT_EQ(R"({"":{}})", MapText());
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalCleanAll, UnreadableMapLeavesEverything) {
  PutDirectory(kShareMapLock);
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_TRUE(HasResults("photos"));
  EXPECT_TRUE(HasStatus("photos"));
}

TEST_F(ShareSnapUsageCalCleanAll, MissingResultsAreLoggedAndTheRestIsRemoved) {
  std::filesystem::remove_all(ResultDir("photos"));
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(
      1, Errors("Failed to clean task result of sahre snapshot calculator, share: photos" + Tail()))
      << syslog_.Dump();
  EXPECT_FALSE(HasStatus("photos"));
  EXPECT_EQ(R"({"docs":{}})", MapText());
}

TEST_F(ShareSnapUsageCalCleanAll, FailedMapRemovalIsLogged) {
  const UnwritableFile map(kShareMap);
  PLATCErrSetEx(0x1234, "tests/before", 7);
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(1, Errors("Failed to remove member in the task share map, share: photos" +
                      Tail(0x1234, "tests/before", 7)))
      << syslog_.Dump();
  EXPECT_FALSE(HasResults("photos"));
  EXPECT_FALSE(HasStatus("photos"));
}

TEST_F(ShareSnapUsageCalCleanAll, NeitherTaskNorItsVolatileFilesAreTouched) {
  PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
  PutTaskStatus("T1", R"({"status":"process"})");
  WriteFile(PathIn(kTaskResultDir, "T1.result"), "r");
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ("{}", MapText());
  EXPECT_EQ(R"({"status":"process"})", ReadFile(TaskStatusPath("T1")));
  EXPECT_EQ("r", ReadFile(PathIn(kTaskResultDir, "T1.result")));
}

// ---- CleanAllSResult ----------------------------------------------------------------------------

class ShareSnapUsageCalCleanAllSResult : public ShareSnapUsageCalCleanAll {};

TEST_F(ShareSnapUsageCalCleanAllSResult, CleansEveryShareOfTheMap) {
  PutTraces("music");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  for (const char* share : {"docs", "photos"}) {
    EXPECT_FALSE(std::filesystem::exists(ResultDir(share))) << share;
    EXPECT_FALSE(HasStatus(share)) << share;
  }
  EXPECT_TRUE(HasResults("music"));
  EXPECT_EQ("{}", MapText());
}

TEST_F(ShareSnapUsageCalCleanAllSResult, UnreadableMapFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_TRUE(HasResults("photos"));
}

TEST_F(ShareSnapUsageCalCleanAllSResult, MissingAndEmptyMapsAreDone) {
  PutMap("{}");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  std::filesystem::remove(kShareMap);
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_TRUE(HasResults("photos"));
}

// "docs" comes first and takes the entry of the vanished share along.
TEST_F(ShareSnapUsageCalCleanAllSResult, ShareThatIsPrunedOnTheWayKeepsItsFiles) {
  PutMap(R"({"docs":{},"gone":{},"photos":{}})");
  PutTraces("gone");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_TRUE(HasResults("gone"));
  EXPECT_TRUE(HasStatus("gone"));
  EXPECT_FALSE(HasResults("photos"));
  EXPECT_EQ("{}", MapText());
}

TEST_F(ShareSnapUsageCalCleanAllSResult, FailuresOfOneShareDoNotKeepTheNext) {
  std::filesystem::remove_all(ResultDir("docs"));
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_EQ(1, syslog_.Count("sahre snapshot calculator, share: docs[")) << syslog_.Dump();
  EXPECT_FALSE(HasResults("photos"));
  EXPECT_EQ("{}", MapText());
}

// ---- CleanNotDoneTask ---------------------------------------------------------------------------

class ShareSnapUsageCalCleanNotDoneTask : public CleanupTest {
 protected:
  KnownShares known_{{"a", "b", "c", "d", "e", "photos"}};
};

TEST_F(ShareSnapUsageCalCleanNotDoneTask, RemovesOnlySharesInProcess) {
  const std::pair<const char*, const char*> shares[] = {
      {"a", "ready"}, {"b", "process"}, {"c", "fail"}, {"d", "stop"}, {"e", "done"}};
  for (const auto& [share, status] : shares) PutTraces(share, status);
  PutMap(R"({"a":{},"b":{},"c":{},"d":{},"e":{}})");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  for (const auto& [share, status] : shares) {
    SCOPED_TRACE(status);
    const bool kept = std::string(status) != "process";
    EXPECT_EQ(kept, HasResults(share));
    EXPECT_EQ(kept, HasStatus(share));
    EXPECT_EQ(kept, std::filesystem::exists(ResultDir(share)));
  }
  EXPECT_EQ(R"({"a":{},"c":{},"d":{},"e":{}})", MapText());
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalCleanNotDoneTask, UnreadableMapFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, ShareSnapUsageCal::CleanNotDoneTask());
}

TEST_F(ShareSnapUsageCalCleanNotDoneTask, UnopenableStatusGoesToTheNextShare) {
  PutMap(R"({"":{},"photos":{}})");
  PutTraces("photos", "process");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_EQ(1, syslog_.Count("Failed to initialize task status of share snapshot calculator, "
                             "share:[][0x0D00 utils/share_task_status:"))
      << syslog_.Dump();
  EXPECT_FALSE(HasStatus("photos"));
}

TEST_F(ShareSnapUsageCalCleanNotDoneTask, UnopenableStatusIsLogged) {
  PutMap(R"({"photos":{}})");
  const ReadOnlyDir readOnly(kPersistentDir);
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_EQ(1, Errors("Failed to initialize task status of share snapshot calculator, "
                      "share:[photos]" +
                      Tail()))
      << syslog_.Dump();
}

// The state of the share before must not decide about it.
TEST_F(ShareSnapUsageCalCleanNotDoneTask, ShareWithUnreadableStatusIsKept) {
  for (const char* status :
       {"", "[]", "{}", R"({"status":"finished"})", R"({"status":["process"]})"}) {
    SCOPED_TRACE(status);
    PutMap(R"({"a":{},"photos":{}})");
    PutTraces("a", "process");
    PutTraces("photos");
    PutShareStatus("photos", status);
    EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
    EXPECT_EQ(1, Errors("Failed to get calculator status, taskID:(), share:(photos)"))
        << syslog_.Dump();
    EXPECT_FALSE(HasStatus("a"));
    EXPECT_TRUE(HasResults("photos"));
    EXPECT_EQ(R"({"photos":{}})", MapText());
    syslog_.Clear();
  }
}

TEST_F(ShareSnapUsageCalCleanNotDoneTask, StatusFileIsNotCreated) {
  PutMap(R"({"photos":{}})");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_FALSE(HasStatus("photos"));
  EXPECT_EQ(R"({"photos":{}})", MapText());
}

TEST_F(ShareSnapUsageCalCleanNotDoneTask, FailedStepsAreLoggedAndTheNextIsRun) {
  PutMap(R"({"photos":{}})");
  PutShareStatus("photos", R"({"status":"process"})");
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.AlwaysFails(0x2A00);
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_EQ(1, Errors("Failed to clean task result of sahre snapshot calculator, share: photos" +
                      HookTail(0x2A00)))
      << syslog_.Dump();
  EXPECT_EQ(
      1, Errors("Failed to remove member in the task share map, share: photos" + HookTail(0x2A00)))
      << syslog_.Dump();
  EXPECT_FALSE(HasStatus("photos"));
}

}  // namespace
}  // namespace ZorvTest
