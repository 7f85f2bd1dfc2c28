// The process that a record names is signalled and waited for only when it is the calculation's.
#include "cli/calculator_process.h"

#include <signal.h>
#include <unistd.h>

#include "tests/cli/cli_world.h"
#include "tests/cli/stranger.h"

using namespace ZorvTest;

namespace {

constexpr char kTasks[] = "/run/zorvbtrfssnapusage/task_status/";

class CalculatorProcess : public CliWorld {
 protected:
  // A record of photos that says that its calculation runs, of a process that is gone.
  std::string RecordOfADeadRun() {
    WaitingEngine();
    MustRun(Argv({"start", "photos"}));
    EXPECT_TRUE(EngineWaits());
    kill(CalculatorPid(), SIGKILL);
    EXPECT_TRUE(Settled());
    return kTasks + ParseJson(ReadFile(kMap))["photos"]["task_id"].asString();
  }
};

TEST_F(CalculatorProcess, EveryMarkIsLookedFor) {
  const struct {
    const char* name;
    Likeness likeness;
    bool calculator;
  } cases[] = {
      {"all", {}, true},
      {"caught", {.stopBlocked = false, .stopCaught = true}, true},
      {"of an ordinary user", {.root = false}, false},
      {"without the library", {.library = false}, false},
      {"in the session of another", {.session = false}, false},
      {"with an input", {.nullInput = false}, false},
      {"with an output", {.nullOutput = false}, false},
      {"that a stop ends", {.stopBlocked = false}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Stranger stranger(c.likeness);
    EXPECT_EQ(c.calculator, ZorvSnapUsage::IsCalculator(stranger.Pid()));
  }
  EXPECT_FALSE(ZorvSnapUsage::IsCalculator(1));
  EXPECT_FALSE(ZorvSnapUsage::IsCalculator(getpid()));
}

TEST_F(CalculatorProcess, RealOneIsKnown) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  EXPECT_TRUE(ZorvSnapUsage::IsCalculator(CalculatorPid()));
  Background stop(Argv({"stop", "photos"}));
  EXPECT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(0, stop.Wait().status);
}

TEST_F(CalculatorProcess, StrangerIsNeitherSignalledNorWaitedFor) {
  const std::string record = RecordOfADeadRun();
  const struct {
    const char* name;
    Likeness likeness;
  } cases[] = {
      {"of an ordinary user", {.root = false}},
      {"without the library", {.library = false}},
      {"in the session of another", {.session = false}},
      {"that a stop ends", {.stopBlocked = false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Stranger stranger(c.likeness);
    EditJson(record, {"pid"}, std::to_string(stranger.Pid()));
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         gone without a result"));
    const CommandResult stop = Tool({"stop", "photos"});
    EXPECT_EQ(11, stop.status);
    EXPECT_THAT(stop.err, HasSubstr("its process is gone"));
    EXPECT_EQ(4, Tool({"run", "photos"}).status) << "for two minutes";
    EXPECT_EQ(10, Tool({"show", "photos"}).status);
    EXPECT_FALSE(stranger.WasSignalled());
  }
}

TEST_F(CalculatorProcess, NumberOfNoProcessIsADeadOne) {
  const std::string record = RecordOfADeadRun();
  Stranger stranger({});  // has all marks: its number must not be read into these
  const std::string alias = std::to_string((1ULL << 32) + stranger.Pid());
  for (const std::string& pid :
       {std::string("0"), std::string("1"), std::string("-1"), std::string("-5"),
        std::string(" 12"), std::string("12x"), std::string("x"), std::string("2147483648"),
        std::string("99999999999"), std::string("99999999999999999999999"), alias,
        " " + std::to_string(stranger.Pid()), "-" + std::to_string(stranger.Pid()),
        std::to_string(stranger.Pid()) + " "}) {
    SCOPED_TRACE(pid);
    EditJson(record, {"pid"}, pid);
    EXPECT_THAT(MustRun(Argv({"status", "photos"})),
                HasSubstr("process:         gone without a result"));
    const CommandResult stop = Tool({"stop", "photos"});
    EXPECT_EQ(11, stop.status);
    EXPECT_THAT(stop.err, HasSubstr("its process is gone"));
  }
  EXPECT_FALSE(stranger.WasSignalled());
  EXPECT_EQ(0, Tool({"clean", "photos"}).status);
}

}  // namespace
