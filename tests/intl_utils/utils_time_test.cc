// Time texts and snapshot names in several zones.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

// 2024-03-05 12:00:00 UTC
constexpr time_t kNoon = 1709640000;

// Its text in local time; a POSIX zone text names the hours to add for UTC: "XXX-1" is +01:00.
const struct {
  const char* zone;
  const char* text;
} kNoons[] = {
    {"UTC", "2024.03.05-12.00.00"},
    {"XXX-1", "2024.03.05-13.00.00"},
    {"XXX+3:30", "2024.03.05-08.30.00"},
};

// Sets TZ for one scope.
class ScopedZone {
 public:
  explicit ScopedZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedZone() {
    unsetenv("TZ");
    tzset();
  }
  ScopedZone(const ScopedZone&) = delete;
  ScopedZone& operator=(const ScopedZone&) = delete;
};

class UtilsTimeStringToTime_T : public UtilsTest {};
class UtilsTime_tToTimeString : public UtilsTest {};
class UtilsNowTimeStringGet : public UtilsTest {};

class UtilsSnapNameGenerateByTime : public UtilsTest {
 protected:
  std::string Name(long t, BOOL local) {
    char buf[64] = "";
    EXPECT_EQ(0, Utils::SnapNameGenerateByTime(buf, sizeof buf, t, local));
    return buf;
  }
};

}  // namespace

TEST_F(UtilsTimeStringToTime_T, ThereAndBackInOneZone) {
  for (const char* zone : {"UTC", "XXX-1", "XXX+3:30", "Europe/Berlin", "Asia/Kolkata"}) {
    SCOPED_TRACE(zone);
    const ScopedZone scope(zone);
    time_t t = 0;
    std::string text;
    EXPECT_TRUE(Utils::TimeStringToTime_T("2024.03.05-17.04.09", t));
    EXPECT_TRUE(Utils::Time_tToTimeString(t, text));
    EXPECT_EQ("2024.03.05-17.04.09", text);
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsTimeStringToTime_T, ReadsLocalTime) {
  for (const auto& c : kNoons) {
    SCOPED_TRACE(c.zone);
    const ScopedZone scope(c.zone);
    time_t t = 0;
    EXPECT_TRUE(Utils::TimeStringToTime_T(c.text, t));
    EXPECT_EQ(kNoon, t);
  }
}

TEST_F(UtilsTimeStringToTime_T, DaylightSavingIsTheZonesToTell) {
  // Summer time from the last Sunday of March to the last of October.
  const ScopedZone scope("CET-1CEST,M3.5.0,M10.5.0/3");
  time_t t = 0;
  EXPECT_TRUE(Utils::TimeStringToTime_T("2024.07.01-14.00.00", t));
  EXPECT_EQ(1719835200, t);  // 12:00 UTC
  EXPECT_TRUE(Utils::TimeStringToTime_T("2024.01.01-13.00.00", t));
  EXPECT_EQ(1704110400, t);  // 12:00 UTC
  std::string text;
  EXPECT_TRUE(Utils::Time_tToTimeString(1719835200, text));
  EXPECT_EQ("2024.07.01-14.00.00", text);
}

// Texts have no zone: of an hour that comes twice one is taken, of one that is skipped a time of
// the hour before or behind it. Nothing fails, and everything else comes back as it was.
TEST_F(UtilsTimeStringToTime_T, HoursThatComeTwiceOrNeverAreTimesToo) {
  const ScopedZone scope("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr time_t kSpring = 1711846800;  // 2024-03-31 01:00 UTC: 02:00 becomes 03:00
  constexpr time_t kAutumn = 1729990800;  // 2024-10-27 01:00 UTC: 03:00 becomes 02:00
  time_t t = 0;
  EXPECT_TRUE(Utils::TimeStringToTime_T("2024.10.27-02.30.00", t));
  EXPECT_TRUE(t == kAutumn - 1800 || t == kAutumn + 1800) << t;
  EXPECT_TRUE(Utils::TimeStringToTime_T("2024.03.31-02.30.00", t));
  EXPECT_TRUE(t == kSpring - 1800 || t == kSpring + 1800) << t;
  for (const time_t change : {kSpring, kAutumn}) {
    for (const time_t distance : {-7200, -3601, 3600, 7200}) {
      SCOPED_TRACE(change + distance);
      std::string text;
      EXPECT_TRUE(Utils::Time_tToTimeString(change + distance, text));
      EXPECT_TRUE(Utils::TimeStringToTime_T(text, t));
      EXPECT_EQ(change + distance, t);
    }
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsTimeStringToTime_T, AnotherFormFailsAndIsLogged) {
  time_t t = 7;
  EXPECT_FALSE(Utils::TimeStringToTime_T("2024-03-05 17:04:09", t));
  EXPECT_EQ(7, t);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_EQ(1, Logged(LOG_ERR,
                      "Failed to convert cstring time [2024-03-05 17:04:09] to strcut tm, "
                      "err=Invalid argument"))
      << log.Dump();
}

TEST_F(UtilsTimeStringToTime_T, TextsThatAreNoTime) {
  for (const char* text :
       {"", "2024", "2024.03.05", "2024.13.05-17.04.09", "2024.03.32-17.04.09",
        "2024.03.05-24.04.09", "2024.03.05-17.60.09", "2024.03.05-17.04", "now", "-1"}) {
    SCOPED_TRACE(text);
    PLATCErrSetEx(0, "", 0);
    log.Clear();
    time_t t = 7;
    EXPECT_FALSE(Utils::TimeStringToTime_T(text, t));
    EXPECT_EQ(7, t);
    EXPECT_EQ(0x2A00u, PLATCErrGet());
    EXPECT_EQ(1, log.Count(std::string("Failed to convert cstring time [") + text + "]"));
  }
}

TEST_F(UtilsTimeStringToTime_T, TextBehindTheTimeIsNotLookedAt) {
  const ScopedZone scope("UTC");
  time_t t = 0;
  EXPECT_TRUE(Utils::TimeStringToTime_T("2024.03.05-12.00.00 and more", t));
  EXPECT_EQ(kNoon, t);
}

TEST_F(UtilsTimeStringToTime_T, TheSecondBeforeTheEpochIsNoTime) {
  const ScopedZone scope("UTC");
  time_t t = 7;
  EXPECT_FALSE(Utils::TimeStringToTime_T("1969.12.31-23.59.59", t));
  EXPECT_EQ(7, t);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  EXPECT_TRUE(Utils::TimeStringToTime_T("1969.12.31-23.59.58", t));
  EXPECT_EQ(-2, t);
}

TEST_F(UtilsTime_tToTimeString, WritesLocalTime) {
  for (const auto& c : kNoons) {
    SCOPED_TRACE(c.zone);
    const ScopedZone scope(c.zone);
    std::string text = "old";
    EXPECT_TRUE(Utils::Time_tToTimeString(kNoon, text));
    EXPECT_EQ(c.text, text);
  }
}

TEST_F(UtilsTime_tToTimeString, AChangedZoneIsSeenAtOnce) {
  const ScopedZone scope("UTC");
  setenv("TZ", "XXX-1", 1);  // and nobody calls tzset
  std::string text;
  EXPECT_TRUE(Utils::Time_tToTimeString(kNoon, text));
  EXPECT_EQ("2024.03.05-13.00.00", text);
}

TEST_F(UtilsTime_tToTimeString, AYearThatIsTooLargeFails) {
  std::string text = "old";
  EXPECT_FALSE(Utils::Time_tToTimeString(LONG_MAX, text));
  EXPECT_EQ("old", text);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
}

TEST_F(UtilsNowTimeStringGet, IsTheTimeTextOfNow) {
  std::string text;
  const time_t before = time(nullptr);
  ASSERT_TRUE(Utils::NowTimeStringGet(text));
  const time_t after = time(nullptr);
  time_t told = 0;
  ASSERT_TRUE(Utils::TimeStringToTime_T(text, told));
  EXPECT_LE(before, told);
  EXPECT_LE(told, after);
}

TEST_F(UtilsNowTimeStringGet, NoClockFails) {
  PlatformHook<time_t(time_t*)> clock("time");
  // Only the library's own question fails: syslog and the tests look at the clock, too.
  clock.FailsOnCall(1);
  std::string text = "old";
  EXPECT_FALSE(Utils::NowTimeStringGet(text));
  EXPECT_EQ("old", text);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
}

TEST_F(UtilsNowTimeStringGet, ATimeWithoutTextFails) {
  PlatformHook<struct tm*(const time_t*, struct tm*)> broken("localtime_r");
  broken.FailsOnCall(1);
  std::string text = "old";
  EXPECT_FALSE(Utils::NowTimeStringGet(text));
  EXPECT_EQ("old", text);
  EXPECT_EQ(0x2A00u, PLATCErrGet());
}

TEST_F(UtilsSnapNameGenerateByTime, EastOfGreenwich) {
  const ScopedZone scope("XXX-1");
  EXPECT_EQ("GMT+01-2024.03.05-13.00.00", Name(kNoon, 1));
  EXPECT_EQ("GMT-2024.03.05-12.00.00", Name(kNoon, 0));
}

TEST_F(UtilsSnapNameGenerateByTime, WestOfGreenwichWithMinutes) {
  const ScopedZone scope("XXX+3:30");
  EXPECT_EQ("GMT-0330-2024.03.05-08.30.00", Name(kNoon, 1));
  EXPECT_EQ("GMT-2024.03.05-12.00.00", Name(kNoon, 0));
}

TEST_F(UtilsSnapNameGenerateByTime, EveryFormOfZone) {
  const struct {
    const char* zone;
    const char* name;
  } kCases[] = {
      {"UTC", "GMT+00-2024.03.05-12.00.00"},        {"XXX-8", "GMT+08-2024.03.05-20.00.00"},
      {"XXX+8", "GMT-08-2024.03.05-04.00.00"},      {"XXX-5:30", "GMT+0530-2024.03.05-17.30.00"},
      {"XXX-5:45", "GMT+0545-2024.03.05-17.45.00"}, {"XXX-14", "GMT+14-2024.03.06-02.00.00"},
      {"XXX+12", "GMT-12-2024.03.05-00.00.00"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.zone);
    const ScopedZone scope(c.zone);
    EXPECT_EQ(c.name, Name(kNoon, 1));
  }
}

TEST_F(UtilsSnapNameGenerateByTime, SummerTimeHasItsOwnZone) {
  const ScopedZone scope("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ("GMT+02-2024.07.01-14.00.00", Name(1719835200, 1));
  EXPECT_EQ("GMT+01-2024.01.01-13.00.00", Name(1704110400, 1));
}

TEST_F(UtilsSnapNameGenerateByTime, TheHourThatComesTwiceHasTwoNames) {
  const ScopedZone scope("CET-1CEST,M3.5.0,M10.5.0/3");
  char name[64];
  EXPECT_EQ(0, Utils::SnapNameGenerateByTime(name, sizeof name, 1729989000, 1));
  EXPECT_STREQ("GMT+02-2024.10.27-02.30.00", name);
  EXPECT_EQ(0, Utils::SnapNameGenerateByTime(name, sizeof name, 1729992600, 1));
  EXPECT_STREQ("GMT+01-2024.10.27-02.30.00", name);
}

TEST_F(UtilsSnapNameGenerateByTime, OnlyOneIsLocal) {
  const ScopedZone scope("XXX-1");
  for (const BOOL local : {0, 2, -1, 256}) {
    SCOPED_TRACE(local);
    EXPECT_EQ("GMT-2024.03.05-12.00.00", Name(kNoon, local));
  }
}

TEST_F(UtilsSnapNameGenerateByTime, AChangedZoneIsSeenAtOnce) {
  const ScopedZone scope("UTC");
  setenv("TZ", "XXX-1", 1);
  EXPECT_EQ("GMT+01-2024.03.05-13.00.00", Name(kNoon, 1));
}

TEST_F(UtilsSnapNameGenerateByTime, ThePlatformReadsTheNamesBack) {
  for (const char* zone : {"UTC", "XXX-8", "XXX-5:30", "XXX+3:30"}) {
    SCOPED_TRACE(zone);
    const ScopedZone scope(zone);
    for (const BOOL local : {0, 1}) {
      time_t back = 0;
      EXPECT_GE(ZORVShareSnapTimeGet(Name(kNoon, local).c_str(), &back), 0);
      EXPECT_EQ(kNoon, back);
    }
  }
}

TEST_F(UtilsSnapNameGenerateByTime, NullBufferIsInvalid) {
  EXPECT_EQ(-1, Utils::SnapNameGenerateByTime(nullptr, 64, kNoon, 1));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSnapNameGenerateByTime, AYearThatIsTooLargeFails) {
  for (const BOOL local : {0, 1}) {
    SCOPED_TRACE(local);
    PLATCErrSetEx(0, "", 0);
    char buf[64] = "old";
    EXPECT_EQ(-1, Utils::SnapNameGenerateByTime(buf, sizeof buf, LONG_MAX, local));
    EXPECT_EQ(0x2A00u, PLATCErrGet());
    EXPECT_STREQ("old", buf);
  }
}

TEST_F(UtilsSnapNameGenerateByTime, ABufferThatIsTooSmallIsNotReported) {
  char buf[64];
  for (const BOOL local : {0, 1}) {
    for (const unsigned long size : {0ul, 1ul, 10ul}) {
      SCOPED_TRACE(size);
      memset(buf, '#', sizeof buf);
      EXPECT_EQ(0, Utils::SnapNameGenerateByTime(buf, size, kNoon, local));
      EXPECT_EQ('#', buf[size]);  // nothing is written behind its end
    }
  }
  EXPECT_EQ(0u, PLATCErrGet());
}

TEST_F(UtilsSnapNameGenerateByTime, ABufferThatJustFits) {
  const std::string name = "GMT-2024.03.05-12.00.00";
  char buf[64];
  EXPECT_EQ(0, Utils::SnapNameGenerateByTime(buf, name.size() + 1, kNoon, 0));
  EXPECT_EQ(name, buf);
}
