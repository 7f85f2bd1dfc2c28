// Every operation, each time with one allocation more that fails: no exception, no lock kept, no
// map damaged.
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <new>

#include "tests/share_snap_calculator/share_fixture.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/utils.h"

namespace {

// Allocations of this thread until one fails; 0: none fails.
thread_local int g_allocationsLeft = 0;
thread_local bool g_failed = false;

}  // namespace

void* operator new(size_t size) {
  if (g_allocationsLeft > 0 && --g_allocationsLeft == 0) {
    g_failed = true;
    throw std::bad_alloc();
  }
  void* memory = malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
using Vector = std::vector<unsigned long long>;

class ShareSnapUsageCalMemory : public VolumeTest {
 protected:
  // The first call of a hookable function looks for the real one, which takes memory.
  ShareSnapUsageCalMemory() { PLATCSzListFree(PLATCSzListAlloc(8)); }

  void Prepare() {
    for (const char* dir : {kRunDir, kLockDir, kPersistentDir}) std::filesystem::remove_all(dir);
    PutMap(R"({"gone":{},"photos":)" + Entry("T1", 1, R"({"a":"257"})") + "}");
    PutTaskStatus("T1", R"({"error_code":"0","status":"done"})");
    PutShareStatus("photos", R"({"error_code":"0","status":"process"})");
    std::filesystem::create_directories(ShareSnapUsageCal::GetResultBasePath("photos"));
    EXPECT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "T1", Vector{1, 2}));
  }

  // Runs `operation` with its first, second, ... allocation failing, until none is left to fail;
  // there are `least`, or it is not what is wanted here.
  void ForEachAllocation(const std::function<void()>& operation, int least = 6) {
    int failures = 0;
    for (int n = 1;; ++n) {
      SCOPED_TRACE(n);
      Prepare();
      g_failed = false;
      g_allocationsLeft = n;
      EXPECT_NO_THROW(operation());
      g_allocationsLeft = 0;
      if (!g_failed) break;
      ++failures;
      ExpectSound();
      if (HasFailure()) break;
    }
    EXPECT_LE(least, failures);
  }

  // The map can be read, and its lock be taken by another process.
  void ExpectSound() {
    Json::Value map;
    EXPECT_TRUE(Utils::JsonFromFile(map, kShareMap));
    EXPECT_TRUE(map.isObject());
    EXPECT_EQ(0, InChild([] {
                int fd = -1;
                alarm(60);
                return Utils::GeneralFileLock(kShareMapLock, true, fd) ? 0 : 1;
              }));
  }
};

TEST_F(ShareSnapUsageCalMemory, LookUps) {
  ForEachAllocation([] {
    std::string text;
    bool expired = false;
    (void)ShareSnapUsageCal::FindTaskID("photos", text, expired);
  });
  ForEachAllocation([] {
    std::string text;
    (void)ShareSnapUsageCal::FindShareNameByTaskID("T1", text);
  });
  ForEachAllocation([] {
    PLATSZLIST* list = PLATCSzListAlloc(8);
    (void)ShareSnapUsageCal::GetShareTaskList(&list);
    PLATCSzListFree(list);
  });
}

TEST_F(ShareSnapUsageCalMemory, CheckAvail) {
  ForEachAllocation([] {
    std::string text;
    (void)ShareSnapUsageCal::CheckAvail("photos", text);
  });
}

TEST_F(ShareSnapUsageCalMemory, CreateTask) {
  ForEachAllocation([] {
    ShareSnapUsageCal cal;
    (void)cal.CreateTask("photos");
  });
}

TEST_F(ShareSnapUsageCalMemory, ConstructionWithATask) {
  ForEachAllocation([] { const ShareSnapUsageCal cal("T2"); });
}

// The fork is held back: the memory of the child is another matter.
TEST_F(ShareSnapUsageCalMemory, Launch) {
  fork_.AlwaysFails(0x2A00);
  const time_t start = kFirstTime;
  const time_t end = kThirdTime;
  ForEachAllocation([&] {
    ShareSnapUsageCal cal;
    const int left = g_allocationsLeft;
    g_allocationsLeft = 0;
    EXPECT_EQ(0, cal.CreateTask("photos"));
    g_allocationsLeft = left;
    EXPECT_NE(0, cal.Launch(&start, &end));
  });
}

TEST_F(ShareSnapUsageCalMemory, Stop) {
  ForEachAllocation([] { (void)ShareSnapUsageCal::Stop("photos"); });
}

TEST_F(ShareSnapUsageCalMemory, Callbacks) {
  TaskStatus status("T1");
  ForEachAllocation([&] { (void)ShareSnapUsageCal::UpdateTaskStatus(status, nullptr); });
  TaskStatus longID(std::string(36, 't'));  // as long as a UUID: a copy takes memory
  ForEachAllocation([&] { (void)ShareSnapUsageCal::UpdateTaskStatus(longID, nullptr); }, 1);
  ForEachAllocation([&] { (void)ShareSnapUsageCal::ExecCalPostAction(status, nullptr); });
}

TEST_F(ShareSnapUsageCalMemory, Results) {
  ForEachAllocation([] {
    Vector values;
    (void)ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", values);
  });
  ForEachAllocation([] {
    Vector values;
    (void)ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", values);
  });
  const Vector ids = {257};
  ForEachAllocation([&] {
    PLATSZLIST* list = PLATCSzListAlloc(8);
    (void)ShareSnapUsageCal::FindSnapNameBySubvolID("photos", ids, &list);
    PLATCSzListFree(list);
  });
}

TEST_F(ShareSnapUsageCalMemory, Cleanup) {
  ForEachAllocation([] { ShareSnapUsageCal::CleanAll("photos"); });
  ForEachAllocation([] { (void)ShareSnapUsageCal::CleanAllSResult(); });
  ForEachAllocation([] { (void)ShareSnapUsageCal::CleanNotDoneTask(); });
}

TEST_F(ShareSnapUsageCalMemory, PathWithoutMemoryIsEmpty) {
  const std::string share(100, 'x');
  g_allocationsLeft = 1;
  const std::string path = ShareSnapUsageCal::GetResultBasePath(share);
  g_allocationsLeft = 0;
  EXPECT_EQ("", path);
}

}  // namespace
}  // namespace ZorvTest
