// A calculation that goes on for longer than its claim of the share: the library would let the
// share be taken over, the program does not, nor does it take it for a dead one.
#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/support/waits_for_lock.h"

using namespace ZorvTest;

namespace {

class LongRun : public CliWorld {
 protected:
  // A calculation of photos that stands in its engine, and whose claim has run out.
  void StartLongAgo() {
    WaitingEngine();
    MustRun(Argv({"start", "photos"}));
    ASSERT_TRUE(EngineWaits());
    // The calculation's first progress names its process in the share's record, just before or
    // after the engine waits; until then the process before it may stand there.
    const std::string pid = std::to_string(CalculatorPid());
    ASSERT_TRUE(
        WaitUntil([&] { return ParseJson(ReadFile(kStatusOfPhotos))["pid"].asString() == pid; }));
    EditJson(kMap, {"photos", "time"}, 1);
  }

  static std::string TaskRecord() {
    const std::string id = ParseJson(ReadFile(kMap))["photos"]["task_id"].asString();
    return "/run/zorvbtrfssnapusage/task_status/" + id;
  }

  // Neither another run nor a removal touches it, and its result is not lost.
  void ExpectItIsLeftAlone() {
    EXPECT_EQ(4, Tool({"run", "photos"}).status);
    EXPECT_EQ(4, Tool({"start", "photos"}).status);
    const CommandResult clean = Tool({"clean", "photos"});
    EXPECT_EQ(4, clean.status);
    EXPECT_THAT(clean.err, HasSubstr("was kept: a calculation of it is under way"));
    EXPECT_EQ(4, Tool({"clean", "--all"}).status);
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         " + std::to_string(CalculatorPid())));
    Release();
    ASSERT_TRUE(Settled());
    EXPECT_EQ(3u, Shown()["snapshots"].size());
  }

  // What stop does, waiting for the engine's next line.
  void ExpectItCanBeStopped() {
    Background stop(Argv({"stop", "photos"}));
    ASSERT_TRUE(StopArrives());
    Release();
    const CommandResult result = stop.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("ended the calculation of share 'photos': state stop\n", result.out);
  }
};

}  // namespace

TEST_F(LongRun, IsLeftAlone) {
  StartLongAgo();
  ExpectItIsLeftAlone();
}

TEST_F(LongRun, CanBeStopped) {
  StartLongAgo();
  ExpectItCanBeStopped();
}

// The number of its process is then in the share's record alone.
TEST_F(LongRun, WithoutARecordOfItsTaskIsLeftAlone) {
  StartLongAgo();
  std::filesystem::remove(TaskRecord());
  ExpectItIsLeftAlone();
}

TEST_F(LongRun, WithADamagedRecordOfItsTaskIsLeftAlone) {
  for (const char* damaged : {"", "{\"pid\":", "{\"processed_in_bytes\":\"4096\"}"}) {
    SCOPED_TRACE(damaged);
    StartLongAgo();
    WriteFile(TaskRecord(), damaged);
    ExpectItIsLeftAlone();
  }
}

TEST_F(LongRun, WithoutARecordOfItsTaskCanBeStopped) {
  StartLongAgo();
  std::filesystem::remove(TaskRecord());
  ExpectItCanBeStopped();
}

// For a moment after a launch the share's record still has the number of the task before.
TEST_F(LongRun, NumberInTheShareAloneIsNotTakenWhileTheClaimIsYoung) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  ASSERT_LT(0, CalculatorPid());
  WriteFile(TaskRecord(), "{\"status\":\"process\"}");
  EXPECT_THAT(MustRun(Argv({"status", "photos"})), Not(HasSubstr("process:")));
  EXPECT_EQ(4, Tool({"clean", "photos"}).status) << "it may be about to begin";
  Release();
}

// A launch by another copy of the program, or a claim through the library, is between the look at
// the share and its own record.
TEST_F(LongRun, CleanWaitsForThoseWhoClaimAShare) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  for (const char* path :
       {"/run/zorv-snapusage.lock", "/run/lock/zorvbtrfssnapusage/share_task/photos.lock"}) {
    SCOPED_TRACE(path);
    auto held = std::make_unique<HeldLock>(path);
    Background clean(Argv({"clean", "photos"}));
    ASSERT_TRUE(clean.HasSaid("zorv-snapusage: waiting for "));
    EXPECT_EQ("", clean.Out());
    EXPECT_TRUE(std::filesystem::exists(kStatusOfPhotos));
    held.reset();
    EXPECT_EQ(0, clean.Wait().status);
    EXPECT_FALSE(std::filesystem::exists(kStatusOfPhotos));
    FakeEngine(kAnswer);
    MustRun(Argv({"run", "photos", "--quiet"}));
  }
}

// It was done when it was looked at, and is claimed anew by the time that the share's lock is free.
TEST_F(LongRun, CleanJudgesUnderTheLockOfTheShare) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  auto held = std::make_unique<HeldLock>("/run/lock/zorvbtrfssnapusage/share_task/photos.lock");
  Background clean(Argv({"clean", "--all"}));
  ASSERT_TRUE(WaitUntil([&] { return WaitsForLock(clean.Pid()); }));
  EditJson(kStatusOfPhotos, {"status"}, "process");
  held.reset();
  EXPECT_EQ(4, clean.Wait().status);
  EXPECT_TRUE(std::filesystem::exists(kStatusOfPhotos));
}
