// Progress of `run`: redrawn in a terminal, plain lines elsewhere; Ctrl-C.
#include <signal.h>

#include <algorithm>
#include <set>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

using CmdRunProgress = CliWorld;

constexpr Background::Terminal kWide = {100};
constexpr char kRedraw[] = "\r\x1b[K";
constexpr char kAsked[] =
    "zorv-snapusage: asked the calculation to stop, waiting for it (Ctrl-C again leaves at once)";

TEST_F(CmdRunProgress, PlainLinesOnAPipe) {
  WaitingEngine("echo 'processed 1280 bytes'; echo 'exclusive 2048 bytes'");
  Background run(Argv({"run", "photos"}));
  ASSERT_TRUE(run.HasSaid("process: read 1.25 KiB, exclusive so far 2.00 KiB, 0:0")) << run.Err();
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.err, Not(HasSubstr("\r")));
  EXPECT_THAT(result.err, HasSubstr("  photos\n"));
  EXPECT_THAT(result.out, HasSubstr("EXCLUSIVE")) << "the result alone is on standard output";
  EXPECT_THAT(result.out, Not(HasSubstr("process:")));
}

TEST_F(CmdRunProgress, OneLineEveryFewSecondsOnAPipe) {
  WaitingEngine();
  const double begin = Seconds();
  Background run(Argv({"run", "photos"}));
  const auto lines = [&run] {
    const std::string text = run.Err();
    return std::count(text.begin(), text.end(), '\n');
  };
  ASSERT_TRUE(WaitUntil([&] { return lines() >= 2; })) << run.Err();
  const auto shown = static_cast<double>(lines());
  EXPECT_LE((shown - 1) * 5, Seconds() - begin) << run.Err();
}

TEST_F(CmdRunProgress, RedrawnInATerminal) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(run.HasSaid(std::string(kRedraw) + "process: read 4.00 KiB")) << run.Out();
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(0, result.status);
  const size_t table = result.out.find("share photos, calculated");
  ASSERT_NE(std::string::npos, table) << result.out;
  EXPECT_EQ(std::string::npos, result.out.substr(0, table).find('\n')) << "one line, redrawn";
  EXPECT_EQ(kRedraw, result.out.substr(table - 4, 4)) << "and taken away before the result";
}

TEST_F(CmdRunProgress, LineIsCutToTheTerminal) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}), Background::Terminal{20});
  ASSERT_TRUE(run.HasSaid(std::string(kRedraw) + "process: read 4.00 \r")) << run.Out();
}

class CmdRunEstimate : public CliWorld {
 protected:
  // The estimate, and an engine that stands still when it has read 4096 bytes.
  static void EstimateOf(const std::string& answer) {
    estimate_ = answer;
    WaitingEngine();
  }
};

TEST_F(CmdRunEstimate, BarWithPercent) {
  EstimateOf("echo 'total 8192 bytes'");
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(run.HasSaid(std::string(kRedraw) + "50 % [###################")) << run.Out();
  EXPECT_TRUE(run.HasSaid("]  4.00 KiB")) << run.Out();
  Release();
  EXPECT_EQ(0, run.Wait().status);
}

TEST_F(CmdRunEstimate, NeverSaysItIsDone) {
  EstimateOf("echo 'total 100 bytes'");
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(run.HasSaid("99 % [")) << run.Out();
  Release();
  EXPECT_THAT(run.Wait().out, Not(HasSubstr("100 %")));
}

// An engine that reads more and more, beyond what it has estimated, each time a little later.
TEST_F(CmdRunEstimate, PercentRisesAndIsNeverAHundred) {
  estimate_ = "echo 'total 40960 bytes'";
  WaitingEngine(
      "for n in 1 2 3 4 5 6 7 8 9 10 11 12; do echo \"processed $((n * 4096)) bytes\"; "
      "sleep 0.4; done");
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(EngineWaits());
  ASSERT_TRUE(run.HasSaid("99 % [")) << run.Out();
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(0, result.status);
  std::vector<int> percents;
  for (size_t at = 0; (at = result.out.find(kRedraw, at)) != std::string::npos;) {
    int percent = 0, length = 0;
    at += sizeof kRedraw - 1;
    if (sscanf(result.out.c_str() + at, "%d %% [%n", &percent, &length) == 1 && length > 0)
      percents.push_back(percent);
  }
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << testing::PrintToString(percents);
  EXPECT_LT(4u, std::set<int>(percents.begin(), percents.end()).size())
      << testing::PrintToString(percents);
  EXPECT_EQ(99, percents.back());
}

TEST_F(CmdRunEstimate, PlainLineHasPercentToo) {
  EstimateOf("echo 'total 8192 bytes'");
  Background run(Argv({"run", "photos"}));
  ASSERT_TRUE(run.HasSaid("process: 50 %, read 4.00 KiB, exclusive so far ")) << run.Err();
  Release();
  EXPECT_EQ(0, run.Wait().status);
}

TEST_F(CmdRunEstimate, FitsTheTerminalWhateverItsWidth) {
  for (const unsigned short columns : {20, 40, 80, 132, 200}) {
    SCOPED_TRACE(columns);
    EstimateOf("echo 'total 8192 bytes'");
    Background run(Argv({"run", "photos"}), Background::Terminal{columns});
    ASSERT_TRUE(run.HasSaid(std::string(kRedraw) + "50 %")) << run.Out();
    Release();
    const std::string screen = run.Wait().out;
    size_t drawn = 0;
    for (size_t at = 0; (at = screen.find(kRedraw, at)) != std::string::npos; ++drawn) {
      at += sizeof kRedraw - 1;
      if (screen.compare(at, 5, "share") == 0) break;
      EXPECT_LT(screen.find('\r', at) - at, columns) << screen;
    }
    EXPECT_GE(drawn, 1u);  // how often depends on when the estimate comes
    MustRun(Argv({"clean", "photos"}));
  }
}

TEST_F(CmdRunEstimate, TerminalThatBecomesNarrower) {
  EstimateOf("echo 'total 8192 bytes'");
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(run.HasSaid("50 % [")) << run.Out();
  run.Resize(30);
  ASSERT_TRUE(run.HasSaid("\r\x1b[J50 %")) << "what the old line has become goes too";
  Release();
  EXPECT_EQ(0, run.Wait().status);
}

TEST_F(CmdRunEstimate, OneThatNeverComesIsNotWaitedFor) {
  EstimateOf("exec sleep 1000");
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(run.HasSaid("process: read 4.00 KiB")) << run.Out();
  Release();
  EXPECT_EQ(0, run.Wait().status);
  EXPECT_NE(0, ZorvTest::Run({"pgrep", "-x", "sleep"}).status) << "and does not stay";
}

TEST_F(CmdRunEstimate, GarbageIsNone) {
  for (const char* answer : {"echo total", "echo 'total x bytes'", "head -c 3000000 /dev/zero",
                             "echo 'total 0 bytes'", "echo 'total 8000 blocks'"}) {
    SCOPED_TRACE(answer);
    EstimateOf(answer);
    Background run(Argv({"run", "photos"}), kWide);
    ASSERT_TRUE(run.HasSaid("process: read 4.00 KiB")) << run.Out();
    Release();
    const CommandResult result = run.Wait();
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.out, Not(HasSubstr(" % ")));
    MustRun(Argv({"clean", "photos"}));
  }
}

TEST_F(CmdRunProgress, DumbTerminalGetsPlainLines) {
  WaitingEngine();
  std::vector<std::string> argv = Argv({"run", "photos"});
  argv.insert(argv.begin(), {"env", "TERM=dumb"});
  Background run(argv, kWide);
  ASSERT_TRUE(run.HasSaid("  photos\r\n")) << run.Out();
  EXPECT_THAT(run.Out(), Not(HasSubstr("\x1b")));
}

TEST_F(CmdRunProgress, QuietSaysNothing) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}), kWide);
  ASSERT_TRUE(EngineWaits());
  usleep(500000);
  EXPECT_EQ("", run.Out());
  Release();
  EXPECT_EQ(0u, run.Wait().out.find("share photos, calculated"));
}

TEST_F(CmdRunProgress, JsonIsCleanOnAPipe) {
  const CommandResult result = Tool({"run", "photos", "--format", "json"});
  EXPECT_EQ(3u, ParseJson(result.out)["snapshots"].size());
}

class CmdRunInterrupt : public CliWorld {};

TEST_F(CmdRunInterrupt, CtrlCStopsTheCalculation) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(EngineWaits());
  run.Type('\x03');
  ASSERT_TRUE(run.HasSaid(kAsked)) << run.Out();
  ASSERT_TRUE(StopArrives());
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(12, result.status);
  EXPECT_THAT(result.out, HasSubstr("the calculation of share 'photos' was stopped"));
  EXPECT_EQ("stop", ParseJson(ReadFile(kStatusOfPhotos))["status"].asString());
  EXPECT_EQ("12", ParseJson(ReadFile(kStatusOfPhotos))["error_code"].asString());
}

TEST_F(CmdRunInterrupt, SigtermStopsItToo) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}));
  ASSERT_TRUE(EngineWaits());
  kill(run.Pid(), SIGTERM);
  ASSERT_TRUE(run.HasSaid(kAsked)) << run.Err();
  ASSERT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(12, run.Wait().status);
}

TEST_F(CmdRunInterrupt, SaysItOnceAndWaitsAsLongAsItTakes) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  kill(run.Pid(), SIGINT);
  ASSERT_TRUE(run.HasSaid(kAsked)) << run.Err();
  sleep(3);
  EXPECT_EQ(std::string(kAsked) + "\n", run.Err());
  ASSERT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(12, run.Wait().status);
}

TEST_F(CmdRunInterrupt, SecondOneLeavesAtOnce) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}), kWide);
  ASSERT_TRUE(EngineWaits());
  run.Type('\x03');
  ASSERT_TRUE(run.HasSaid(kAsked)) << run.Out();
  ASSERT_TRUE(StopArrives());
  run.Type('\x03');
  const CommandResult left = run.Wait();
  EXPECT_EQ(130, left.status);
  EXPECT_THAT(left.out,
              testing::EndsWith("\nzorv-snapusage: left at once; the calculation of share "
                                "'photos' goes on stopping by itself: zorv-snapusage "
                                "status photos\r\n"));
  EXPECT_NE(-1, CalculatorPid()) << "the calculation is still stopping";
  Release();
  EXPECT_TRUE(Settled());
  EXPECT_EQ("stop", ParseJson(ReadFile(kStatusOfPhotos))["status"].asString());
}

TEST_F(CmdRunInterrupt, HangUpLeavesTheCalculationAtWork) {
  WaitingEngine();
  Background run(Argv({"run", "photos"}));
  ASSERT_TRUE(EngineWaits());
  kill(run.Pid(), SIGHUP);
  EXPECT_EQ(128 + SIGHUP, run.Wait().status);
  Release();
  EXPECT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

}  // namespace
