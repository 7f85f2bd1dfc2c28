// The clock jumps and the time zone changes between the commands and in the middle of a run.
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

constexpr long kHour = 3600;
constexpr long kYear = 365 * 24 * kHour;

class ClockJumps : public CliWorld {
 protected:
  ClockJumps() { SetClock(0); }

  // So many seconds ahead of the machine's, for all that runs and for what is yet to start.
  static void SetClock(long ahead) {
    WriteFile(std::string(kShift) + ".new", std::to_string(ahead));
    std::filesystem::rename(std::string(kShift) + ".new", kShift);
  }

  // The program's command line under that clock, and in a time zone.
  static std::vector<std::string> Under(const std::vector<std::string>& words,
                                        const std::string& zone = "UTC0") {
    std::vector<std::string> argv = {"env", "TZ=" + zone, std::string("ZORV_CLOCK_SHIFT=") + kShift,
                                     "ASAN_OPTIONS=verify_asan_link_order=0",
                                     "LD_PRELOAD=" ZORV_SHIFTED_CLOCK_PATH};
    for (const std::string& word : Argv(words)) argv.push_back(word);
    return argv;
  }

  static std::string Status(const std::string& zone = "UTC0") {
    return MustRun(Under({"status", "photos"}, zone));
  }

  // Starts a calculation, which goes on until Release.
  static void StartAndHold(const std::string& zone = "UTC0") {
    WaitingEngine();
    MustRun(Under({"start", "photos"}, zone));
    ASSERT_TRUE(EngineWaits());
  }

  static void KillCalculator() {
    const pid_t pid = CalculatorPid();
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_TRUE(WaitUntil([&] { return kill(pid, 0) != 0; }));
    Release();
  }

  // As a caller leaves a share that is killed between its claim and its launch.
  static void LeaveUnbegunClaim() {
    StartAndHold();
    KillCalculator();
    EditJson(kStatusOfPhotos, {"status"}, "ready");
    const std::string task = ParseJson(ReadFile(kMap))["photos"]["task_id"].asString();
    WriteFile("/run/zorvbtrfssnapusage/task_status/" + task, R"({"status":"ready"})");
  }

  static std::string TextOf(time_t t) {
    char text[32];
    tm fields;
    return std::string(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M", gmtime_r(&t, &fields)));
  }

  static constexpr char kShift[] = "/tmp/clock-shift";
};

TEST_F(ClockJumps, StartLaterThanNowIsSaid) {
  SetClock(kHour);
  const time_t begin = time(nullptr) + kHour;
  StartAndHold();
  SetClock(0);
  const std::string text = Status();
  EXPECT_THAT(text, ContainsRegex("started:         [-0-9: ]{19} \\(later than now\\)\n"));
  EXPECT_THAT(text, ContainsRegex("process:         [0-9]+\n"));
  EXPECT_THAT(text, HasSubstr("clock:           was set back after the calculation was asked for, "
                              "at " +
                              TextOf(begin).substr(0, 10)));
  Release();
  EXPECT_TRUE(Settled());
}

TEST_F(ClockJumps, RunGoesOnWhateverTheClockDoes) {
  for (const long jump : {kHour, -kHour, kYear, -kYear}) {
    SCOPED_TRACE(jump);
    SetClock(0);
    WaitingEngine();
    Background run(Under({"run", "photos", "--raw"}));
    ASSERT_TRUE(EngineWaits());
    SetClock(jump);
    Release();
    const CommandResult result = run.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_THAT(result.err, Not(HasSubstr(", -")));  // an elapsed time before zero
    const std::string text = Status();
    EXPECT_THAT(text, HasSubstr("state:           done\n"));
    if (jump < 0) {
      EXPECT_THAT(text, ContainsRegex("ended:           [-0-9: ]{19} \\(before it started\\)\n"));
      EXPECT_THAT(text, HasSubstr("clock:           was set back"));
    } else {
      EXPECT_THAT(text, Not(HasSubstr("clock:")));
    }
  }
}

// To the library the share is free from two minutes on.
TEST_F(ClockJumps, ForwardJumpDoesNotLetARunningCalculationBeTakenOver) {
  StartAndHold();
  SetClock(kHour);
  const CommandResult result = ZorvTest::Run(Under({"run", "photos"}));
  EXPECT_EQ(4, result.status);
  EXPECT_THAT(result.err, HasSubstr("is busy"));
  Release();
  EXPECT_TRUE(Settled());
}

TEST_F(ClockJumps, StopDoesNotMindThem) {
  for (const long jump : {kYear, -kYear}) {
    SCOPED_TRACE(jump);
    SetClock(0);
    StartAndHold();
    SetClock(jump);
    Background stop(Under({"stop", "photos"}));
    ASSERT_TRUE(StopArrives());
    Release();
    EXPECT_EQ(0, stop.Wait().status);
    MustRun(Under({"clean", "photos"}));
  }
}

TEST_F(ClockJumps, KilledCalculationFromTheFutureIsToldAndCanBeCleaned) {
  SetClock(kYear);
  const time_t begin = time(nullptr) + kYear;
  StartAndHold();
  KillCalculator();
  SetClock(0);
  const CommandResult refused = ZorvTest::Run(Under({"run", "photos"}));
  EXPECT_EQ(4, refused.status);
  EXPECT_THAT(refused.err, ContainsRegex("the last calculation of share 'photos' was killed, and "
                                         "holds the share until two minutes after [-0-9: ]{19}, "
                                         "for the clock was set back since; wait, or remove"));
  EXPECT_THAT(refused.err, HasSubstr(TextOf(begin).substr(0, 10)));
  MustRun(Under({"clean", "photos"}));
  FakeEngine(kAnswer);
  MustRun(Under({"run", "photos"}));
}

// A machine whose clock has lost the time comes up in the past. The claim was taken for one that
// is about to be launched, for as long as the clock was behind it: nothing ended or removed it.
TEST_F(ClockJumps, ClaimFromTheFutureIsNotUnderWayAfterAReboot) {
  SetClock(kYear);
  StartAndHold();
  KillCalculator();
  std::filesystem::remove_all("/run/zorvbtrfssnapusage");
  std::filesystem::remove_all("/run/lock/zorvbtrfssnapusage");
  SetClock(0);
  EXPECT_THAT(Status(), HasSubstr("gone without a result"));
  EXPECT_THAT(Status(), HasSubstr("clock:           was set back"));
  EXPECT_NE(0, ZorvTest::Run(Under({"stop", "photos"})).status);
  MustRun(Under({"clean", "photos"}));
}

TEST_F(ClockJumps, ClaimThatNeverBeganIsToldAndCanBeCleaned) {
  SetClock(kYear);
  LeaveUnbegunClaim();
  SetClock(0);
  const CommandResult refused = ZorvTest::Run(Under({"run", "photos"}));
  EXPECT_EQ(4, refused.status);
  EXPECT_THAT(refused.err, HasSubstr("never began, and holds the share until two minutes after"));
  MustRun(Under({"clean", "photos"}));
}

// A clock that is being corrected is a little behind; the launch may be on its way.
TEST_F(ClockJumps, ClaimALittleAheadIsUnderWay) {
  SetClock(60);
  LeaveUnbegunClaim();
  SetClock(0);
  const CommandResult kept = ZorvTest::Run(Under({"clean", "photos"}));
  EXPECT_EQ(4, kept.status);
  EXPECT_THAT(kept.err, HasSubstr("a calculation of it is under way"));
  EXPECT_THAT(Status(), Not(HasSubstr("clock:           was set back after")));
  SetClock(kHour);
  MustRun(Under({"clean", "photos"}));
}

TEST_F(ClockJumps, ResultFromTheFutureIsNoted) {
  MustRun(Under({"run", "photos"}));
  EXPECT_EQ("", ZorvTest::Run(Under({"show", "photos"})).err);
  SetClock(-kHour);
  const CommandResult shown = ZorvTest::Run(Under({"show", "photos"}));
  EXPECT_EQ(0, shown.status);
  EXPECT_EQ(
      "zorv-snapusage: note: the clock was set back since this result was calculated\n"
      "zorv-snapusage: note: metadata, with older and new of 3 of 3 snapshots are left out: no "
      "table is of the state that was calculated; get them with: zorv-snapusage run photos\n",
      shown.err)
      << "nobody knows when its table was read";
}

TEST_F(ClockJumps, SnapshotsFromTheFutureAreMeasured) {
  SetClock(-30 * kYear);
  EXPECT_EQ(0, ZorvTest::Run(Under({"run", "photos"})).status);
  EXPECT_EQ(3u, Shown()["snapshots"].size());
  // So they are by a range without an end.
  EXPECT_EQ(0, ZorvTest::Run(Under({"run", "photos", "--since", "2024-03-01"})).status);
  EXPECT_EQ(2u, Shown()["snapshots"].size());
}

TEST_F(ClockJumps, RecordOfAnotherTimeZoneIsSaid) {
  StartAndHold("JST-9");
  const std::string text = Status("UTC0");
  EXPECT_THAT(text, HasSubstr(" (later than now)\n"));
  EXPECT_THAT(text, HasSubstr("clock:           was set back, as at the end of summer time, or was "
                              "of another time zone\n"));
  EXPECT_THAT(Status("JST-9"), Not(HasSubstr("clock:")));
  Release();
  EXPECT_TRUE(Settled());
}

// Names carry their zone: whichever the caller has, the same snapshots are meant.
TEST_F(ClockJumps, RangeIsOfTheCallersZone) {
  const struct {
    const char* zone;
    const char* since;
  } kCases[] = {{"UTC0", "2024-03-02 09:04:09"},
                {"JST-9", "2024-03-02 18:04:09"},
                {"NST3:30", "2024-03-02 05:34:09"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.zone);
    EXPECT_EQ(0, ZorvTest::Run(Under({"run", "photos", "--since", c.since}, c.zone)).status);
    ASSERT_EQ(1u, Shown()["snapshots"].size());
    EXPECT_EQ(kSecond, Shown()["snapshots"][0]["name"].asString());
  }
}

}  // namespace
