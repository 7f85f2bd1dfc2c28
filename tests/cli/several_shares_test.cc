// Commands that take several shares, or all.
#include <signal.h>

#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class SeveralShares : public CliWorld {
 protected:
  SeveralShares() {
    volume_->Subvolume("mail");
    volume_->Snapshot("mail", "mail/.snapshots/one");
  }
};

TEST_F(SeveralShares, RunShowsOneTableAfterTheOther) {
  const CommandResult result = Tool({"run", "photos", "mail", "--quiet"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(0u, result.out.find("share photos, calculated "));
  EXPECT_THAT(result.out, ContainsRegex("  by hand\n\nmetadata, [^\n]*\nall 3 snapshots [^\n]*\n\n"
                                        "share mail, calculated .*, complete\n\n"));
}

TEST_F(SeveralShares, RunAllLeavesOutThoseWithoutSnapshotsAndSaysSo) {
  volume_->Subvolume("empty");
  const CommandResult result = Tool({"run", "--all", "-H", "--quiet"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "zorv-snapusage: note: share 'empty' is left out, it has no snapshots; make read-only "
      "snapshots of it in '/volume1/empty/.snapshots'\n",
      result.err);
  EXPECT_THAT(result.out,
              ContainsRegex("^mail\t[^\n]*\tone\nphotos\t[^\n]*\t" + std::string(kFirst) +
                            "\nphotos\t[^\n]*\nphotos\t[^\n]*\tby hand\n$"));
}

TEST_F(SeveralShares, RunGivesOneJsonDocument) {
  const Json::Value document =
      ParseJson(MustRun(Argv({"run", "--all", "--quiet", "--format", "json"})));
  EXPECT_EQ(1, document["__header"]["version"].asInt());
  EXPECT_TRUE(document["complete"].asBool());
  EXPECT_EQ(0u, document["failed"].size());
  ASSERT_EQ(2u, document["results"].size());
  EXPECT_EQ("mail", document["results"][0]["share"].asString());
  EXPECT_EQ(3u, document["results"][1]["snapshots"].size());
}

TEST_F(SeveralShares, FailureOfOneKeepsNoOther) {
  const CommandResult result =
      Tool({"run", "nope", "mail", "photos", "--quiet", "--format", "json"});
  EXPECT_EQ(5, result.status);
  EXPECT_THAT(result.err, HasSubstr("there is no share 'nope'"));
  const Json::Value document = ParseJson(result.out);
  EXPECT_EQ(2u, document["results"].size());
  EXPECT_FALSE(document["complete"].asBool());
  EXPECT_EQ("nope", document["failed"][0].asString());
  EXPECT_EQ("nope", document["shares"][0]["name"].asString());
  EXPECT_TRUE(document["shares"][0]["state"].isNull());
  EXPECT_EQ("done", document["shares"][2]["state"].asString());
}

TEST_F(SeveralShares, InterruptEndsTheRow) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "mail", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  kill(run.Pid(), SIGINT);
  ASSERT_TRUE(StopArrives());
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(12, result.status);
  EXPECT_THAT(result.err, Not(HasSubstr("interrupted"))) << "of others there is nothing to say";
  EXPECT_EQ(10, Tool({"status", "mail"}).status) << "never begun";
}

// What was done before was not printed at all.
TEST_F(SeveralShares, InterruptedRowIsAWholeDocument) {
  volume_->Subvolume("music");
  volume_->Snapshot("music", "music/.snapshots/one");
  WaitingEngine();
  Background run(Argv({"run", "photos", "mail", "music", "--quiet", "--format", "json"}));
  ASSERT_TRUE(EngineWaits());
  Release();
  ASSERT_TRUE(EngineWaits());
  kill(run.Pid(), SIGINT);
  ASSERT_TRUE(StopArrives("mail"));
  Release();
  const CommandResult result = run.Wait();
  EXPECT_EQ(12, result.status);
  const Json::Value document = ParseJson(result.out);
  ASSERT_EQ(1u, document["results"].size());
  EXPECT_EQ("photos", document["results"][0]["share"].asString());
  EXPECT_FALSE(document["complete"].asBool());
  EXPECT_EQ(2u, document["failed"].size());
  EXPECT_EQ("done", document["shares"][0]["state"].asString());
  EXPECT_EQ("stop", document["shares"][1]["state"].asString());
  EXPECT_EQ("music", document["shares"][2]["name"].asString());
  EXPECT_TRUE(document["shares"][2]["state"].isNull()) << "never begun";
}

// It said that nothing was changed, though the share before had been calculated.
TEST_F(SeveralShares, InterruptBetweenTwoSharesKeepsWhatWasDone) {
  const std::string begun = "/tmp/table.begun";
  table_ = "touch " + begun + "; exec sleep 1000";
  FakeEngine(kAnswer);
  Background run(Argv({"run", "photos", "mail", "--quiet"}));
  ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(begun); }));
  kill(run.Pid(), SIGINT);
  const CommandResult result = run.Wait();
  std::filesystem::remove(begun);
  EXPECT_EQ(130, result.status);
  EXPECT_THAT(result.err,
              HasSubstr("\nzorv-snapusage: interrupted before the calculation of share 'mail' was "
                        "started; results that were stored before are kept\n"));
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
  EXPECT_EQ(10, Tool({"status", "mail"}).status) << "never begun";
}

TEST_F(SeveralShares, SnapshotsAreChosenOfOneShareOnly) {
  const struct {
    std::vector<std::string> words;
    const char* what;
  } cases[] = {
      {{"run"}, "no share is named; name shares, or say --all"},
      {{"start"}, "no share is named; name shares, or say --all"},
      {{"wait"}, "no share is named; name shares, or say --all"},
      {{"run", "photos", "--all"}, "SHARE excludes --all"},
      {{"run", "photos", "mail", "--snapshot", "one"}, "snapshots can be named of one share only"},
      {{"run", "--all", "--snapshot", "one"}, "snapshots can be named of one share only"},
      {{"run", "photos", kFirst},
       "'GMT-2024.03.01-09.04.09' is a snapshot of share 'photos', and no share; choose it with "
       "--snapshot GMT-2024.03.01-09.04.09"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CommandResult result = Tool(c.words);
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.err, HasSubstr(c.what));
    EXPECT_EQ("", result.out);
  }
}

TEST_F(SeveralShares, StartBeginsEachAndWaitWaitsForAll) {
  EXPECT_EQ(
      "started the calculation of 1 snapshot of share 'mail'\n"
      "started the calculation of 3 snapshots of share 'photos'\n",
      MustRun(Argv({"start", "--all"})));
  EXPECT_EQ(0, Tool({"wait", "--all"}).status);
  EXPECT_EQ(1u, Shown("mail")["snapshots"].size());
  EXPECT_EQ(3u, Shown("photos")["snapshots"].size());
}

TEST_F(SeveralShares, StatusOfAllIsATable) {
  MustRun(Argv({"run", "--all", "--quiet"}));
  const std::string text = MustRun(Argv({"status"}));
  EXPECT_THAT(
      text,
      ContainsRegex("^STATE +STARTED +ENDED +READ +EXCLUSIVE  GENERATION  SHARE\ndone .*  mail\n"
                    "done .*  4.00 KiB   2.00 KiB           7  photos\n$"));
  const Json::Value document = ParseJson(MustRun(Argv({"status", "--format", "json"})));
  EXPECT_TRUE(document["complete"].asBool());
  EXPECT_TRUE(document["timestamp"].isIntegral());
  ASSERT_EQ(2u, document["shares"].size());
  EXPECT_EQ("done", document["shares"][1]["state"].asString());
  EXPECT_EQ(2048u, document["shares"][1]["exclusive"].asUInt64());
  EXPECT_TRUE(document["shares"][1]["process"].isNull());
}

TEST_F(SeveralShares, StatusOfNone) { EXPECT_EQ("", MustRun(Argv({"status", "-H"}))); }

class CmdWait : public CliWorld {};

TEST_F(CmdWait, ExitStatusIsTheEndOfTheCalculation) {
  EXPECT_EQ(10, Tool({"wait", "photos"}).status);
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Background wait(Argv({"wait", "photos"}));
  ASSERT_TRUE(wait.HasSaid("process: read 4.00 KiB")) << wait.Err();
  Release();
  EXPECT_EQ(0, wait.Wait().status);
  EXPECT_EQ(0, Tool({"wait", "photos"}).status) << "it has ended well";
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  Tool({"run", "photos"});
  EXPECT_EQ(11, Tool({"wait", "photos"}).status);
  EXPECT_EQ(0, Tool({"wait", "--all"}).status) << "nothing is under way";
}

// It ended with 0, and there was nothing to show.
TEST_F(CmdWait, ShortResultIsNoSuccess) {
  FakeEngine("true\n");
  Tool({"run", "photos"});
  const CommandResult result = Tool({"wait", "photos"});
  EXPECT_EQ(13, result.status);
  EXPECT_THAT(result.err, HasSubstr("is short: 3 of 3 snapshots are not in it"));
}

TEST_F(CmdWait, ResultThatIsNotThereIsNoSuccess) {
  Tool({"run", "photos"});
  fs::remove_all(kResultsOfPhotos);
  EXPECT_EQ(1, Tool({"wait", "photos"}).status);
}

TEST_F(CmdWait, OneThatWasKilledIsGone) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  ASSERT_EQ(0, kill(CalculatorPid(), SIGKILL));
  ASSERT_TRUE(Settled());
  const CommandResult result = Tool({"wait", "photos"});
  EXPECT_EQ(11, result.status);
  EXPECT_THAT(result.err, HasSubstr("ended without a result: its process is gone"));
  Release();
}

TEST_F(CmdWait, LeavingDoesNotStopIt) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Background wait(Argv({"wait", "photos", "--quiet"}), Background::Terminal{80});
  usleep(500000);
  wait.Type('\x03');
  const CommandResult left = wait.Wait();
  EXPECT_EQ(130, left.status);
  EXPECT_THAT(left.out, HasSubstr("the calculation of share 'photos' goes on; end it with: "
                                  "zorv-snapusage stop photos"));
  Release();
  ASSERT_TRUE(Settled());
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdWait, StatusFollowsUntilTheEnd) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Background follow(Argv({"status", "photos", "--follow"}));
  ASSERT_TRUE(follow.HasSaid("process: read 4.00 KiB")) << follow.Err();
  EXPECT_EQ("", follow.Out());
  Release();
  EXPECT_THAT(follow.Wait().out, HasSubstr("state:           done\n"));
}

class CmdReminder : public CliWorld {};

TEST_F(CmdReminder, IsOffUntilItIsSet) {
  EXPECT_EQ("off\n", MustRun(Argv({"reminder"})));
  EXPECT_EQ("on\n", MustRun(Argv({"reminder", "on"})));
  EXPECT_EQ("on\n", MustRun(Argv({"reminder"})));
  EXPECT_EQ("off\n", MustRun(Argv({"reminder", "off"})));
  EXPECT_EQ("off\n", MustRun(Argv({"reminder"})));
}

TEST_F(CmdReminder, AnotherWordIsRefused) {
  MustRun(Argv({"reminder", "on"}));
  const CommandResult result = Tool({"reminder", "onn"});
  EXPECT_EQ(2, result.status);
  EXPECT_EQ("zorv-snapusage: 'onn' is no setting of the reminder; did you mean 'on'?\n",
            result.err);
  EXPECT_EQ("on\n", MustRun(Argv({"reminder"})));
}

TEST_F(CmdReminder, RecordThatCannotBeWrittenIsSaid) {
  MustRun(Argv({"reminder", "on"}));
  WriteFile("/usr/local/zorvbtrfssnapusage/reminder_record", "[1]");
  EXPECT_EQ(1, Tool({"reminder", "off"}).status);
}

}  // namespace
