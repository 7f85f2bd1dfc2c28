// What a table adds to a share's result: its columns, its own time, and the line that explains the
// sum.
#include <signal.h>

#include <chrono>
#include <thread>

#include "tests/cli/plan_world.h"

using namespace ZorvTest;

namespace {

class ReportTable : public PlanWorld {
 protected:
  // A result of an engine that has no table, then a table of one that is asked by plan.
  ReportTable() {
    EngineWithTable("false");
    MustRun(Argv({"run", "photos", "--quiet"}));
  }

  // What the engine says of each snapshot alone, as Sets() has it; `second` of the second.
  std::string Numbers(const std::string& second = "2097152") const {
    std::string script;
    for (const auto& [day, bytes] : std::vector<std::pair<unsigned, std::string>>{
             {1, "1064960"}, {2, second}, {3, "0"}, {4, "0"}, {5, "0"}, {0, "104857600"}})
      script += "echo 'subvol(" + IdOf(day) + ") " + bytes + " bytes'\n";
    return script;
  }

  void EngineWithTable(const std::string& table) const {
    table_ = table;
    FakeEngine(Numbers());
  }

  void TakeTable() {
    TableEngine(Sets());
    MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  }

  static std::string LeftOut(const std::string& rows) {
    return "zorv-snapusage: note: metadata, with older and new of " + rows +
           " snapshots are left out: no table is of the state that was calculated; get them "
           "with: zorv-snapusage run photos\n";
  }

  static std::vector<Set> Sets() {
    return {{{1}, 1 << 20, 16384},     {{2}, 2 << 20},    {{0}, 100 << 20},
            {{1, 2}, 10 << 20, 32768}, {{1, 3}, 5 << 20}, {{3, 4, 5}, 20 << 20}};
  }
};

TEST_F(ReportTable, ColumnsAndTheLineThatExplainsTheSum) {
  TakeTable();
  const std::string out = MustRun(Argv({"show", "photos"}));
  EXPECT_THAT(out, HasSubstr("EXCLUSIVE  RUNNING TOTAL   METADATA  WITH OLDER        NEW   ID  "));
  EXPECT_THAT(out, HasSubstr("  16.00 KiB    1.02 MiB  16.05 MiB  257  "));
  EXPECT_THAT(out, HasSubstr("        0 B   13.05 MiB   2.00 MiB  258  ")) << "with what both hold";
  EXPECT_THAT(out, ContainsRegex("\nmetadata, with older, new: as of ....-..-.. ..:..:.. "
                                 "\\(generation 7\\)\n"));
  EXPECT_THAT(out,
              HasSubstr("\nall 6 snapshots then free 138.05 MiB together: 103.02 MiB exclusive, "
                        "35.03 MiB held only by two or more of them\n"));
}

TEST_F(ReportTable, JsonHasThem) {
  TakeTable();
  const Json::Value shown = Shown();
  const Json::Value& third = shown["snapshots"][2];
  EXPECT_EQ(0u, third["metadata"].asUInt64());
  EXPECT_EQ((18u << 20) + 49152, third["with_older"].asUInt64());
  EXPECT_EQ(25u << 20, third["new"].asUInt64());
  EXPECT_EQ(7u, shown["table"]["generation"].asUInt64());
  EXPECT_EQ(6u, shown["table"]["snapshots"].asUInt64());
  EXPECT_TRUE(shown["table"]["taken_timestamp"].isIntegral());
  EXPECT_EQ((138u << 20) + 49152, shown["table"]["all"].asUInt64());
  EXPECT_EQ((35u << 20) + 32768, shown["table"]["held_by_several"].asUInt64());
  EXPECT_EQ(0u, third["exclusive"].asUInt64());
}

TEST_F(ReportTable, WithoutOneNothingIsMadeUp) {
  EXPECT_THAT(MustRun(Argv({"show", "photos"})), Not(HasSubstr("WITH OLDER")));
  EXPECT_THAT(MustRun(Argv({"show", "photos", "-H"})),
              testing::StartsWith("1064960\t1064960\t-\t-\t-\t257\t"))
      << "scripts find each column in its place";
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["table"].isNull());
  EXPECT_TRUE(shown["snapshots"][0]["with_older"].isNull());
}

// Its metadata was more than what the snapshot held alone.
TEST_F(ReportTable, OneOfOtherSnapshotsIsNotUsed) {
  TakeTable();
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  table_ = "false";
  FakeEngine(Numbers() + "echo 'subvol(" + std::to_string(ID(Day(6))) + ") 0 bytes'\n");
  MustRun(Argv({"run", "photos", "--quiet"}));
  const CommandResult shown = Tool({"show", "photos"});
  EXPECT_EQ(0, shown.status);
  EXPECT_THAT(shown.out, Not(HasSubstr("WITH OLDER")));
  EXPECT_THAT(shown.out, Not(HasSubstr(" then free ")));
  EXPECT_EQ(LeftOut("7 of 7"), shown.err);
  EXPECT_TRUE(Shown()["table"].isNull());
}

// What they free together was more than they do.
TEST_F(ReportTable, OneWithASnapshotMoreIsNotUsed) {
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  AnsweringEngine(Document(Sets(), {1, 2, 3, 4, 5, 6, 0}));
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  volume_->DeleteSubvolume("photos/.snapshots/" + Day(6));
  EngineWithTable("false");
  MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_TRUE(Shown()["table"].isNull());
}

TEST_F(ReportTable, RowsFromTheFirstDifferenceOnAreOfAnotherState) {
  table_ = "false";
  FakeEngine(Numbers("2097153"));
  MustRun(Argv({"run", "photos", "--quiet"}));
  TakeTable();
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(LeftOut("5 of 6"), result.err);
  EXPECT_THAT(result.out, HasSubstr("\nmetadata, with older, new: as of "));
  EXPECT_THAT(result.out, Not(HasSubstr(" then free "))) << "the sum is of another state";
  const Json::Value shown = Shown();
  EXPECT_EQ(16384u, shown["snapshots"][0]["metadata"].asUInt64());
  for (unsigned i = 1; i < 6; ++i) {
    SCOPED_TRACE(i);
    for (const char* column : {"metadata", "with_older", "new"})
      EXPECT_TRUE(shown["snapshots"][i][column].isNull());
  }
  EXPECT_EQ(7u, shown["table"]["generation"].asUInt64());
  EXPECT_TRUE(shown["table"]["all"].isNull());
}

// It was of another state with the same numbers: what all held was held by some of them still.
TEST_F(ReportTable, OneFromBeforeTheResultIsNotUsed) {
  WriteFile("/tmp/document", Document(Sets()));
  EngineWithTable("cat /tmp/document");
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  EngineWithTable("false");
  MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_TRUE(Shown()["table"].isNull());
  EXPECT_TRUE(Shown()["generation"].isNull());
}

// Nothing has changed since, so that it is of now as well.
TEST_F(ReportTable, OneFromBeforeTheResultIsUsedWhereNothingHasChanged) {
  RealEngine();
  MustRun({"sync", "-f", "/volume1"});
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  const std::string out = MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_THAT(out, HasSubstr(" then free "));
  EXPECT_EQ(out, MustRun(Argv({"show", "photos"})));
}

// The advice was a calculation, which ends with 9.
TEST_F(ReportTable, RowsOfDeletedSnapshotsAreNotToBeHadAnymore) {
  table_ = "false";
  FakeEngine(Numbers("2097153"));
  MustRun(Argv({"run", "photos", "--quiet"}));
  TakeTable();
  for (const char* name : {kFirst, kSecond, kNoTime})
    volume_->DeleteSubvolume(std::string("photos/.snapshots/") + name);
  for (unsigned day = 3; day <= 5; ++day) volume_->DeleteSubvolume("photos/.snapshots/" + Day(day));
  EXPECT_EQ(
      "zorv-snapusage: note: metadata, with older and new of 5 of 6 snapshots are left out: no "
      "table is of the state that was calculated\n",
      Tool({"show", "photos"}).err);
}

// What it says of older ones is about others than the names say now.
TEST_F(ReportTable, OneOfOtherNamesIsNotUsed) {
  const std::string folder = volume_->Path("photos/.snapshots/");
  const auto exchange = [&] {
    std::filesystem::rename(folder + Day(1), folder + "x");
    std::filesystem::rename(folder + Day(2), folder + Day(1));
    std::filesystem::rename(folder + "x", folder + Day(2));
  };
  RealEngine();
  MustRun(Argv({"run", "photos", "--quiet"}));
  std::filesystem::remove_all(kCacheOfPhotos);
  exchange();
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  exchange();
  EXPECT_TRUE(Shown()["table"].isNull());
  volume_->DeleteSubvolume("photos/.snapshots/" + Day(1));
  EXPECT_TRUE(Shown()["table"].isNull()) << "what is not in the list has the name of before";
}

// The same, and only the list tells: the names have one time, and begin with what goes first.
TEST_F(ReportTable, OneOfOtherNamesOfOneTimeIsNotUsed) {
  const std::string folder = volume_->Path("photos/.snapshots/");
  std::filesystem::rename(folder + Day(1), folder + "a");
  std::filesystem::rename(folder + Day(2), folder + "b");
  RealEngine();
  MustRun(Argv({"run", "photos", "--quiet"}));
  std::filesystem::remove_all(kCacheOfPhotos);
  std::filesystem::rename(folder + "a", folder + "c");
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  ASSERT_FALSE(Shown()["table"].isNull());
  std::filesystem::rename(folder + "c", folder + "a");
  EXPECT_TRUE(Shown()["table"].isNull());
}

// The first row was the oldest of all, and is the newest now: what it frees with all older is of
// the other rows, too, whose numbers are others.
TEST_F(ReportTable, RowsOfAnotherOrderThanTheTableTakeAllOrNothing) {
  const std::string now = Document(Sets(), {2, 3, 4, 5, 1, 0});
  FakeEngine(Numbers("2097153"));
  MustRun(Argv({"run", "photos", "--quiet"}));
  const std::string folder = volume_->Path("photos/.snapshots/");
  std::filesystem::rename(folder + Day(1), folder + Day(9));
  AnsweringEngine(now);
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  EXPECT_EQ(LeftOut("6 of 6"), Tool({"show", "photos"}).err);
}

// Its state was read before the result's, and it was there after it.
TEST_F(ReportTable, OneIsOfTheMomentWhenItWasAskedFor) {
  WriteFile("/tmp/document", Document(Sets()));
  EngineWithTable(
      "touch /tmp/asked; while [ ! -e /tmp/answer ]; do sleep 0.05; done; cat /tmp/document");
  Background plan(Argv({"plan", "photos", "--keep-last", "1"}));
  ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists("/tmp/asked"); }));
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  WriteFile("/tmp/answer", "");
  ASSERT_EQ(0, plan.Wait().status);
  EXPECT_TRUE(Shown()["table"].isNull());
}

// Nobody knows when it was read.
TEST_F(ReportTable, OneFromTheFutureIsNotUsed) {
  TakeTable();
  ASSERT_FALSE(Shown()["table"].isNull());
  for (const auto& entry : std::filesystem::directory_iterator(kCacheOfPhotos)) {
    std::string text = ReadFile(entry.path());
    const size_t at = text.find("\"taken\":1");
    if (at != std::string::npos) WriteFile(entry.path(), text.replace(at, 9, "\"taken\":2"));
  }
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["table"].isNull());
  EXPECT_TRUE(shown["generation"].isNull());
}

// Others are the older ones now.
TEST_F(ReportTable, RenamedSnapshotsHaveOtherOlderOnes) {
  TakeTable();
  const std::string folder = volume_->Path("photos/.snapshots/");
  std::filesystem::rename(folder + Day(1), folder + Day(9));
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_THAT(result.out, Not(HasSubstr("WITH OLDER")));
  EXPECT_EQ(LeftOut("6 of 6"), result.err);
}

// A plan that comes later has a table of a later state, which is the newest.
TEST_F(ReportTable, TheOneOfTheResultIsUsedNotTheNewest) {
  TakeTable();
  const std::string before = MustRun(Argv({"show", "photos"}));
  MustRun({"sync", "-f", "/volume1"});
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  RealEngine();
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  volume_->DeleteSubvolume("photos/.snapshots/" + Day(6));
  EXPECT_EQ(before, MustRun(Argv({"show", "photos"})));
}

// What has no time was the newest of all.
TEST_F(ReportTable, SnapshotsWithoutATimeHaveNoOlderOnes) {
  TakeTable();
  const Json::Value untimed = Shown()["snapshots"][5];
  ASSERT_EQ(kNoTime, untimed["name"].asString());
  EXPECT_EQ(0u, untimed["metadata"].asUInt64());
  EXPECT_TRUE(untimed["with_older"].isNull());
  EXPECT_TRUE(untimed["new"].isNull());
}

// Another volume came with the same mount point, and has subvolumes with the same numbers.
TEST_F(ReportTable, TableOfAnotherFileSystemIsNotShown) {
  TakeTable();
  ASSERT_FALSE(Shown()["table"].isNull());
  volume_.reset();
  volume_ = std::make_unique<BtrfsVolume>("/volume1");
  volume_->Subvolume("photos");
  for (const unsigned day : {1u, 2u}) volume_->Snapshot("photos", "photos/.snapshots/" + Day(day));
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["table"].isNull());
  for (const Json::Value& row : shown["snapshots"]) EXPECT_TRUE(row["with_older"].isNull()) << row;
}

TEST_F(ReportTable, SortsByItsColumns) {
  TakeTable();
  const std::string out = MustRun(Argv({"show", "photos", "-H", "--sort=-new"}));
  EXPECT_EQ(out.find(Day(3)) < out.find(Day(1)), true) << out;
  EXPECT_EQ(out.find(Day(1)) < out.find(kNoTime), true) << out;
}

// With the real engine the parts and the sum are those of one file system.
TEST_F(ReportTable, RealNumbersAgree) {
  RealEngine();
  WriteRandom(volume_->Path("photos/file"), 500000, 1);
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  WriteRandom(volume_->Path("photos/file"), 500000, 2);
  MustRun({"sync", "-f", "/volume1"});
  MustRun(Argv({"run", "photos", "--quiet"}));
  const Json::Value shown = Shown();
  unsigned long long exclusive = 0;
  for (const Json::Value& row : shown["snapshots"]) {
    exclusive += row["exclusive"].asUInt64();
    EXPECT_LE(row["metadata"].asUInt64(), row["exclusive"].asUInt64());
  }
  EXPECT_GT(exclusive, 500000u);
  EXPECT_EQ(shown["table"]["all"].asUInt64(),
            exclusive + shown["table"]["held_by_several"].asUInt64());
}

class CmdRunTable : public ReportTable {
 protected:
  static constexpr char kNotRead[] =
      "zorv-snapusage: note: metadata, with older and new could not be read: ";
  static constexpr char kGetThem[] = "; get them with: zorv-snapusage run photos\n";

  static CommandResult RunPhotos() { return Tool({"run", "photos", "--quiet"}); }
};

TEST_F(CmdRunTable, IsReadAtTheEndAndKept) {
  WriteFile("/tmp/document", Document(Sets()));
  EngineWithTable("cat /tmp/document");
  const CommandResult run = RunPhotos();
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  EXPECT_THAT(run.out, HasSubstr("  16.00 KiB    1.02 MiB  16.05 MiB  257  "));
  EXPECT_THAT(run.out,
              HasSubstr("\nall 6 snapshots then free 138.05 MiB together: 103.02 MiB exclusive, "
                        "35.03 MiB held only by two or more of them\n"));
  std::filesystem::remove("/sbin/btrfs");
  EXPECT_EQ(run.out, MustRun(Argv({"show", "photos"}))) << "which asks nobody";
}

TEST_F(CmdRunTable, IsInTheDocument) {
  WriteFile("/tmp/document", Document(Sets()));
  EngineWithTable("cat /tmp/document");
  const Json::Value document =
      ParseJson(MustRun(Argv({"run", "photos", "--quiet", "--format", "json"})));
  EXPECT_EQ(7u, document["table"]["generation"].asUInt64());
  EXPECT_EQ(25u << 20, document["snapshots"][2]["new"].asUInt64());
  const Json::Value several =
      ParseJson(MustRun(Argv({"run", "--all", "--quiet", "--format", "json"})));
  EXPECT_EQ((138u << 20) + 49152, several["results"][0]["table"]["all"].asUInt64());
}

TEST_F(CmdRunTable, OneThatCannotBeReadIsSaidAndNoFailure) {
  EngineWithTable("echo 'ERROR: a balance does not end' >&2; exit 1");
  const CommandResult run = RunPhotos();
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(std::string(kNotRead) +
                "reading the file system failed: a balance does not end; try again when it is "
                "over: btrfs balance status" +
                kGetThem,
            run.err);
  EXPECT_THAT(run.out, HasSubstr(", complete\n\n EXCLUSIVE  RUNNING TOTAL   ID  "));
  EXPECT_THAT(run.out, HasSubstr("  1.02 MiB       1.02 MiB  257  "));
}

TEST_F(CmdRunTable, EarlierOneIsNotShownWhereNoneCanBeRead) {
  TakeTable();
  EngineWithTable("echo garbage");
  const CommandResult run = RunPhotos();
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.err, testing::StartsWith(kNotRead + std::string("the engine's answer")));
  EXPECT_THAT(run.out, Not(HasSubstr(" then free "))) << "it may be of another state";
}

TEST_F(CmdRunTable, OneInSomebodyElsesHandsIsNotUsed) {
  TakeTable();
  EngineWithTable(kTable);
  MustRun({"chown", "4711", kCacheOfPhotos});
  const CommandResult run = RunPhotos();
  EXPECT_EQ(0, run.status);
  EXPECT_THAT(run.err, testing::StartsWith(kNotRead + ("'" + std::string(kCacheOfPhotos)) + "' "));
  EXPECT_THAT(run.out, HasSubstr("EXCLUSIVE  RUNNING TOTAL   ID  "));
}

TEST_F(CmdRunTable, CtrlCEndsItsReadingAndShowsTheResult) {
  EngineWithTable("echo $$ > /tmp/engine.pid; exec sleep 1000");
  Background run(Argv({"run", "photos"}), Background::Terminal{100});
  ASSERT_TRUE(run.HasSaid("zorv-snapusage: reading the file system (Ctrl-C ends it)"));
  const pid_t engine = atoi(ReadFile("/tmp/engine.pid").c_str());
  run.Type('\x03');
  const CommandResult result = run.Wait();
  EXPECT_EQ(0, result.status) << "the calculation is done";
  EXPECT_THAT(result.out, HasSubstr("could not be read: interrupted; get them with: "));
  EXPECT_THAT(result.out, HasSubstr("\n  1.02 MiB       1.02 MiB  257  "));
  EXPECT_NE(0, kill(engine, 0)) << "the engine has ended before the program";
}

TEST_F(CmdRunTable, SavesThePlanItsReading) {
  RealEngine();
  ASSERT_EQ("", RunPhotos().err);
  EngineWithTable("false");
  EXPECT_EQ(5u, Planned({"--delete", "%"})["steps"].size()) << "the table of the run";
}

// A result does not say which state it is of; a table of the same numbers does.
class ResultGeneration : public ReportTable {
 protected:
  ResultGeneration() {
    RealEngine();
    WriteRandom(volume_->Path("photos/file"), 500000, 1);
    volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
    MustRun({"sync", "-f", "/volume1"});
  }

  // The rows of shares and status.
  static Json::Value Row(const std::string& command) {
    return ParseJson(MustRun(Argv({command, "--format", "json"})))["shares"][0];
  }

  void Replace(unsigned seed) {
    WriteRandom(volume_->Path("photos/file"), 500000, seed);
    MustRun({"sync", "-f", "/volume1"});
  }
};

TEST_F(ResultGeneration, IsThatOfATableWithItsNumbers) {
  const std::string run = MustRun(Argv({"run", "photos", "--quiet"}));
  const Json::Value shown = Shown();
  const std::string generation = shown["table"]["generation"].asString();
  EXPECT_EQ(generation, shown["generation"].asString());
  EXPECT_THAT(run, ContainsRegex("^share photos, calculated ....-..-.. ..:..:.., generation " +
                                 generation + ", complete\n"));
  EXPECT_EQ(generation, Row("shares")["generation"].asString());
  EXPECT_GE(Row("shares")["generation_now"].asUInt64(), shown["generation"].asUInt64());
  EXPECT_EQ(generation, Row("status")["generation"].asString());
  EXPECT_THAT(MustRun(Argv({"status", "photos"})),
              HasSubstr("\ngeneration:      " + generation + "\n"));
}

TEST_F(ResultGeneration, OutlivesLaterTables) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  const Json::Value before = Shown();
  Replace(2);
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  const Json::Value shown = Shown();
  EXPECT_EQ(before["table"], shown["table"]) << "of the same state as the result";
  EXPECT_EQ(before["generation"], shown["generation"]) << "of the file that is gone since";
  EXPECT_GT(Row("shares")["generation_now"].asUInt64(), before["generation"].asUInt64());
}

TEST_F(ResultGeneration, IsUnknownWhereNoTableHasItsNumbers) {
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  EXPECT_TRUE(Shown()["generation"].isNull()) << "there is no table";
  Replace(2);
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  EXPECT_FALSE(Shown()["table"].isNull());
  EXPECT_TRUE(Shown()["generation"].isNull()) << "of other numbers";
  EXPECT_TRUE(Row("shares")["generation"].isNull());
  EXPECT_TRUE(Row("status")["generation"].isNull());
  EXPECT_THAT(MustRun(Argv({"status", "photos"})), Not(HasSubstr("generation")));
}

TEST_F(ResultGeneration, IsTheNewestWithItsNumbers) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  const Json::Value before = Shown();
  volume_->Subvolume("mail");
  MustRun({"sync", "-f", "/volume1"});
  const Json::Value plan = Planned({"--keep-last", "1"});
  EXPECT_GT(plan["generation"].asUInt64(), before["generation"].asUInt64());
  EXPECT_EQ(plan["generation"], Shown()["generation"]);
}

TEST_F(ResultGeneration, IsUnknownWhereNoTableHasAllItsSnapshots) {
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  volume_->DeleteSubvolume("photos/.snapshots/" + Day(3));
  MustRun({kStockBtrfs, "filesystem", "sync", "/volume1"});
  MustRun({kStockBtrfs, "subvolume", "sync", "/volume1"});
  EXPECT_EQ(4u, Planned({"--keep-last", "1"})["steps"].size()) << "which keeps its table";
  EXPECT_TRUE(Shown()["generation"].isNull());
}

TEST_F(ResultGeneration, OfNoSnapshotsHasNone) {
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  FakeEngine("true\n");
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  const Json::Value shown = ParseJson(Tool({"show", "photos", "--format", "json"}).out);
  ASSERT_FALSE(std::filesystem::is_empty(kCacheOfPhotos));
  EXPECT_EQ(0u, shown["snapshots"].size());
  EXPECT_TRUE(shown["generation"].isNull());
}

TEST_F(ResultGeneration, TableInSomebodyElsesHandsSaysNothing) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  MustRun({"chown", "4711", kCacheOfPhotos});
  EXPECT_TRUE(Row("shares")["generation"].isNull());
  EXPECT_TRUE(Row("status")["generation"].isNull());
}

}  // namespace
