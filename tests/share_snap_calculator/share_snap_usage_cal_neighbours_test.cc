// Failures of neighbours that no real file brings about. This program stands in front of a few
// functions of the library: what it defines here is what the library calls.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"
#include "zorvbtrfssnapusage/task_result.h"

namespace {

// What the stand-ins do; reset before each test.
struct {
  bool failTaskCleanFile;
  bool failCleanShareStatus;
  std::string shareOfEveryTask;  // not empty: the answer to each look-up of a task's share
} g_neighbours;

template <typename Function>
Function* NextDefinition(const char* symbol) {
  void* function = dlsym(RTLD_NEXT, symbol);
  if (function == nullptr) throw std::logic_error(std::string("not exported: ") + symbol);
  return reinterpret_cast<Function*>(function);
}

}  // namespace

namespace ZorvBtrfsUsage {

bool TaskStatus::CleanFile(const std::string& id) {
  if (g_neighbours.failTaskCleanFile) return false;
  return NextDefinition<bool(const std::string&)>(
      "_ZN14ZorvBtrfsUsage10TaskStatus9CleanFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcE"
      "SaIcEEE")(id);
}

bool ShareTaskStatus::CleanShareStatus(const std::string& share) {
  if (g_neighbours.failCleanShareStatus) return false;
  return NextDefinition<bool(const std::string&)>(
      "_ZN14ZorvBtrfsUsage15ShareTaskStatus16CleanShareStatusERKNSt7__cxx1112basic_stringIcSt11"
      "char_traitsIcESaIcEEE")(share);
}

int ShareSnapUsageCal::FindShareNameByTaskID(const std::string& id, std::string& share) {
  if (!g_neighbours.shareOfEveryTask.empty()) {
    share = g_neighbours.shareOfEveryTask;
    return RESULT_OK;
  }
  return NextDefinition<int(const std::string&, std::string&)>(
      "_ZN14ZorvBtrfsUsage17ShareSnapUsageCal21FindShareNameByTaskIDERKNSt7__cxx1112basic_string"
      "IcSt11char_traitsIcESaIcEEERS6_")(id, share);
}

}  // namespace ZorvBtrfsUsage

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

class ShareSnapUsageCalNeighbours : public ShareTest {
 protected:
  ShareSnapUsageCalNeighbours() { g_neighbours = {}; }
  ~ShareSnapUsageCalNeighbours() override { g_neighbours = {}; }
};

TEST_F(ShareSnapUsageCalNeighbours, StandInsGoOnToTheLibrary) {
  PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
  std::string share;
  EXPECT_EQ(0, ShareSnapUsageCal::FindShareNameByTaskID("T1", share));
  EXPECT_EQ("photos", share);
}

TEST_F(ShareSnapUsageCalNeighbours, OldStatusThatCannotBeRemovedIsOnlyLogged) {
  PutMap(R"({"photos":)" + Entry("OLD", 1) + "}");
  PutTaskStatus("OLD", R"({"status":"done"})");
  g_neighbours.failTaskCleanFile = true;
  ShareSnapUsageCal cal;
  EXPECT_EQ(0, cal.CreateTask("photos"));
  EXPECT_EQ(
      1, syslog_.CountExact(LOG_DEBUG, kShareUnit, "Failed to clean up task status with ID: OLD"))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalNeighbours, ShareStatusThatCannotBeRemovedIsLoggedAndTheRestGoes) {
  const KnownShares known({"a", "b"});
  PutMap(R"({"a":{},"b":{}})");
  PutShareStatus("b", R"({"status":"process"})");
  for (const char* share : {"a", "b"})
    std::filesystem::create_directories(ShareSnapUsageCal::GetResultBasePath(share));
  g_neighbours.failCleanShareStatus = true;
  PLATCErrSetEx(0x1234, "tests/before", 7);
  ShareSnapUsageCal::CleanAll("a");
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  for (const char* share : {"a", "b"})
    EXPECT_EQ(1, Errors(std::string("Failed to clean task status of share snapshot calculator, "
                                    "share: ") +
                        share + Tail(0x1234, "tests/before", 7)))
        << syslog_.Dump();
  EXPECT_EQ("{}", MapText());
}

// ---- Messages of a task without an ID, which otherwise ends at the look-up of its share ---------

class ShareSnapUsageCalShortForms : public ShareSnapUsageCalNeighbours {
 protected:
  ShareSnapUsageCalShortForms() { g_neighbours.shareOfEveryTask = "photos"; }
  int Messages(const std::string& function, const std::string& message) {
    return syslog_.CountTask(LOG_ERR, kShareUnit, function, getpid(), "", message);
  }
  TaskStatus noTask_;
};

TEST_F(ShareSnapUsageCalShortForms, UnopenableShareStatus) {
  std::filesystem::create_directories(kPersistentDir);
  const ReadOnlyDir readOnly(kPersistentDir);
  EXPECT_EQ(1, ShareSnapUsageCal::UpdateTaskStatus(noTask_, nullptr));
  EXPECT_EQ(1, Messages("UpdateTaskStatus",
                        "Failed to initialize task status of share snapshot calculator" + Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalShortForms, FailedImport) {
  EXPECT_EQ(1, ShareSnapUsageCal::UpdateTaskStatus(noTask_, nullptr));
  EXPECT_EQ(1, Messages("UpdateTaskStatus",
                        "Failed to import task status of snapshot calculator" + Tail()))
      << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalShortForms, FailedCopy) {
  WriteFile(PathIn(kTaskResultDir, "any"), "x");
  PlatformHook<decltype(ZORVFileCopy)> copy("ZORVFileCopy");
  copy.AlwaysFails(0x2A00);
  EXPECT_EQ(1, ShareSnapUsageCal::ExecCalPostAction(noTask_, nullptr));
  EXPECT_EQ(1, Messages("ExecCalPostAction",
                        "Failed to copy from (/run/zorvbtrfssnapusage/task_result/any) to "
                        "(/usr/local/zorvbtrfssnapusage/share_task_result/photos/any)" +
                            HookTail(0x2A00)))
      << syslog_.Dump();
}

// ---- A lock that cannot be released -------------------------------------------------------------

class ShareSnapUsageCalUnlock : public ShareSnapUsageCalNeighbours {
 protected:
  // From now on no lock can be released; the log then has the descriptor of each.
  ShareSnapUsageCalUnlock() {
    fcntl_.Replace([this](int fd, int command, void* argument) {
      const auto* lock = static_cast<const struct flock*>(argument);
      if (command != F_SETLKW || lock->l_type != F_UNLCK) return fcntl_.Real(fd, command, argument);
      fds_.push_back(fd);
      errno = EIO;
      return -1;
    });
  }
  // The tested unit has said so for the descriptor at this place of fds_.
  void ExpectLogged(size_t index) {
    ASSERT_LT(index, fds_.size());
    EXPECT_LE(1, Errors("Failed to unlock fd(" + std::to_string(fds_[index]) + ")"))
        << syslog_.Dump();
  }

  std::vector<int> fds_;
  PlatformHook<int(int, int, void*)> fcntl_{"fcntl"};
};

TEST_F(ShareSnapUsageCalUnlock, ReadersGoOn) {
  PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
  std::string share;
  EXPECT_EQ(0, ShareSnapUsageCal::FindShareNameByTaskID("T1", share));
  EXPECT_EQ(1u, fds_.size());
  ExpectLogged(0);
}

TEST_F(ShareSnapUsageCalUnlock, WritersGoOn) {
  const KnownShares known({});
  PutMap(R"({"photos":{}})");
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ("{}", MapText());
  EXPECT_EQ(2u, fds_.size());  // read, then read and write
  ExpectLogged(1);
}

TEST_F(ShareSnapUsageCalUnlock, CreateTaskGoesOn) {
  ShareSnapUsageCal cal;
  EXPECT_EQ(0, cal.CreateTask("photos"));
  ExpectLogged(fds_.size() - 1);  // the share's lock is the last one that it gives back
}

}  // namespace
}  // namespace ZorvTest
