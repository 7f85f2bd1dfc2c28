// What becomes of claims, launches and status when the clock jumps or the time zone changes.
#include <stdlib.h>
#include <time.h>

#include <filesystem>

#include "tests/share_snap_calculator/share_fixture.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;
using testing::ElementsAre;

namespace {

constexpr time_t kNow = 1750000000;
constexpr time_t kHour = 3600;
constexpr time_t kYear = 365 * 24 * kHour;

// Of this process and of what it starts, for one scope.
class Zone {
 public:
  explicit Zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~Zone() {
    unsetenv("TZ");
    tzset();
  }
};

constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";

}  // namespace

// ---- Claims -------------------------------------------------------------------------------------

class ShareSnapUsageCalClock : public ShareTest {
 protected:
  // A task of "photos", claimed now, and in the middle of its calculation.
  void PutRunning(time_t claimed) {
    PutMap(R"({"photos":)" + Entry("T1", claimed) + "}");
    PutTaskStatus("T1", R"({"status":"process"})");
    PutShareStatus("photos", R"({"status":"process"})");
  }

  bool IsExpired() {
    std::string id;
    bool expired = false;
    EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID("photos", id, expired));
    EXPECT_EQ("T1", id);
    return expired;
  }

  bool IsFree() {
    std::string id;
    return ShareSnapUsageCal::CheckAvail("photos", id);
  }

  Clock clock_{kNow};
};

TEST_F(ShareSnapUsageCalClock, JumpsForwardFreeTheShareAndJumpsBackHoldIt) {
  PutRunning(kNow);
  const struct {
    const char* name;
    time_t jump;
    bool expired;
  } kCases[] = {{"an hour back", -kHour, false},   {"an hour forward", kHour, true},
                {"a year back", -kYear, false},    {"a year forward", kYear, true},
                {"to the epoch", -kNow, false},    {"119 seconds forward", 119, false},
                {"120 seconds forward", 120, true}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    clock_.Set(kNow + c.jump);
    EXPECT_EQ(c.expired, IsExpired());
    EXPECT_EQ(c.expired, IsFree());
  }
}

TEST_F(ShareSnapUsageCalClock, ClaimFromTheFutureHoldsTheShareUntilTwoMinutesAfterItsTime) {
  PutRunning(kNow + kYear);
  EXPECT_FALSE(IsFree());
  ShareSnapUsageCal calculation;
  EXPECT_EQ(4, calculation.CreateTask("photos"));
  clock_.Set(kNow + kYear + 119);
  EXPECT_FALSE(IsFree());
  clock_.Set(kNow + kYear + 120);
  EXPECT_TRUE(IsFree());
}

// Not when its task has ended, or has gone with a reboot; the next claim is of now again.
TEST_F(ShareSnapUsageCalClock, FinishedClaimFromTheFutureHoldsNothing) {
  for (const bool rebooted : {false, true}) {
    SCOPED_TRACE(rebooted);
    PutRunning(kNow + kYear);
    if (rebooted)
      EXPECT_TRUE(TaskStatus::CleanFile("T1"));
    else
      PutShareStatus("photos", R"({"error_code":"0","status":"done"})");
    EXPECT_TRUE(IsFree());
    ShareSnapUsageCal calculation;
    EXPECT_EQ(0, calculation.CreateTask("photos"));
    EXPECT_THAT(MapText(), testing::HasSubstr("\"time\":" + std::to_string(kNow)));
    std::string id;
    EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("photos", id));
    ShareSnapUsageCal::CleanAll("photos");
  }
}

// The age of a claim is one of seconds, whatever clocks on walls do.
TEST_F(ShareSnapUsageCalClock, SummerTimeAndZonesDoNotMakeAClaimOlderOrYounger) {
  constexpr time_t kSpring = 1711846800;  // 2024-03-31 01:00 UTC: 02:00 becomes 03:00
  constexpr time_t kAutumn = 1729990800;  // 2024-10-27 01:00 UTC: 03:00 becomes 02:00
  for (const time_t change : {kSpring, kAutumn}) {
    SCOPED_TRACE(change);
    PutRunning(change - 60);
    for (const char* zone : {kBerlin, "UTC0", "JST-9", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"}) {
      SCOPED_TRACE(zone);
      const Zone scope(zone);
      clock_.Set(change + 59);
      EXPECT_FALSE(IsExpired());
      clock_.Set(change + 60);
      EXPECT_TRUE(IsExpired());
    }
  }
}

// Beyond what 32 bits hold a claim's age cannot be told: the look-up fails, and nothing throws.
TEST_F(ShareSnapUsageCalClock, YearsFarAheadFailInOrder) {
  clock_.Set(time_t{1} << 32);
  ShareSnapUsageCal calculation;
  EXPECT_EQ(0, calculation.CreateTask("photos"));
  std::string id;
  bool expired = false;
  EXPECT_EQ(1, ShareSnapUsageCal::FindTaskID("photos", id, expired));
  EXPECT_FALSE(IsFree());
  ShareSnapUsageCal::CleanAll("photos");
  EXPECT_EQ(8, ShareSnapUsageCal::FindTaskID("photos", id, expired));
  EXPECT_TRUE(IsFree());
}

// ---- Launches and status ------------------------------------------------------------------------

class ShareSnapUsageCalClockLaunch : public VolumeTest {
 protected:
  // Calculates photos within a range; gives the subvolume IDs of the result.
  std::vector<unsigned long long> Calculate(const time_t* start, const time_t* end) {
    ShareSnapUsageCal calculation;
    EXPECT_EQ(0, calculation.CreateTask("photos"));
    EXPECT_EQ(0, calculation.Launch(start, end));
    EXPECT_EQ(0, WaitForCalculator());
    std::vector<unsigned long long> ids;
    EXPECT_EQ(0, ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids));
    return ids;
  }

  static unsigned long long ID(const char* snapshot) {
    return SubvolumeID(SnapPath("photos", snapshot));
  }
};

// "Until now" is what the clock says: snapshots that it has not come to are left out.
TEST_F(ShareSnapUsageCalClockLaunch, WithoutARangeItEndsAtTheClock) {
  Clock clock(kSecondTime + 1);
  EXPECT_THAT(Calculate(nullptr, nullptr), ElementsAre(ID(kFirst), ID(kSecond)));
  clock.Set(kThirdTime + kYear);
  EXPECT_THAT(Calculate(nullptr, nullptr), ElementsAre(ID(kFirst), ID(kSecond), ID(kThird)));
}

// The range becomes names with the zone of the caller; those of the snapshots have their own.
TEST_F(ShareSnapUsageCalClockLaunch, RangeIsTheSameInEveryZone) {
  for (const char* zone : {kBerlin, "UTC0", "JST-9", "NST3:30"}) {
    SCOPED_TRACE(zone);
    const Zone scope(zone);
    EXPECT_THAT(Calculate(&kSecondTime, &kThirdTime), ElementsAre(ID(kSecond), ID(kThird)));
  }
}

// The child goes on in the zone in which it was forked; who reads in another reads another time.
TEST_F(ShareSnapUsageCalClockLaunch, StatusTimesAreOfTheZoneOfTheirWriter) {
  const time_t before = time(nullptr);
  {
    const Zone scope("JST-9");
    (void)Calculate(nullptr, nullptr);
  }
  ShareTaskStatus status;
  ASSERT_TRUE(status.Init("photos", false));
  time_t started = 0;
  {
    const Zone scope("JST-9");
    EXPECT_EQ(0, status.GetStatusTimeAttr(TASKSTATUS_ATTR_START_TIME, started));
    EXPECT_GE(started, before);
    EXPECT_LE(started, time(nullptr));
  }
  const Zone scope("UTC0");
  time_t read = 0;
  EXPECT_EQ(0, status.GetStatusTimeAttr(TASKSTATUS_ATTR_START_TIME, read));
  EXPECT_EQ(started + 9 * kHour, read);
}

TEST_F(ShareSnapUsageCalClockLaunch, CalculationAcrossAJumpBackEndsBeforeItStartedAndIsDone) {
  // The clock is set back while the command runs, which has left a file by then.
  std::filesystem::remove(kCalledWith);
  PlatformHook<time_t(time_t*)> hook("time");
  hook.Replace([](time_t* out) {
    const time_t now = std::filesystem::exists(kCalledWith) ? kNow - kYear : kNow;
    if (out != nullptr) *out = now;
    return now;
  });
  const time_t start = 0, end = kNow;
  EXPECT_EQ(3u, Calculate(&start, &end).size());
  EXPECT_EQ("done", ShareStatus("photos", "status"));
  EXPECT_LT(ShareStatus("photos", "end_time"), ShareStatus("photos", "start_time"));
}
