// `plan`: which snapshots go, what comes free, and what is refused. The engine prints what the test
// says.
#include <signal.h>

#include <map>
#include <random>

#include "tests/cli/plan_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

class CmdPlan : public PlanWorld {
 protected:
  // Day N alone holds N MiB; the first two share 10, the third to the fifth 20.
  CmdPlan() {
    TableEngine({{{1}, 1 << 20, 16384},
                 {{2}, 2 << 20},
                 {{3}, 3 << 20},
                 {{4}, 4 << 20},
                 {{5}, 5 << 20},
                 {{0}, 100 << 20},
                 {{1, 2}, 10 << 20, 32768},
                 {{3, 4, 5}, 20 << 20}});
  }

  static void ExpectWrong(const Names& words, int status, const std::string& line) {
    Names all = {"plan", "photos"};
    all.insert(all.end(), words.begin(), words.end());
    const CommandResult result = Tool(all);
    EXPECT_EQ(status, result.status) << line;
    EXPECT_EQ("zorv-snapusage: " + line + "\n", result.err);
    EXPECT_EQ("", result.out);
  }
};

TEST_F(CmdPlan, TableForPeople) {
  const std::string out = MustRun(Argv({"plan", "photos", "--delete", Day(2) + "," + Day(1)}));
  EXPECT_THAT(out, testing::StartsWith("share photos, plan for the state of "));
  EXPECT_THAT(out,
              HasSubstr(" (generation 7)\n\nSTEP      FREES  OF IT METADATA     SO FAR   ID  "));
  EXPECT_THAT(out, HasSubstr("   1   2.00 MiB             0 B   2.00 MiB  "));
  EXPECT_THAT(out, HasSubstr("   2  11.05 MiB       48.00 KiB  13.05 MiB  "));
  EXPECT_THAT(out, HasSubstr("\n\ntogether 13.05 MiB from 2 of 6 snapshots, of it 48.00 KiB "
                             "metadata\nthis is a plan: nothing has been deleted\n"));
  EXPECT_EQ(Day(2) + "\n", out.substr(out.find(Day(2)), Day(2).size() + 1)) << "names come last";
}

TEST_F(CmdPlan, ForScriptsAndInOtherUnits) {
  const Names words = {"plan", "photos", "--delete", Day(1)};
  const auto with = [&](Names more) {
    more.insert(more.begin(), words.begin(), words.end());
    return MustRun(Argv(more));
  };
  EXPECT_EQ(
      "1\t1064960\t16384\t1064960\t" + IdOf(1) + "\t2024-03-01T09:04:09+00:00\t" + Day(1) + "\n",
      with({"-H"}));
  EXPECT_THAT(with({"--si"}), HasSubstr("together 1.06 MB from 1 of 6 snapshots, of it 16.38 kB"));
  EXPECT_THAT(with({"--raw"}), HasSubstr("together 1064960 from"));
}

TEST_F(CmdPlan, JsonHasNumbersAsNumbers) {
  const Json::Value plan = Planned({"--delete", Day(2) + "," + Day(1)});
  EXPECT_EQ(1, plan["__header"]["version"].asInt());
  EXPECT_EQ("photos", plan["share"].asString());
  EXPECT_EQ(7u, plan["generation"].asUInt64());
  EXPECT_TRUE(plan["taken_timestamp"].isIntegral());
  ASSERT_EQ(2u, plan["steps"].size());
  const Json::Value& step = plan["steps"][1];
  EXPECT_EQ(2u, step["step"].asUInt());
  EXPECT_EQ(Day(1), step["name"].asString());
  EXPECT_EQ(ID(Day(1)), step["subvolume_id"].asUInt64());
  EXPECT_EQ((11u << 20) + 49152, step["frees"].asUInt64());
  EXPECT_EQ(49152u, step["metadata"].asUInt64());
  EXPECT_EQ((13u << 20) + 49152, step["so_far"].asUInt64());
  EXPECT_EQ((13u << 20) + 49152, plan["together"]["frees"].asUInt64());
  EXPECT_FALSE(plan.isMember("target"));
}

TEST_F(CmdPlan, RangesAreInTheOrderOfTime) {
  EXPECT_EQ((Names{Day(2), Day(3), Day(4)}), NamesOf(Planned({"--delete", Day(2) + "%" + Day(4)})));
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(Planned({"--delete", "%" + Day(2)})));
  EXPECT_EQ((Names{Day(4), Day(5)}), NamesOf(Planned({"--delete", Day(4) + "%"})))
      << "what has no time is in no range";
  EXPECT_EQ(5u, Planned({"--delete", "%"})["steps"].size());
  EXPECT_EQ((Names{Day(3)}), NamesOf(Planned({"--delete", Day(3) + "%" + Day(3)})));
}

TEST_F(CmdPlan, NamesAreInTheOrderGiven) {
  EXPECT_EQ((Names{Day(5), kNoTime, Day(1)}),
            NamesOf(Planned({"--delete", Day(5) + "," + kNoTime, "--delete", Day(1)})));
  EXPECT_EQ((Names{Day(5), Day(1), Day(2)}),
            NamesOf(Planned(
                {"--delete", Day(5) + "," + Day(1) + "," + Day(5), "--delete", "%" + Day(2)})))
      << "each once, at its first place";
}

TEST_F(CmdPlan, NameWithACommaOrAPercentIsAName) {
  volume_->Snapshot("photos", "photos/.snapshots/a,b");
  volume_->Snapshot("photos", "photos/.snapshots/50%");
  RealEngine();
  EXPECT_EQ((Names{"a,b"}), NamesOf(Planned({"--delete", "a,b"})));
  EXPECT_EQ((Names{"50%"}), NamesOf(Planned({"--delete", "50%"})));
}

TEST_F(CmdPlan, RulesChooseTheOldestFirst) {
  EXPECT_EQ(5u, Planned({"--older-than", "90d"})["steps"].size());
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(Planned({"--until", "2024-03-02"})));
  EXPECT_EQ((Names{Day(1)}), NamesOf(Planned({"--until", "2024-03-02 09:03"})));
  EXPECT_EQ((Names{Day(1), Day(2), Day(3)}), NamesOf(Planned({"--keep-last", "2"})));
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(Planned({"--older-than", "90d", "--keep-last", "3"})));
  EXPECT_EQ((Names{Day(2), Day(4)}),
            NamesOf(Planned({"--until", "2024-03-04", "--keep", Day(1), "--keep", Day(3)})));
  // 1 to 3 March 2024 are the end of one week, 4 March is a Monday.
  EXPECT_EQ((Names{Day(1), Day(2), Day(4)}), NamesOf(Planned({"--policy", "5w"})));
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(Planned({"--policy", "1m2w2d"})));
  EXPECT_EQ((Names{Day(2)}), NamesOf(Planned({"--policy", "1m2w2d", "--keep", Day(1)})));
}

TEST_F(CmdPlan, FreeTakesTheOldestUntilItIsEnough) {
  const Json::Value plan = Planned({"--free", "12M"});
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(plan));
  EXPECT_EQ(12u << 20, plan["target"].asUInt64());
  EXPECT_TRUE(plan["reached"].asBool());
  EXPECT_EQ((45u << 20) + 49152, plan["most"]["frees"].asUInt64());
  EXPECT_EQ((Names{Day(2), Day(3)}), NamesOf(Planned({"--free", "5M", "--keep", Day(1)})));
}

TEST_F(CmdPlan, FewestTakesWhatIsFreeTogether) {
  const Json::Value plan = Planned({"--free", "30M", "--fewest"});
  EXPECT_EQ((Names{Day(3), Day(4), Day(5)}), NamesOf(plan));
  EXPECT_EQ(3u, plan["at_least"].asUInt());
  EXPECT_TRUE(plan["proved"].asBool());
  EXPECT_EQ((Names{Day(5)}), NamesOf(Planned({"--free", "4.5M", "--fewest"})));
  EXPECT_THAT(MustRun(Argv({"plan", "photos", "--free", "30M", "--fewest"})),
              HasSubstr("\nno fewer than 3 snapshots will do\n"));
}

TEST_F(CmdPlan, TargetThatCannotBeReached) {
  ExpectWrong(
      {"--free", "1G", "--keep-last", "1"}, 17,
      "all 4 snapshots of share 'photos' that may go free 20.05 MiB together, not 1.00 GiB; "
      "ask for less, or keep fewer");
  ExpectWrong(
      {"--free", "1G", "--fewest"}, 17,
      "all 5 snapshots of share 'photos' that may go free 45.05 MiB together, not 1.00 GiB; "
      "ask for less, or keep fewer");
  ExpectWrong({"--free", "47235073"}, 17,
              "all 5 snapshots of share 'photos' that may go free 47235072 bytes together, not "
              "47235073 bytes; ask for less, or keep fewer");
  const CommandResult json = Tool({"plan", "photos", "--free", "1G", "--format", "json"});
  EXPECT_EQ(17, json.status);
  const Json::Value plan = ParseJson(json.out);
  EXPECT_FALSE(plan["reached"].asBool());
  EXPECT_EQ(0u, plan["steps"].size());
  EXPECT_EQ((45u << 20) + 49152, plan["most"]["frees"].asUInt64());
}

TEST_F(CmdPlan, WrongCommandLines) {
  ExpectWrong({}, 2,
              "what is to be deleted is not said; give --delete, --older-than, --until, "
              "--keep-last, --policy or --free");
  ExpectWrong({"--until", "2024-03-02", "--older-than", "1d"}, 2,
              "--older-than and --until cannot be asked for together; leave one of them out");
  ExpectWrong({"--free", "1G", "--policy", "1d"}, 2,
              "--policy and --free cannot be asked for together; leave one of them out");
  ExpectWrong({"--delete", Day(1), "--keep-last", "1"}, 2,
              "--delete names what goes, and nothing is to be kept from it; leave out --keep and "
              "--keep-last");
  ExpectWrong({"--policy", "7d", "--fewest"}, 2,
              "--fewest goes with --free; say how much is to come free");
  ExpectWrong({"--older-than", "soon"}, 2,
              "'soon' is no age; write hours, days, weeks, months or years as 36h, 90d, 8w, 6m or "
              "2y");
  ExpectWrong({"--until", "yesterday"}, 2,
              "'yesterday' is no time; write 2024-03-05, \"2024-03-05 17:04\" or "
              "2024.03.05-17.04.09");
  ExpectWrong({"--policy", "7d7d"}, 2,
              "'7d7d' is no policy; write how many hours, days, weeks, months and years keep one, "
              "as 24h7d4w12m2y");
  for (const char* size : {"0", "much", "-1G"})
    ExpectWrong({std::string("--free=") + size}, 2,
                std::string("'") + size +
                    "' is no amount of bytes; write it as 200G, 1.5T, 500MB or 1073741824");
  ExpectWrong({"--delete", Day(4) + "%" + Day(2)}, 2,
              "the range '" + Day(4) + "%" + Day(2) + "' ends before it begins; exchange its ends");
  ExpectWrong({"--delete", Day(4) + "%by hand"}, 2,
              "snapshot 'by hand' has no time, and is in no range; name it by itself: --delete 'by "
              "hand'");
  EXPECT_EQ(2, Tool({"plan", "photos", "--keep-last", "0"}).status);
  EXPECT_EQ(2, Tool({"plan", "photos", "--keep-last", "x"}).status);
  EXPECT_EQ(0u, Asked()) << "before anything is read";
}

// An option that is there with an empty text, by a variable that was never set, is no option that
// is not there.
TEST_F(CmdPlan, EmptyWordsAreRefused) {
  for (const char* option : {"--older-than", "--until", "--policy", "--free", "--delete", "--keep"})
    EXPECT_NE(0, Tool({"plan", "photos", "--keep-last", "1", option, ""}).status) << option;
}

TEST_F(CmdPlan, UnknownNames) {
  const CommandResult result = Tool({"plan", "photos", "--delete", "GMT-2024.03.01-09.04.08"});
  EXPECT_EQ(8, result.status);
  EXPECT_THAT(result.err, HasSubstr("share 'photos' has no snapshot 'GMT-2024.03.01-09.04.08'; did "
                                    "you mean '" +
                                    Day(1) + "'?"));
  EXPECT_EQ(8, Tool({"plan", "photos", "--delete", Day(1) + ","}).status);
  EXPECT_EQ(8, Tool({"plan", "photos", "--delete", "nobody%"}).status);
  EXPECT_EQ(8, Tool({"plan", "photos", "--free", "1M", "--keep", "nobody"}).status);
  EXPECT_EQ(5, Tool({"plan", "phots", "--free", "1M"}).status);
}

TEST_F(CmdPlan, NothingThatGoes) {
  ExpectWrong({"--policy", "99d"}, 9,
              "no snapshot of share 'photos' is to go by that; ask for others; snapshots whose "
              "names carry no time go when they are named only");
  EXPECT_EQ(9, Tool({"plan", "photos", "--keep-last", "5"}).status);
  EXPECT_EQ(9, Tool({"plan", "photos", "--until", "2020-01-01"}).status);
  volume_->Subvolume("empty");
  EXPECT_EQ(9, Tool({"plan", "empty", "--free", "1M"}).status);
}

TEST_F(CmdPlan, DeletesNothing) {
  MustRun(Argv({"plan", "photos", "--delete", "%"}));
  for (unsigned day = 1; day <= 5; ++day) EXPECT_GT(ID(Day(day)), 256u);
}

TEST_F(CmdPlan, EngineThatFailsIsQuotedWithWhatHelps) {
  const struct {
    const char *reason, *next;
    int status;
  } kCases[] = {
      {"subvolume 300 is being deleted", "wait for that with: btrfs subvolume sync /volume1", 11},
      {"a balance goes on beside /dev/mapper/zoned", "try again when it is over: btrfs balance",
       11},
      {"cannot open device /dev/mapper/balance: Input/output error",
       "see what is in the way with: /sbin/btrfs subvolume size --check -r /volume1", 11},
      {"there is no subvolume 300", "a snapshot has gone since; try again", 11},
      {"device 2 is missing and tree block 5 lies nowhere else",
       "attach the device, or replace it with: btrfs replace", 11},
      {"a balance is removing what it has moved, and does not end",
       "try again when it is over: btrfs balance status", 11},
      {"the file system changes faster than it can be read",
       "try again when the file system is quieter", 11},
      {"tree block 5 (level 0, generation 7) cannot be used: its checksum is wrong",
       "look for damage with: btrfs scrub start", 11},
      {"this needs root", "run it with sudo", 3},
      {"something new",
       "see what is in the way with: /sbin/btrfs subvolume size --check -r /volume1", 11},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.reason);
    FakeEngine(std::string("echo 'NOTE: a note' >&2; echo 'ERROR: ") + c.reason +
               "' >&2; echo 'exclusive sizes unavailable: x'; exit 1\n");
    const CommandResult result = Tool({"plan", "photos", "--keep-last", "1"});
    EXPECT_EQ(c.status, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_THAT(result.err,
                testing::StartsWith(
                    std::string("zorv-snapusage: note: a note\nzorv-snapusage: reading the file "
                                "system failed: ") +
                    c.reason + "; " + c.next));
  }
  FakeEngine("echo 'exclusive sizes unavailable: no words'; exit 1\n");
  EXPECT_THAT(Tool({"plan", "photos", "--keep-last", "1"}).err, HasSubstr("failed: no words; "));
  FakeEngine("kill -KILL $$\n");
  EXPECT_THAT(Tool({"plan", "photos", "--keep-last", "1"}).err,
              HasSubstr("failed: it ended without a result; "));
}

// The share's name was taken for what the engine says.
TEST_F(CmdPlan, WhatHelpsIsNotFoundInThePath) {
  const std::string share = volume_->Subvolume("a balance");
  volume_->Snapshot("a balance", "a balance/.snapshots/" + Day(1));
  const auto advice = [&](const std::string& reason) {
    FakeEngine("echo 'ERROR: " + reason + "' >&2; exit 1\n");
    return Tool({"plan", "a balance", "--delete", "%"}).err;
  };
  EXPECT_THAT(advice("cannot look at " + share + "/file: Input/output error"),
              HasSubstr("; see what is in the way with: "));
  EXPECT_THAT(advice("cannot open " + share + ": No such file or directory"),
              HasSubstr("; it has gone since; try again\n"));
}

// The engine's own advice came first, and both were without the path that the command needs.
TEST_F(CmdPlan, WaitForADeletionIsAdvisedOnceWithItsPath) {
  FakeEngine(
      "echo 'ERROR: subvolume 300 is being deleted; wait with btrfs subvolume sync' >&2; exit 1\n");
  ExpectWrong({"--keep-last", "1"}, 11,
              "reading the file system failed: subvolume 300 is being deleted; wait for that with: "
              "btrfs subvolume sync /volume1/photos");
}

TEST_F(CmdPlan, AnswerThatCannotBeRead) {
  const std::string whole = Document({{{1}, 5}});
  for (const std::string& text :
       {std::string("generation 7\n"), std::string(), whole.substr(0, whole.size() / 2),
        std::string(whole).replace(whole.find("\"version\":1"), 11, "\"version\":2")}) {
    AnsweringEngine(text);
    const CommandResult result = Tool({"plan", "photos", "--keep-last", "1"});
    EXPECT_EQ(7, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_THAT(result.err, HasSubstr("the engine's answer cannot be read ("));
    EXPECT_THAT(result.err, HasSubstr("); install the engine that belongs to this program\n"));
  }
}

TEST_F(CmdPlan, NoEngine) {
  std::filesystem::remove("/sbin/btrfs");
  EXPECT_EQ(6, Tool({"plan", "photos", "--keep-last", "1"}).status);
  WriteScript("/sbin/btrfs", "echo 'btrfs-progs'\n");
  EXPECT_EQ(7, Tool({"plan", "photos", "--keep-last", "1"}).status);
}

// The engine stands where the program's package has it, and nowhere else.
class CmdPlanOwnEngine : public CmdPlan {
 protected:
  CmdPlanOwnEngine() {
    fs::create_directories(fs::path(kOwn).parent_path());
    fs::rename(kCommand, kOwn);
  }
  ~CmdPlanOwnEngine() override { fs::remove_all(fs::path(kOwn).parent_path()); }

  // By a table that is read anew.
  static CommandResult Plan() {
    fs::remove_all(kCache);
    return Tool({"plan", "photos", "--keep-last", "1"});
  }

  static constexpr char kCommand[] = "/sbin/btrfs";
  static constexpr char kOwn[] = "/usr/libexec/zorv-snapusage/btrfs";
};

// These ended with 6 and 7, though the program had brought an engine with it.
TEST_F(CmdPlanOwnEngine, IsAskedWhereTheCommandIsNone) {
  EXPECT_EQ(0, Plan().status) << "nothing is there";
  fs::copy_file(kStockBtrfs, kCommand);
  EXPECT_EQ(0, Plan().status) << "the stock command is there";
  fs::permissions(kCommand, fs::perms(0644));
  const CommandResult result = Plan();
  EXPECT_EQ(0, result.status) << "what is there cannot be started";
  EXPECT_EQ("", result.err);
  EXPECT_EQ(3u, Asked());
}

TEST_F(CmdPlanOwnEngine, IsNotAskedWhereTheCommandIsOne) {
  fs::rename(kOwn, kCommand);
  WriteScript(kOwn, "touch /tmp/own.asked; exit 1\n");
  EXPECT_EQ(0, Plan().status);
  EXPECT_FALSE(fs::exists("/tmp/own.asked"));
}

TEST_F(CmdPlanOwnEngine, IsNoneEither) {
  WriteScript(kOwn, "echo btrfs-progs\n");
  ExpectWrong({"--keep-last", "1"}, 7,
              std::string(kOwn) +
                  " is not an engine that calculates exclusive sizes; install the package "
                  "zorv-snapusage again");
  fs::permissions(kOwn, fs::perms(0644));
  ExpectWrong({"--keep-last", "1"}, 7,
              std::string(kOwn) +
                  " cannot be started (Permission denied); install the package zorv-snapusage "
                  "again");
}

TEST_F(CmdPlanOwnEngine, FailureSaysHowToAskIt) {
  FakeEngine("echo 'ERROR: something new' >&2; exit 1\n");
  fs::rename(kCommand, kOwn);
  ExpectWrong({"--keep-last", "1"}, 11,
              "reading the file system failed: something new; see what is in the way with: " +
                  std::string(kOwn) + " subvolume size --check -r /volume1/photos");
}

TEST_F(CmdPlanOwnEngine, CalculationsNeedTheCommand) {
  for (const char* command : {"run", "start"}) {
    const CommandResult result = Tool({command, "photos"});
    EXPECT_EQ(6, result.status) << command;
    EXPECT_EQ(
        "zorv-snapusage: /sbin/btrfs is missing; install zorv-btrfs-command, or the engine as "
        "/sbin/btrfs\n",
        result.err);
  }
}

// Sets that are summed up say nothing of another order: then the engine is asked for the plan
// itself.
class CmdPlanIncomplete : public CmdPlan {
 protected:
  CmdPlanIncomplete() {
    SumUp(5, 7);
    Forecasts({});
    WriteScript(
        "/sbin/btrfs",
        "case \"$3\" in\n"
        "--version) echo 'zorv btrfs engine 0.0.0';;\n"
        "--table) echo >> " +
            std::string(kAsked) +
            "; cat /tmp/document;;\n"
            "--forecast)\n"
            "  . /tmp/forecast\n"
            "  printf '{\"format\":\"zorv-subvolume-size\",\"version\":1,\"generation\":8,'\n"
            "  printf '\"subvolumes\":[%s],\"forecast\":{\"steps\":[' \"$4\"\n"
            "  IFS=,; between=\n"
            "  for id in $4; do\n"
            "    eval data=\\${frees$id:-${id}000000}\n"
            "    printf '%s{\"subvolume\":%s,\"data\":%s,\"metadata\":0}' \"$between\" $id $data\n"
            "    between=,\n"
            "  done\n"
            "  echo ']}}'\n"
            "esac\n");
  }
  ~CmdPlanIncomplete() override { fs::remove("/tmp/forecast"); }

  // The table has these bytes besides, summed up at a day.
  void SumUp(unsigned day, unsigned long long bytes) const {
    Replace("\"complete\":true", "\"complete\":false,\"note\":\"x\",\"summed_sets\":[{\"last\":" +
                                     IdOf(day) + "," + Bytes(bytes, 0) + "]");
  }

  static void Replace(const std::string& old, const std::string& text) {
    std::string document = ReadFile("/tmp/document");
    document.replace(document.find(old), old.size(), text);
    WriteFile("/tmp/document", document);
  }

  // Day N alone holds N MiB, and no two hold anything that the table knows of.
  void TableOfDays() const {
    std::vector<Set> sets;
    for (unsigned day = 1; day <= 5; ++day) sets.push_back({{day}, day << 20});
    WriteFile("/tmp/document", Document(sets));
  }

  // What a day frees in a plan, in MiB: a million times its ID where it is not said. The engine
  // then does `more`.
  void Forecasts(const std::map<unsigned, unsigned>& mebibytes,
                 const std::string& more = "") const {
    std::string script = more + "\n";
    for (const auto& [day, bytes] : mebibytes)
      script += "frees" + IdOf(day) + "=" + std::to_string(bytes << 20) + "\n";
    WriteFile("/tmp/forecast", script);
  }
};

TEST_F(CmdPlanIncomplete, OrderIsAskedOfTheEngine) {
  const Json::Value plan = Planned({"--delete", Day(2) + "," + Day(1)});
  EXPECT_EQ(8u, plan["generation"].asUInt64()) << "the state of the numbers";
  EXPECT_EQ(ID(Day(2)) * 1000000, plan["steps"][0]["frees"].asUInt64());
  EXPECT_EQ((ID(Day(2)) + ID(Day(1))) * 1000000, plan["together"]["frees"].asUInt64());
  EXPECT_EQ(
      (Names{Day(1), Day(2)}),
      NamesOf(Planned({"--free", std::to_string(ID(Day(1)) * 1000000 + 1), "--keep", Day(3)})));
}

TEST_F(CmdPlanIncomplete, OrderOfTheTableNeedsNoQuestion) {
  const Json::Value plan = Planned({"--delete", "%"});
  EXPECT_EQ(7u, plan["generation"].asUInt64());
  EXPECT_EQ((45u << 20) + 49152 + 7, plan["together"]["frees"].asUInt64());
}

TEST_F(CmdPlanIncomplete, FewestIsNotProved) {
  Forecasts({{2, 2}, {3, 3}, {4, 4}, {5, 25}});
  const Json::Value plan = Planned({"--free", "30M", "--fewest", "--keep", Day(1)});
  EXPECT_EQ((Names{Day(3), Day(4), Day(5)}), NamesOf(plan)) << "by the sets that are known";
  EXPECT_EQ(8u, plan["generation"].asUInt64()) << "the state of the numbers";
  EXPECT_EQ(32u << 20, plan["together"]["frees"].asUInt64());
  EXPECT_EQ(34u << 20, plan["most"]["frees"].asUInt64());
  EXPECT_EQ(1u, plan["at_least"].asUInt());
  EXPECT_FALSE(plan["proved"].asBool());
  Forecasts({});
  EXPECT_THAT(MustRun(Argv({"plan", "photos", "--free", "400M", "--fewest", "--keep", Day(1)})),
              HasSubstr("\nat most 2 snapshots are needed, 1 at least\n"))
      << "the oldest, where the sets are not enough";
}

// Three were to go, where the oldest two are enough.
TEST_F(CmdPlanIncomplete, FewestAreNeverMoreThanTheOldestThatAreEnough) {
  TableOfDays();
  SumUp(2, 10 << 20);
  Forecasts({{1, 1}, {2, 12}, {3, 3}, {4, 4}, {5, 5}});
  const Json::Value plan = Planned({"--free", "12M", "--fewest"});
  EXPECT_EQ((Names{Day(1), Day(2)}), NamesOf(plan));
  EXPECT_EQ(7u, plan["generation"].asUInt64()) << "these the table itself can say";
  EXPECT_EQ(13u << 20, plan["together"]["frees"].asUInt64());
  EXPECT_FALSE(plan["proved"].asBool());
}

TEST_F(CmdPlanIncomplete, FewestEndWhereItIsEnough) {
  TableOfDays();
  SumUp(4, 20 << 20);
  Forecasts({{1, 1}, {2, 2}, {3, 3}, {4, 24}, {5, 5}});
  EXPECT_EQ((Names{Day(3), Day(4)}), NamesOf(Planned({"--free", "12M", "--fewest"})))
      << "the sets alone need a third one";
}

// It was printed as one that frees as much as was asked for.
TEST_F(CmdPlanIncomplete, ChoiceThatALaterStateHasOvertakenIsMadeAgain) {
  WriteFile("/tmp/later", Document({{{2}, 2 << 20}, {{4}, 4 << 20}, {{2, 4}, 25 << 20}}));
  Forecasts({{2, 27}, {3, 3}, {4, 4}, {5, 5}}, "cp /tmp/later /tmp/document");
  const Json::Value plan = Planned({"--free", "30M", "--fewest", "--keep", Day(1)});
  EXPECT_EQ((Names{Day(2), Day(4)}), NamesOf(plan));
  EXPECT_EQ(31u << 20, plan["together"]["frees"].asUInt64());
  EXPECT_TRUE(plan["reached"].asBool());
  EXPECT_TRUE(plan["proved"].asBool());
}

TEST_F(CmdPlanIncomplete, ChoiceThatIsOvertakenEachTimeIsGivenUp) {
  Forecasts({{2, 2}, {3, 3}, {4, 4}, {5, 5}});
  for (const char* format : {"--raw", "--format=json"}) {
    const CommandResult result =
        Tool({"plan", "photos", "--free", "30M", "--fewest", "--keep", Day(1), format});
    EXPECT_EQ(11, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(
        "zorv-snapusage: what the snapshots of share 'photos' hold has changed each time that a "
        "plan was made; try again when the file system is quieter\n",
        result.err);
  }
  EXPECT_EQ(6u, Asked()) << "three tables each time";
}

// An engine that would take very long, and does not end when its output is closed.
class CmdPlanInterrupted : public CmdPlan {
 protected:
  CmdPlanInterrupted() { FakeEngine("echo $$ > /tmp/engine.pid; exec sleep 1000\n"); }

  static pid_t EnginePid() {
    return WaitUntil([] { return !ReadFileIfThere().empty(); }) ? atoi(ReadFileIfThere().c_str())
                                                                : -1;
  }
  ~CmdPlanInterrupted() override { std::filesystem::remove("/tmp/engine.pid"); }

  static void ExpectEnded(Background& plan, pid_t engine) {
    const CommandResult result = plan.Wait();
    EXPECT_EQ(130, result.status);
    EXPECT_NE(0, kill(engine, 0)) << "the engine has ended before the program";
    EXPECT_THAT(result.out + result.err, HasSubstr("interrupted; nothing was changed"));
  }

 private:
  static std::string ReadFileIfThere() {
    return std::filesystem::exists("/tmp/engine.pid") ? ReadFile("/tmp/engine.pid") : "";
  }
};

TEST_F(CmdPlanInterrupted, CtrlCEndsBoth) {
  Background plan(Argv({"plan", "photos", "--keep-last", "1"}), Background::Terminal{100});
  const pid_t engine = EnginePid();
  ASSERT_GT(engine, 0);
  plan.Type('\x03');
  ExpectEnded(plan, engine);
}

TEST_F(CmdPlanInterrupted, SignalToTheProgramAloneEndsBoth) {
  Background plan(Argv({"plan", "photos", "--keep-last", "1"}));
  const pid_t engine = EnginePid();
  ASSERT_GT(engine, 0);
  EXPECT_TRUE(plan.HasSaid("zorv-snapusage: reading the file system (Ctrl-C ends it)\n"));
  ASSERT_EQ(0, kill(plan.Pid(), SIGTERM));
  ExpectEnded(plan, engine);
}

// A hundred snapshots, any two of which share something: no proof is soon at its end.
TEST_F(CmdPlan, SearchForTheFewestSaysThatItGoesOnAndEndsWithCtrlC) {
  std::mt19937 random(1);
  Names ids = IdsOf({1, 2, 3, 4, 5});
  for (unsigned n = 0; n < 95; ++n) {
    const std::string name =
        "GMT-2024.04." + std::to_string(10 + n / 10) + "-" + std::to_string(10 + n % 10) + ".00.00";
    volume_->Snapshot("photos", "photos/.snapshots/" + name);
    ids.push_back(std::to_string(ID(name)));
  }
  Names sets;
  for (size_t i = 0; i < ids.size(); ++i)
    for (size_t j = i + 2; j < ids.size(); ++j)
      if (random() % 7 == 0) sets.push_back(SetText({ids[i], ids[j]}, random() % (1 << 20)));
  ids.push_back(IdOf(0));
  AnsweringEngine(DocumentOf(ids, sets));
  Background plan(Argv({"plan", "photos", "--free", "50M", "--fewest"}));
  ASSERT_TRUE(plan.HasSaid("zorv-snapusage: looking for the fewest snapshots (Ctrl-C ends it)\n"));
  ASSERT_EQ(0, kill(plan.Pid(), SIGINT));
  const CommandResult result = plan.Wait();
  EXPECT_EQ(130, result.status);
  EXPECT_EQ("", result.out);
  EXPECT_THAT(result.err, HasSubstr("interrupted; nothing was changed"));
}

}  // namespace
