// What a kept table adds to a share's result: its columns, its own time, and the line that explains
// the sum.
#include "tests/cli/plan_world.h"

using namespace ZorvTest;

namespace {

class ReportTable : public PlanWorld {
 protected:
  // A result of the engine that prints ten times the ID, then a table of one that is asked by plan.
  ReportTable() { MustRun(Argv({"run", "photos", "--quiet"})); }

  void TakeTable() {
    TableEngine({{{1}, 1 << 20, 16384},
                 {{2}, 2 << 20},
                 {{0}, 100 << 20},
                 {{1, 2}, 10 << 20, 32768},
                 {{1, 3}, 5 << 20},
                 {{3, 4, 5}, 20 << 20}});
    MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  }
};

TEST_F(ReportTable, ColumnsAndTheLineThatExplainsTheSum) {
  TakeTable();
  const std::string out = MustRun(Argv({"show", "photos"}));
  EXPECT_THAT(out, HasSubstr("EXCLUSIVE  RUNNING TOTAL   METADATA  WITH OLDER         NEW   ID  "));
  EXPECT_THAT(out, HasSubstr("  16.00 KiB    1.02 MiB   16.05 MiB  257  "));
  EXPECT_THAT(out, HasSubstr("        0 B   13.05 MiB    2.00 MiB  258  "))
      << "with what both hold";
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
  EXPECT_EQ(ID(Day(3)) * 10, third["exclusive"].asUInt64()) << "the result's own";
}

TEST_F(ReportTable, WithoutOneNothingIsMadeUp) {
  EXPECT_THAT(MustRun(Argv({"show", "photos"})), Not(HasSubstr("WITH OLDER")));
  EXPECT_THAT(MustRun(Argv({"show", "photos", "-H"})),
              testing::StartsWith("2570\t2570\t-\t-\t-\t257\t"))
      << "scripts find each column in its place";
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["table"].isNull());
  EXPECT_TRUE(shown["snapshots"][0]["with_older"].isNull());
}

TEST_F(ReportTable, SnapshotsThatItDoesNotHaveStayEmpty) {
  TakeTable();
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  FakeEngine(kAnswer);
  MustRun(Argv({"run", "photos", "--quiet"}));
  const Json::Value shown = Shown();
  ASSERT_EQ(Day(6), shown["snapshots"][5]["name"].asString());
  EXPECT_TRUE(shown["snapshots"][5]["metadata"].isNull());
  EXPECT_EQ(0u, shown["snapshots"][4]["metadata"].asUInt64());
  EXPECT_EQ(6u, shown["table"]["snapshots"].asUInt64()) << "the table is as of its own time";
}

TEST_F(ReportTable, SortsByItsColumns) {
  TakeTable();
  const std::string out = MustRun(Argv({"show", "photos", "-H", "--sort=-new"}));
  EXPECT_EQ(out.find(kNoTime) < out.find(Day(3)), true) << out;
  EXPECT_EQ(out.find(Day(3)) < out.find(Day(1)), true) << out;
}

// With the real engine the parts and the sum are those of one file system.
TEST_F(ReportTable, RealNumbersAgree) {
  RealEngine();
  WriteRandom(volume_->Path("photos/file"), 500000, 1);
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  WriteRandom(volume_->Path("photos/file"), 500000, 2);
  MustRun({"sync", "-f", "/volume1"});
  MustRun(Argv({"run", "photos", "--quiet"}));
  MustRun(Argv({"plan", "photos", "--delete", "%"}));
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

}  // namespace
