// `start`: the calculation goes on without the program.
#include <signal.h>

#include <filesystem>
#include <memory>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

using CmdStart = CliWorld;

constexpr char kLaunchLock[] = "/run/zorv-snapusage.lock";

bool HasOpen(pid_t pid, const std::string& path) {
  std::error_code gone;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone))
    if (std::filesystem::read_symlink(entry, gone) == path) return true;
  return false;
}

// Also of a process that nobody has waited for yet.
bool HasEnded(pid_t pid) {
  return kill(pid, 0) != 0 ||
         ReadFile("/proc/" + std::to_string(pid) + "/stat").find(") Z ") != std::string::npos;
}

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
  EXPECT_EQ("started the calculation of 1 snapshot of share 'photos'\n",
            MustRun(Argv({"start", "photos", "--until", "2024-03-01"})));
  ASSERT_TRUE(Settled());
  EXPECT_EQ(kFirst, Shown()["snapshots"][0]["name"].asString());
}

// Its helper has no standard streams to say it.
TEST_F(CmdStart, SaysWhatItWaitsFor) {
  auto held = std::make_unique<HeldLock>(kLaunchLock);
  Background start(Argv({"start", "photos"}));
  EXPECT_TRUE(start.HasSaid("zorv-snapusage: waiting for another launch or removal\n"));
  held.reset();
  const CommandResult result = start.Wait();
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("started the calculation of 3 snapshots of share 'photos'\n", result.out);
  ASSERT_TRUE(Settled());
}

// Its helper went on waiting, and began a calculation whenever the lock was free.
TEST_F(CmdStart, KilledWhileItWaitsStartsNothing) {
  auto held = std::make_unique<HeldLock>(kLaunchLock);
  Background start(Argv({"start", "photos"}));
  pid_t helper = 0;
  const std::string pid = std::to_string(start.Pid());
  const std::string children = "/proc/" + pid + "/task/" + pid + "/children";
  ASSERT_TRUE(WaitUntil([&] { return (helper = atoi(ReadFile(children).c_str())) > 0; }));
  ASSERT_TRUE(WaitUntil([&] { return HasOpen(helper, kLaunchLock); }));
  kill(start.Pid(), SIGKILL);
  (void)start.Wait();
  EXPECT_TRUE(WaitUntil([&] { return HasEnded(helper); }));
  held.reset();
  EXPECT_FALSE(std::filesystem::exists(kStatusOfPhotos));
}

}  // namespace
