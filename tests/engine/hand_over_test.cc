// Every other command goes to the real program.
#include "engine/hand_over.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "engine/options.h"
#include "tests/engine/engine_run.h"

using namespace ZorvTest;

namespace {

// A stand-in for the real program: says how it was called.
const char kStandIn[] = "echo \"$0|$*|$ZORV_TEST\"; exit 7\n";

// Each test changes the real program's places; afterwards they are as before.
class HandOver : public testing::Test {
 protected:
  HandOver() { std::filesystem::copy_file("/usr/bin/btrfs", "/tmp/real", kOverwrite); }
  ~HandOver() override {
    std::filesystem::remove("/usr/bin/btrfs");
    std::filesystem::remove("/usr/libexec/btrfs");
    std::filesystem::copy_file("/tmp/real", "/usr/bin/btrfs", kOverwrite);
  }

  static constexpr auto kOverwrite = std::filesystem::copy_options::overwrite_existing;
};

}  // namespace

TEST_F(HandOver, GivesTheRealProgramEveryOtherCommand) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"--version"},
                                                {"subvolume", "--help"},
                                                {"filesystem", "df", "/"},
                                                {"subvolume", "list", "/"},
                                                {"help"},
                                                {"nonsense"},
                                                {}}) {
    SCOPED_TRACE(testing::PrintToString(words));
    std::vector<std::string> engine = {ZORV_ENGINE_PATH};
    std::vector<std::string> real = {kStockBtrfs};
    engine.insert(engine.end(), words.begin(), words.end());
    real.insert(real.end(), words.begin(), words.end());
    const CommandResult got = ZorvTest::Run(engine);
    const CommandResult expected = ZorvTest::Run(real);
    EXPECT_EQ(expected.status, got.status);
    EXPECT_EQ(expected.out, got.out);
    EXPECT_EQ(expected.err, got.err);
  }
}

TEST_F(HandOver, KeepsArgumentsAndEnvironment) {
  WriteScript("/usr/bin/btrfs", kStandIn);
  setenv("ZORV_TEST", "kept", 1);
  const CommandResult result = ZorvTest::Run({ZORV_ENGINE_PATH, "send", "a b", "", "-v"});
  unsetenv("ZORV_TEST");
  EXPECT_EQ(7, result.status);
  EXPECT_EQ("/usr/bin/btrfs|send a b  -v|kept\n", result.out);
}

// The stock program does not expect to have a signal ignored that its caller does not ignore.
TEST_F(HandOver, KeepsWhatIsDoneOnSignals) {
  WriteScript("/usr/bin/btrfs", "grep SigIgn /proc/self/status\n");
  for (const int how : {0, 1}) {
    const std::vector<std::string> command = {ZORV_ENGINE_PATH, "device", "stats"};
    std::string ignored;
    for (const std::vector<std::string>& argv :
         {std::vector<std::string>{"grep", "SigIgn", "/proc/self/status"}, command}) {
      const std::string trap = how == 0 ? "" : "trap '' PIPE XFSZ; ";
      std::vector<std::string> whole = {"bash", "-c", trap + "exec \"$@\"", "bash"};
      whole.insert(whole.end(), argv.begin(), argv.end());
      const std::string said = MustRun(whole);
      EXPECT_TRUE(ignored.empty() || ignored == said) << ignored << said;
      ignored = said;
    }
  }
}

TEST_F(HandOver, NeverLooksInPath) {
  WriteScript("/tmp/path/btrfs", kStandIn);
  const CommandResult result =
      ZorvTest::Run({"env", "PATH=/tmp/path", ZORV_ENGINE_PATH, "version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(0u, result.out.find("btrfs-progs v"));
}

// The engine stands where the real program is looked for first: the next one counts.
TEST_F(HandOver, NeverRunsItself) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/usr/bin/btrfs", kOverwrite);
  WriteScript("/usr/libexec/btrfs", kStandIn);
  const CommandResult result = ZorvTest::Run({"/usr/bin/btrfs", "device", "stats"});
  EXPECT_EQ(7, result.status);
  EXPECT_EQ("/usr/libexec/btrfs|device stats|\n", result.out);
}

TEST_F(HandOver, SaysThatTheRealProgramIsMissing) {
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/usr/bin/btrfs", kOverwrite);
  for (const char* command : {"/usr/bin/btrfs", "/bin/btrfs"}) {
    const CommandResult result = ZorvTest::Run({command, "device", "stats"});
    EXPECT_EQ(127, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(
        "ERROR: the real btrfs program is not there; install btrfs-progs (looked at /usr/bin, /bin "
        "and /usr/libexec)\n",
        result.err);
  }
}

TEST_F(HandOver, SaysThatTheRealProgramCannotBeRun) {
  WriteFile("/usr/bin/btrfs", "");
  ASSERT_EQ(0, chmod("/usr/bin/btrfs", 0644));
  const CommandResult result = ZorvTest::Run({ZORV_ENGINE_PATH, "device", "stats"});
  EXPECT_EQ(127, result.status);
  EXPECT_EQ("ERROR: cannot run /bin/btrfs: Permission denied\n", result.err);
}

TEST(EngineVersion, IsRecognisable) {
  const CommandResult result = ZorvTest::Run({ZORV_ENGINE_PATH, "subvolume", "size", "--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("zorv btrfs engine 1.0.0\n", result.out);
  // What a program would see of a btrfs that is no engine.
  const CommandResult stock = ZorvTest::Run({kStockBtrfs, "subvolume", "size", "--version"});
  EXPECT_NE(0, stock.status);
  EXPECT_EQ(std::string::npos, stock.out.find("engine"));
}

TEST(EngineHelp, NamesEveryOptionAndNoLineLooksLikeANumber) {
  const CommandResult result = ZorvTest::Run({ZORV_ENGINE_PATH, "subvolume", "size", "--help"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(ZorvEngine::kHelpText, result.out);
  for (const char* option : {"-v ", "-p ", "-m ", "-r DIR", "--help", "--version"})
    EXPECT_NE(std::string::npos, result.out.find(option)) << option;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);)
    for (const char* start : {"subvol", "exclusive", "processed"})
      EXPECT_NE(0u, line.find(start)) << line;
}
