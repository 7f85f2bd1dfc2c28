// `start`: the calculation goes on without the program.
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

using CmdStart = CliWorld;

TEST_F(CmdStart, ReturnsAtOnce) {
  WaitingEngine();
  const CommandResult result = Tool({"start", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("started the calculation of 3 snapshots of share 'photos'\n", result.out);
  EXPECT_EQ("", result.err);
  ASSERT_TRUE(EngineWaits());
  Release();
  EXPECT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdStart, HoldsNoPipeOfItsCaller) {
  WaitingEngine();
  const std::string command =
      std::string("said=$(") + ZORV_CLI_PATH + " start photos 2>&1); echo $said";
  EXPECT_EQ("started the calculation of 3 snapshots of share 'photos'\n",
            MustRun({"timeout", "10", "bash", "-c", command}));
  EXPECT_TRUE(EngineWaits());
}

TEST_F(CmdStart, CallerThatIgnoresItsChildren) {
  const std::string tool = std::string("trap '' CHLD; exec ") + ZORV_CLI_PATH;
  EXPECT_THAT(MustRun({"bash", "-c", tool + " start photos"}), HasSubstr("started"));
  ASSERT_TRUE(Settled());
  EXPECT_THAT(MustRun({"bash", "-c", tool + " run photos"}), HasSubstr("by hand\n"));
}

TEST_F(CmdStart, CallerWithoutStandardStreams) {
  const std::string start = std::string(ZORV_CLI_PATH) + " start photos <&- >&- 2>&-";
  EXPECT_EQ(1, ZorvTest::Run({"bash", "-c", start}).status) << "what it says cannot be written";
  ASSERT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdStart, TakesTheSameSelectionAsRun) {
  EXPECT_EQ("started the calculation of 1 snapshots of share 'photos'\n",
            MustRun(Argv({"start", "photos", "--until", "2024-03-01"})));
  ASSERT_TRUE(Settled());
  EXPECT_EQ(kFirst, Shown()["snapshots"][0]["name"].asString());
}

}  // namespace
