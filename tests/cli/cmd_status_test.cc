// `status`: the records of a share's latest calculation.
#include <signal.h>

#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class CmdStatus : public CliWorld {
 protected:
  static std::string Status() { return MustRun(Argv({"status", "photos"})); }
};

TEST_F(CmdStatus, NoCalculationYet) {
  const CommandResult result = Tool({"status", "photos"});
  EXPECT_EQ(10, result.status);
  EXPECT_EQ(
      "zorv-snapusage: no calculation of share 'photos' is recorded; start one with: "
      "zorv-snapusage run photos\n",
      result.err);
}

TEST_F(CmdStatus, WhileItRuns) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  ASSERT_TRUE(WaitUntil([] { return Status().find("read:") != std::string::npos; }));
  EXPECT_THAT(Status(), ContainsRegex("^share:           photos\n"
                                      "state:           process\n"
                                      "task:            [-0-9a-f]{36}\n"
                                      "process:         [0-9]+\n"
                                      "started:         [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                                      "read:            4.00 KiB\n$"));
}

TEST_F(CmdStatus, Done) {
  MustRun(Argv({"run", "photos"}));
  EXPECT_THAT(Status(), ContainsRegex("^share:           photos\n"
                                      "state:           done\n"
                                      "task:            [-0-9a-f]{36}\n"
                                      "started:         [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                                      "ended:           [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\n"
                                      "read:            4.00 KiB\n"
                                      "exclusive:       2.00 KiB\n"
                                      "generation:      7\n$"));
}

TEST_F(CmdStatus, FailedWithItsCommand) {
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  Tool({"run", "photos"});
  const std::string text = Status();
  EXPECT_THAT(text, HasSubstr("state:           fail\n"));
  EXPECT_THAT(text, HasSubstr("error code:      1 (the command reported a failure, or its output "
                              "could not be recorded)\n"));
  EXPECT_THAT(text, HasSubstr("command:         /sbin/btrfs subvolume size -vpm -r /volume1 " +
                              std::to_string(ID(kFirst)) + " "));
}

TEST_F(CmdStatus, RunningOneShowsNothingOfTheOneBefore) {
  MustRun(Argv({"run", "photos"}));
  WaitingEngine("true");
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const std::string text = Status();
  EXPECT_THAT(text, HasSubstr("state:           process\n"));
  EXPECT_THAT(text, Not(HasSubstr("read:")));
  EXPECT_THAT(text, Not(HasSubstr("ended:")));
}

TEST_F(CmdStatus, AfterAReboot) {
  MustRun(Argv({"run", "photos"}));
  std::filesystem::remove_all("/run/zorvbtrfssnapusage");
  std::filesystem::remove_all("/run/lock/zorvbtrfssnapusage");
  EXPECT_THAT(Status(), HasSubstr("state:           done\n"));
}

TEST_F(CmdStatus, KilledIsNotRunning) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const pid_t pid = CalculatorPid();
  ASSERT_GT(pid, 1);
  kill(pid, SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return Status().find(std::to_string(pid)) == std::string::npos; }));
  EXPECT_THAT(Status(), HasSubstr("process:         gone without a result; remove the record with: "
                                  "zorv-snapusage clean photos\n"));
}

TEST_F(CmdStatus, InterruptedByAReboot) {
  MustRun(Argv({"run", "photos"}));
  EditJson(kStatusOfPhotos, {"status"}, "process");
  EditJson(kMap, {"photos", "time"}, 1);
  EXPECT_THAT(Status(), HasSubstr("process:         gone without a result"));
  EXPECT_EQ(0, Tool({"run", "photos"}).status) << "and the share is free again";
}

TEST_F(CmdStatus, RecordWithoutAState) {
  MustRun(Argv({"run", "photos"}));
  std::filesystem::remove(kStatusOfPhotos);
  const CommandResult result = Tool({"status", "photos"});
  EXPECT_EQ(10, result.status);
  EXPECT_EQ(
      "zorv-snapusage: the record of share 'photos' has no state; remove the rest of it with: "
      "zorv-snapusage clean photos\n",
      result.err);
}

TEST_F(CmdStatus, RecordsOfTheWrongShape) {
  MustRun(Argv({"run", "photos"}));
  const struct {
    const char* name;
    const char* text;
    int status;
  } cases[] = {
      {"a word that is no state", "{\"status\":\"finished\"}", 1},
      {"a number", "7", 10},
      {"a list", "[1]", 10},
      {"cut short", "{\"status\":", 10},
      {"a state that is no text", "{\"status\":4}", 10},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(kStatusOfPhotos, c.text);
    EXPECT_EQ(c.status, Tool({"status", "photos"}).status);
  }
  WriteFile(kStatusOfPhotos, "{\"status\":\"done\",\"pid\":7,\"processed_in_bytes\":\"-1\"}");
  EXPECT_THAT(Status(), Not(HasSubstr("read:")));
}

}  // namespace
