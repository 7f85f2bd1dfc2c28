// Launching by list and by time range, and stopping. The command is a stand-in.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;

class LaunchTest : public VolumeTest {
 protected:
  LaunchTest() {
    EXPECT_EQ(0, cal_.CreateTask("photos"));
    bool expired = false;
    EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID("photos", id_, expired));
  }
  int Launch(const std::vector<std::string>& paths) {
    SzList list = ListOf(paths);
    return cal_.Launch(SzListRef(list));
  }
  // The share shows a launch that failed with `code`.
  void ExpectFailed(const std::string& code) {
    EXPECT_EQ("fail", ShareStatus("photos", "status"));
    EXPECT_EQ(code, ShareStatus("photos", "error_code"));
    EXPECT_EQ(-1, calculator_);
  }
  // The share shows nothing of the launch.
  void ExpectUntouched() {
    EXPECT_EQ(R"({"status":"ready"})", ReadFile(ShareStatusPath("photos")));
    EXPECT_EQ(-1, calculator_);
  }

  ShareSnapUsageCal cal_;
  std::string id_;
};

// ---- Launch over a list -------------------------------------------------------------------------

class ShareSnapUsageCalLaunch : public LaunchTest {};

TEST_F(ShareSnapUsageCalLaunch, RunsTheCommandOverTheSubvolumeIDs) {
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(0, WaitForCalculator());
  std::string called = "/sbin/btrfs subvolume size -vpm -r /volume1";
  for (const std::string& path : PhotosPaths()) called += " " + std::to_string(SubvolumeID(path));
  EXPECT_EQ(called + "\n", ReadFile(kCalledWith));
}

TEST_F(ShareSnapUsageCalLaunch, RecordsVolumeAndSnapshotsByteForByte) {
  Clock clock(1750000000);
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("music"));
  SzList list = ListOf({SnapPath("music", kFirst)});
  ASSERT_EQ(0, cal.Launch(SzListRef(list)));
  EXPECT_EQ(0, WaitForCalculator());
  std::string id;
  EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("music", id));
  const std::string snapID = std::to_string(SubvolumeID(SnapPath("music", kFirst)));
  const std::string map = MapText();
  EXPECT_EQ(R"({"music":{"snap_list":{"GMT-2024.01.01-00.00.00":")" + snapID + R"("},"task_id":")" +
                id + R"(","time":1750000000,"volume_id":2},)",
            map.substr(0, map.find(R"("photos")")));
}

TEST_F(ShareSnapUsageCalLaunch, EndsDoneWithItsResultsInPersistentCopies) {
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
  EXPECT_EQ("0", ShareStatus("photos", "error_code"));
  EXPECT_EQ(std::to_string(calculator_), ShareStatus("photos", "pid"));
  EXPECT_FALSE(TaskStatus::CheckFile(id_));
  EXPECT_FALSE(std::filesystem::exists(PathIn(kTaskResultDir, id_ + ".result")));

  std::vector<unsigned long long> ids, usage, totals;
  EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids));
  EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", usage));
  EXPECT_EQ(0, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("photos", totals));
  ASSERT_EQ(3u, ids.size());
  ASSERT_EQ(3u, usage.size());
  unsigned long long sum = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(SubvolumeID(PhotosPaths()[i]), ids[i]);
    EXPECT_EQ(4096 * ids[i], usage[i]);
    EXPECT_EQ(sum += usage[i], totals[i]);
  }
  EXPECT_EQ(std::to_string(sum), ShareStatus("photos", "estimated_in_bytes"));
  EXPECT_EQ(std::to_string(sum), ShareStatus("photos", "processed_in_bytes"));
  SzList names = MakeSzList();
  EXPECT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID("photos", ids, SzListRef(names)));
  EXPECT_EQ((std::vector<std::string>{kFirst, kSecond, kThird}), TextsOf(names.get()));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalLaunch, PathWithoutASlashIsItsName) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(PhotosPaths()[0]).parent_path());
  const int code = Launch({kFirst});
  std::filesystem::current_path(before);
  ASSERT_EQ(0, code);
  EXPECT_EQ(0, WaitForCalculator());
  const std::string id = std::to_string(SubvolumeID(PhotosPaths()[0]));
  EXPECT_NE(std::string::npos, MapText().find("{\"" + std::string(kFirst) + "\":\"" + id + "\"}"))
      << MapText();
}

TEST_F(ShareSnapUsageCalLaunch, PermissionBitsOfTheCopies) {
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(0, WaitForCalculator());
  const std::string dir = "/usr/local/zorvbtrfssnapusage/share_task_result/photos/";
  EXPECT_EQ(0644, ModeOf(dir + id_ + ".result"));
  EXPECT_EQ(0644, ModeOf(dir + id_ + ".subvol_id"));
  EXPECT_EQ(32u, std::filesystem::file_size(dir + id_ + ".result"));
  EXPECT_EQ(0644, ModeOf("/usr/local/zorvbtrfssnapusage/share_task_status/photos"));
  EXPECT_EQ(0644, ModeOf("/run/lock/zorvbtrfssnapusage/share_task_status/photos"));
}

TEST_F(ShareSnapUsageCalLaunch, FailedCommandShowsAsFail) {
  WriteScript("/sbin/btrfs", "echo 'processed x bytes'\n");
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(1, WaitForCalculator());
  EXPECT_EQ("fail", ShareStatus("photos", "status"));
  EXPECT_EQ("1", ShareStatus("photos", "error_code"));
  EXPECT_TRUE(TaskStatus::CheckFile(id_));
}

TEST_F(ShareSnapUsageCalLaunch, MissingCommandShowsAsFail) {
  std::filesystem::remove("/sbin/btrfs");
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(6, WaitForCalculator());
  EXPECT_EQ("6", ShareStatus("photos", "error_code"));
}

TEST_F(ShareSnapUsageCalLaunch, FailedPostActionKeepsTheTasksFiles) {
  std::filesystem::remove_all(ShareSnapUsageCal::GetResultBasePath("photos"));
  ASSERT_EQ(0, Launch(PhotosPaths()));
  EXPECT_EQ(9, WaitForCalculator());
  EXPECT_TRUE(TaskStatus::CheckFile(id_));
  std::vector<unsigned long long> ids;
  EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids));
  EXPECT_EQ(3u, ids.size());
}

// Nothing repeats an update. The results are there, the share can be claimed and cleaned.
TEST_F(ShareSnapUsageCalLaunch, LastUpdateThatFailsLeavesTheShareInProcess) {
  {
    const UnwritableFile status(ShareStatusPath("photos"), /*first=*/2);
    ASSERT_EQ(0, Launch(PhotosPaths()));
  }
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("process", ShareStatus("photos", "status"));
  std::vector<unsigned long long> ids;
  EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids));
  EXPECT_EQ(3u, ids.size());
  EXPECT_TRUE(ShareSnapUsageCal::CheckAvail("photos", id_));
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_FALSE(std::filesystem::exists(ShareStatusPath("photos")));
}

TEST_F(ShareSnapUsageCalLaunch, PathsMayEndInSlashesOrBeLinks) {
  std::filesystem::create_directory_symlink(SnapPath("photos", kSecond), "/tmp/a link");
  ASSERT_EQ(0, Launch({SnapPath("photos", kFirst) + "//", "/tmp/a link"}));
  EXPECT_EQ(0, WaitForCalculator());
  SzList names = MakeSzList();
  EXPECT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID(
                   "photos", {SubvolumeID(SnapPath("photos", kFirst)), SubvolumeID("/tmp/a link")},
                   SzListRef(names)));
  EXPECT_EQ((std::vector<std::string>{kFirst, "a link"}), TextsOf(names.get()));
  std::filesystem::remove("/tmp/a link");
}

TEST_F(ShareSnapUsageCalLaunch, ListStaysTheCallers) {
  SzList list = ListOf(PhotosPaths());
  ASSERT_EQ(0, cal_.Launch(SzListRef(list)));
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ(PhotosPaths(), TextsOf(list.get()));
}

TEST_F(ShareSnapUsageCalLaunch, NullArgumentIsInvalidWithoutAStatusChange) {
  EXPECT_EQ(3, cal_.Launch(nullptr));
  EXPECT_EQ(1, InvalidArguments("__null != ppListSnapPath")) << syslog_.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunch, NullListMarksFail) {
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(3, cal_.Launch(&none));
  ExpectFailed("3");
}

TEST_F(ShareSnapUsageCalLaunch, NegativeCountMarksFail) {
  PLATSZLIST list = {8, -1, nullptr};
  PLATSZLIST* negative = &list;
  EXPECT_EQ(3, cal_.Launch(&negative));
  ExpectFailed("3");
}

TEST_F(ShareSnapUsageCalLaunch, EmptyListMarksFail) {
  EXPECT_EQ(15, Launch({}));
  ExpectFailed("15");
}

TEST_F(ShareSnapUsageCalLaunch, ObjectWithoutTaskIsInvalid) {
  ShareSnapUsageCal cal;
  SzList list = ListOf(PhotosPaths());
  EXPECT_EQ(7, cal.Launch(SzListRef(list)));
  ShareSnapUsageCal bound(id_);
  EXPECT_EQ(7, bound.Launch(SzListRef(list)));
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunch, FailedAllocationFailsWithoutAStatusChange) {
  SzList list = ListOf(PhotosPaths());
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.FailsOnCall(1, 0x2A00);
  EXPECT_EQ(1, cal_.Launch(SzListRef(list)));
  EXPECT_EQ(1, Errors("PLATCSzListAlloc failed. " + HookTail(0x2A00))) << syslog_.Dump();
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunch, PathOnNoVolumeIsInvalid) {
  EXPECT_EQ(3, Launch({SnapPath("photos", kFirst), "/tmp"}));
  EXPECT_EQ(1, syslog_.Count("Given snapshot paths belog to different volumes")) << syslog_.Dump();
  EXPECT_EQ(1, syslog_.Count("Given snapshot paths belog to different volumes[0xBE00 "))
      << syslog_.Dump();
  ExpectFailed("3");
  EXPECT_EQ(std::string::npos, MapText().find("volume_id"));
}

TEST_F(ShareSnapUsageCalLaunch, FailedVolumeLookUpIsInvalid) {
  PlatformHook<decltype(ZORVMountVolInfoGet)> info("ZORVMountVolInfoGet");
  info.AlwaysFails(0xBE00);
  EXPECT_EQ(3, Launch(PhotosPaths()));
  EXPECT_EQ(1, Errors("Given snapshot paths belog to different volumes" + Tail()))
      << syslog_.Dump();
  ExpectFailed("3");
}

// Different volumes are told by 1, which is no error there; the conversion refuses them.
TEST_F(ShareSnapUsageCalLaunch, DifferentVolumesFailAtTheConversion) {
  EXPECT_EQ(7, Launch({SnapPath("photos", kFirst), SnapPath("music", kFirst)}));
  EXPECT_EQ(0, syslog_.Count("belog to different volumes")) << syslog_.Dump();
  EXPECT_EQ(1, Errors("Failed to convert snapshot paths to subvolume IDs" + Tail()))
      << syslog_.Dump();
  EXPECT_NE(std::string::npos, MapText().find(R"("volume_id":-1)")) << MapText();
  ExpectFailed("7");
}

TEST_F(ShareSnapUsageCalLaunch, PathThatIsNoSubvolumeFailsAfterTheVolumeIsRecorded) {
  const std::string plain = "/volume1/photos/.snapshots";
  EXPECT_EQ(7, Launch({SnapPath("photos", kFirst), plain}));
  EXPECT_EQ(1, Errors("Failed to convert snapshot paths to subvolume IDs" + Tail()))
      << syslog_.Dump();
  EXPECT_NE(std::string::npos, MapText().find(R"("snap_list":null)")) << MapText();
  EXPECT_NE(std::string::npos, MapText().find(R"("volume_id":1)")) << MapText();
  ExpectFailed("7");
}

TEST_F(ShareSnapUsageCalLaunch, FailedMapLockFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(7, Launch(PhotosPaths()));
  EXPECT_EQ(
      1, Errors(std::string("Failed to lock the file, path: ") + kShareMapLock + ", exclusive: 1"))
      << syslog_.Dump();
  ExpectFailed("7");
}

TEST_F(ShareSnapUsageCalLaunch, FailedMapWritesFail) {
  for (const int write : {1, 2}) {
    SCOPED_TRACE(write);
    const UnwritableFile map(kShareMap, write);
    EXPECT_EQ(7, Launch(PhotosPaths()));
    EXPECT_EQ(write == 2, MapText().find(R"("volume_id":1)") != std::string::npos);
    EXPECT_NE(std::string::npos, MapText().find(R"("snap_list":null)")) << MapText();
    ExpectFailed("7");
  }
}

TEST_F(ShareSnapUsageCalLaunch, EntryOfAnotherShapeFails) {
  for (const char* map : {R"({"photos":[1]})", R"({"photos":"T1"})", "[]",
                          R"({"photos":{"snap_list":["x"],"volume_id":1}})"}) {
    SCOPED_TRACE(map);
    PutMap(map);
    EXPECT_EQ(7, Launch(PhotosPaths()));
    EXPECT_EQ(map, MapText());
    ExpectFailed("7");
  }
}

TEST_F(ShareSnapUsageCalLaunch, UnreadableSubvolumeIDFails) {
  SzList list = ListOf(PhotosPaths());
  const PLATSZLIST* paths = list.get();
  PlatformHook<decltype(PLATCSzListGet)> get("PLATCSzListGet");
  get.Replace([&](const PLATSZLIST* asked, int index) -> const char* {
    if (asked == paths) return get.Real(asked, index);
    PLATCErrSetEx(0x0D00, "tests/hook", 1);
    return nullptr;
  });
  EXPECT_EQ(7, cal_.Launch(SzListRef(list)));
  EXPECT_EQ(1, Errors("Failed to get element from list" + HookTail(0x0D00))) << syslog_.Dump();
  ExpectFailed("7");
}

// Each path is read three times before the map is written: for the volume, again with the IDs, for
// its ID.
TEST_F(ShareSnapUsageCalLaunch, UnreadablePathFails) {
  SzList list = ListOf(PhotosPaths());
  const PLATSZLIST* paths = list.get();
  int reads = 0;
  PlatformHook<decltype(PLATCSzListGet)> get("PLATCSzListGet");
  get.Replace([&](const PLATSZLIST* asked, int index) -> const char* {
    if (asked != paths || ++reads <= 3 * paths->count) return get.Real(asked, index);
    PLATCErrSetEx(0x0D00, "tests/hook", 1);
    return nullptr;
  });
  EXPECT_EQ(7, cal_.Launch(SzListRef(list)));
  EXPECT_EQ(1, Errors("Failed to get element from list" + HookTail(0x0D00))) << syslog_.Dump();
  ExpectFailed("7");
}

TEST_F(ShareSnapUsageCalLaunch, FailedForkFails) {
  fork_.AlwaysFails(0x2A00, EAGAIN);
  EXPECT_EQ(7, Launch(PhotosPaths()));
  EXPECT_EQ(1, Errors("Failed to fire the calculator" + HookTail(0x2A00))) << syslog_.Dump();
  EXPECT_NE(std::string::npos, MapText().find(kThird)) << MapText();
  ExpectFailed("7");
}

TEST_F(ShareSnapUsageCalLaunch, FailedLaunchFreesTheShare) {
  EXPECT_EQ(15, Launch({}));
  ShareSnapUsageCal second;
  EXPECT_EQ(0, second.CreateTask("photos"));
  EXPECT_EQ("ready", ShareStatus("photos", "status"));
}

// ---- Launch over a time range -------------------------------------------------------------------

class ShareSnapUsageCalLaunchRange : public LaunchTest {
 protected:
  ShareSnapUsageCalLaunchRange() {
    select_.Replace(
        [this](ZORVSHARESNAPSELECTOR** chain, ZORVSHARESNAPSELECTFN fn, const char* argument) {
          selectors_.push_back(argument);
          return select_.Real(chain, fn, argument);
        });
    setenv("TZ", "UTC0", 1);
  }
  ~ShareSnapUsageCalLaunchRange() override { unsetenv("TZ"); }

  int Range(time_t start, time_t end) { return cal_.Launch(&start, &end); }
  // How many snapshots the finished calculation was over.
  size_t Calculated() {
    EXPECT_EQ(0, WaitForCalculator());
    std::vector<unsigned long long> ids;
    EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids));
    return ids.size();
  }

  std::vector<std::string> selectors_;
  PlatformHook<decltype(ZORVShareSnapSelectorAdd)> select_{"ZORVShareSnapSelectorAdd"};
};

TEST_F(ShareSnapUsageCalLaunchRange, SelectorsAreTheLocalNamesOfBothEnds) {
  setenv("TZ", "XXX-05:30", 1);
  ASSERT_EQ(0, Range(kFirstTime, kSecondTime));
  EXPECT_EQ((std::vector<std::string>{">=GMT+0530-2024.01.01-05.30.00",
                                      "<=GMT+0530-2024.02.01-05.30.00"}),
            selectors_);
  EXPECT_EQ(2u, Calculated());
}

TEST_F(ShareSnapUsageCalLaunchRange, EndsBelongToTheRange) {
  const struct {
    const char* name;
    time_t start, end;
    size_t snapshots;
  } cases[] = {{"one second after the first", kFirstTime + 1, kThirdTime, 2},
               {"one second before the last", kFirstTime, kThirdTime - 1, 2},
               {"exactly", kFirstTime, kThirdTime, 3},
               {"one of them", kSecondTime, kSecondTime + 1, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ShareSnapUsageCal cal;
    PutMap("{}");
    ASSERT_EQ(0, cal.CreateTask("photos"));
    ASSERT_EQ(0, cal.Launch(&c.start, &c.end));
    EXPECT_EQ(c.snapshots, Calculated());
  }
}

TEST_F(ShareSnapUsageCalLaunchRange, BothNullCoverAllUpToNow) {
  ASSERT_EQ(0, cal_.Launch(nullptr, nullptr));
  ASSERT_EQ(2u, selectors_.size());
  EXPECT_EQ(">=GMT+00-1970.01.01-00.00.00", selectors_[0]);
  EXPECT_EQ(3u, Calculated());
  EXPECT_EQ("1970.01.01-00.00.00", ShareStatus("photos", "range_start"));
  EXPECT_EQ("<=GMT+00-" + ShareStatus("photos", "range_end"), selectors_[1]);
}

TEST_F(ShareSnapUsageCalLaunchRange, BothNullLeaveOutWhatComesAfterNow) {
  Clock clock(kSecondTime);
  PutMap("{}");
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("photos"));
  ASSERT_EQ(0, cal.Launch(nullptr, nullptr));
  EXPECT_EQ(2u, Calculated());
}

TEST_F(ShareSnapUsageCalLaunchRange, RangeIsRecordedAsTimeTexts) {
  ASSERT_EQ(0, Range(kFirstTime, kThirdTime));
  EXPECT_EQ("2024.01.01-00.00.00", ShareStatus("photos", "range_start"));
  EXPECT_EQ("2024.03.01-00.00.00", ShareStatus("photos", "range_end"));
  EXPECT_EQ(0, WaitForCalculator());
  EXPECT_EQ("2024.03.01-00.00.00", ShareStatus("photos", "range_end"));
}

TEST_F(ShareSnapUsageCalLaunchRange, EqualEndsListAllWithoutSelectors) {
  ASSERT_EQ(0, Range(5, 5));
  EXPECT_TRUE(selectors_.empty());
  EXPECT_EQ(3u, Calculated());
}

TEST_F(ShareSnapUsageCalLaunchRange, OneNullIsInvalid) {
  const time_t t = kFirstTime;
  EXPECT_EQ(3, cal_.Launch(&t, nullptr));
  EXPECT_EQ(3, cal_.Launch(nullptr, &t));
  EXPECT_EQ(0, LinesOfUnit()) << syslog_.Dump();
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, StartAfterEndIsInvalid) {
  EXPECT_EQ(3, Range(kSecondTime, kSecondTime - 1));
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, ObjectWithoutTaskIsInvalid) {
  ShareSnapUsageCal cal;
  EXPECT_EQ(7, cal.Launch(nullptr, nullptr));
  const time_t t = 5;
  EXPECT_EQ(3, cal.Launch(&t, nullptr));
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedAllocationFails) {
  PlatformHook<decltype(PLATCSzListAlloc)> alloc("PLATCSzListAlloc");
  alloc.FailsOnCall(1, 0x2A00);
  EXPECT_EQ(1, Range(kFirstTime, kThirdTime));
  EXPECT_EQ(1, Errors("PLATCSzListAlloc failed. " + HookTail(0x2A00))) << syslog_.Dump();
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedListingFails) {
  PlatformHook<decltype(ZORVShareSnapList)> list("ZORVShareSnapList");
  list.AlwaysFails(0x2A00);
  EXPECT_EQ(1, Range(kFirstTime, kThirdTime));
  EXPECT_EQ(1, Errors("Failed to list snapshot for share [photos]")) << syslog_.Dump();
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, UnknownShareFails) {
  ShareSnapUsageCal cal;
  ASSERT_EQ(0, cal.CreateTask("no such share"));
  EXPECT_EQ(1, cal.Launch(nullptr, nullptr));
  EXPECT_EQ(1, Errors("Failed to list snapshot for share [no such share]")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedClockFailsAfterTheListing) {
  Clock clock(-1);
  EXPECT_EQ(1, Range(kFirstTime, kThirdTime));
  EXPECT_EQ(1, Errors("Failed to get snapshot range")) << syslog_.Dump();
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_STREQ(kShareUnit, PLATCErrorGetFile());
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedClockWithoutRangeIsAnEndBeforeTheStart) {
  Clock clock(-1);
  EXPECT_EQ(3, cal_.Launch(nullptr, nullptr));
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, SnapshotsWithoutATimeAreOnlyLogged) {
  PlatformHook<decltype(ZORVShareSnapTimeGet)> time("ZORVShareSnapTimeGet");
  time.AlwaysFails(0x0D00);
  ASSERT_EQ(0, Range(kFirstTime, kThirdTime));
  for (const char* name : {kFirst, kSecond, kThird})
    EXPECT_EQ(1, Errors(std::string("Failed to get timestamp from snapshot [") + name + "]" +
                        HookTail(0x0D00)))
        << syslog_.Dump();
  EXPECT_EQ(3u, Calculated());
}

// A time without a name is no error: all snapshots are listed. Its text is then wanted, though.
TEST_F(ShareSnapUsageCalLaunchRange, StartThatNoCalendarHas) {
  EXPECT_EQ(1, Range(LONG_MIN, kThirdTime));
  EXPECT_EQ(1, Errors("Failed to covert time, start: 9223372036854775808")) << syslog_.Dump();
  EXPECT_EQ(1, Errors("Failed to get time string from time [9223372036854775808], "
                      "err=Value too large for defined data type" +
                      Tail()))
      << syslog_.Dump();
  EXPECT_TRUE(selectors_.empty());
  ExpectUntouched();
}

TEST_F(ShareSnapUsageCalLaunchRange, EndThatNoCalendarHas) {
  EXPECT_EQ(1, Range(kFirstTime, LONG_MAX));
  EXPECT_EQ(1, Errors("Failed to covert time, end: 9223372036854775807")) << syslog_.Dump();
  EXPECT_EQ(1, Errors("Failed to get time string from time [9223372036854775807], "
                      "err=Value too large for defined data type" +
                      Tail()))
      << syslog_.Dump();
  EXPECT_TRUE(selectors_.empty());
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedConversionListsAllSnapshots) {
  PlatformHook<tm*(const time_t*, tm*)> local("localtime_r");
  local.FailsOnCall(1, 0, EOVERFLOW);
  ASSERT_EQ(0, Range(kSecondTime, kSecondTime + 1));
  EXPECT_EQ(1, Errors("Failed to covert time, start: " + std::to_string(kSecondTime)))
      << syslog_.Dump();
  EXPECT_TRUE(selectors_.empty());
  EXPECT_EQ(3u, Calculated());
}

TEST_F(ShareSnapUsageCalLaunchRange, FailedRecordOfTheRangeFails) {
  for (const int write : {1, 2}) {
    SCOPED_TRACE(write);
    const UnwritableFile status(ShareStatusPath("photos"), write);
    EXPECT_EQ(1, Range(kFirstTime, kThirdTime));
    EXPECT_EQ("ready", ShareStatus("photos", "status"));
    EXPECT_EQ(-1, calculator_);
  }
}

TEST_F(ShareSnapUsageCalLaunchRange, RangeWithoutSnapshotsIsAnEmptyList) {
  EXPECT_EQ(15, Range(kThirdTime + 1, kThirdTime + 2));
  EXPECT_EQ(1, Errors("Failed to launch calculator for share [photos], ret: 15")) << syslog_.Dump();
  ExpectFailed("15");
}

// ---- Stop ---------------------------------------------------------------------------------------

class ShareSnapUsageCalStop : public ShareTest {
 protected:
  // A process that stands in for a calculator of photos.
  void PutRunningTask() {
    pid_ = fork();
    if (pid_ == 0) {
      for (;;) pause();
    }
    PutMap(R"({"photos":)" + Entry("T1", 1) + "}");
    PutTaskStatus("T1", R"({"pid":")" + std::to_string(pid_) + R"(","status":"process"})");
  }
  ~ShareSnapUsageCalStop() override {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    (void)WaitForExit(pid_);
  }
  pid_t pid_ = -1;
};

TEST_F(ShareSnapUsageCalStop, EmptyNameIsInvalid) {
  EXPECT_EQ(3, ShareSnapUsageCal::Stop(""));
  EXPECT_EQ(1, InvalidArguments("!shareName.empty()")) << syslog_.Dump();
}

TEST_F(ShareSnapUsageCalStop, ShareWithoutEntryIsNotFound) {
  EXPECT_EQ(8, ShareSnapUsageCal::Stop("photos"));
}

TEST_F(ShareSnapUsageCalStop, FailedLockFails) {
  PutDirectory(kShareMapLock);
  EXPECT_EQ(1, ShareSnapUsageCal::Stop("photos"));
}

TEST_F(ShareSnapUsageCalStop, ExpiredTaskIsSignalledAllTheSame) {
  PutRunningTask();
  EXPECT_EQ(0, ShareSnapUsageCal::Stop("photos"));
  int status = 0;
  ASSERT_TRUE(WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }));
  pid_ = -1;
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

TEST_F(ShareSnapUsageCalStop, TaskThatDoesNotRunIsNotSignalled) {
  PutRunningTask();
  for (const char* status : {"ready", "fail", "stop", "done"}) {
    SCOPED_TRACE(status);
    PutTaskStatus("T1", R"({"error_code":"0","pid":")" + std::to_string(pid_) + R"(","status":")" +
                            status + R"("})");
    EXPECT_EQ(0, ShareSnapUsageCal::Stop("photos"));
    EXPECT_EQ(0, waitpid(pid_, nullptr, WNOHANG));
  }
}

TEST_F(ShareSnapUsageCalStop, FailedSignalFails) {
  PutRunningTask();
  PlatformHook<int(pid_t, int)> send("kill");
  send.FailsOnCall(2, 0, EPERM);
  EXPECT_EQ(1, ShareSnapUsageCal::Stop("photos"));
  EXPECT_EQ(1, Errors("Failed to stop calculator for share [photos] with ID [T1]"))
      << syslog_.Dump();
}

}  // namespace
}  // namespace ZorvTest
