// `stop`: asks until the state is final.
#include <signal.h>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

using CmdStop = CliWorld;

TEST_F(CmdStop, WaitsForTheFinalState) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Background stop(Argv({"stop", "photos"}));
  ASSERT_TRUE(StopArrives());
  EXPECT_EQ("", stop.Out()) << "the engine has not said a word since";
  Release();
  const CommandResult result = stop.Wait();
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("ended the calculation of share 'photos': state stop\n", result.out);
  EXPECT_EQ("12", ParseJson(ReadFile(kStatusOfPhotos))["error_code"].asString());
}

TEST_F(CmdStop, NothingToStopAfterTheEnd) {
  MustRun(Argv({"run", "photos"}));
  EXPECT_EQ("nothing to stop, share 'photos': state done\n", MustRun(Argv({"stop", "photos"})));
}

TEST_F(CmdStop, NoCalculationRecorded) { EXPECT_EQ(10, Tool({"stop", "photos"}).status); }

TEST_F(CmdStop, EarlierResultIsKept) {
  MustRun(Argv({"run", "photos"}));
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Background stop(Argv({"stop", "photos"}));
  ASSERT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(0, stop.Wait().status);
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdStop, KilledCalculation) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  kill(CalculatorPid(), SIGKILL);
  const CommandResult result = Tool({"stop", "photos"});
  EXPECT_EQ(11, result.status);
  EXPECT_THAT(result.err, HasSubstr("its process is gone"));
}

TEST_F(CmdStop, GivesUpAfterHalfAMinute) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const CommandResult result = Tool({"stop", "photos"});
  EXPECT_EQ(14, result.status);
  EXPECT_EQ(
      "zorv-snapusage: the calculation of share 'photos' did not stop within 30 seconds, its state "
      "is process; look again with: zorv-snapusage status photos\n",
      result.err);
}

}  // namespace
