// The program over the real engine: its numbers are the kernel's.
#include "tests/cli/cli_world.h"
#include "tests/engine/held_row.h"
#include "tests/support/engine_worker.h"

using namespace ZorvTest;

namespace {

class CmdRunBtrfs : public CliWorld {
 protected:
  CmdRunBtrfs() { RealEngine(); }

  // Snapshots that hold bytes of their own.
  void Churn() {
    for (unsigned day = 3; day < 9; ++day) {
      WriteRandom(volume_->Path("photos/growing"), 200000, day, day * 100000);
      WriteRandom(volume_->Path("photos/replaced"), 300000, day);
      volume_->Snapshot("photos",
                        "photos/.snapshots/GMT-2024.03.0" + std::to_string(day) + "-09.04.09");
    }
    MustRun({"sync", "-f", "/volume1"});
  }
};

TEST_F(CmdRunBtrfs, NumbersEqualTheKernels) {
  Churn();
  const CommandResult run = Tool({"run", "photos"});
  ASSERT_EQ(0, run.status) << run.err;
  const auto kernel = volume_->KernelExclusive();
  const Json::Value shown = Shown();
  ASSERT_EQ(9u, shown["snapshots"].size());
  unsigned long long total = 0, largest = 0;
  for (const Json::Value& row : shown["snapshots"]) {
    SCOPED_TRACE(row["name"].asString());
    const unsigned long long exclusive = row["exclusive"].asUInt64();
    EXPECT_EQ(kernel.at(row["subvolume_id"].asUInt64()), exclusive);
    EXPECT_EQ(total += exclusive, row["running_total"].asUInt64());
    largest = std::max(largest, exclusive);
  }
  EXPECT_GT(largest, 300000u) << "the snapshots hold something";
}

TEST_F(CmdRunBtrfs, OneOfManyHasTheSameNumber) {
  Churn();
  const std::string name = "GMT-2024.03.05-09.04.09";
  ASSERT_EQ(0, Tool({"run", "photos", "--snapshot", name}).status);
  const Json::Value shown = Shown();
  ASSERT_EQ(1u, shown["snapshots"].size());
  EXPECT_EQ(volume_->KernelExclusive().at(ID(name)), shown["snapshots"][0]["exclusive"].asUInt64());
  EXPECT_EQ(8u, shown["not_measured"].size());
}

TEST_F(CmdRunBtrfs, SaysThatItWaitsForOtherRuns) {
  HeldRow held(RowOf("/volume1"));
  Background run(Argv({"run", "photos"}));
  EXPECT_TRUE(run.HasSaid("NOTE: waiting for other runs on this file system: 1 ahead\n"));
  EXPECT_THAT(MustRun(Argv({"status", "photos"})), HasSubstr("process"));
  EXPECT_EQ("", run.Out());
  held.Release();
  EXPECT_EQ(0, run.Wait().status);
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdRunBtrfs, CanBeStoppedWhileItWaits) {
  const HeldRow held(RowOf("/volume1"));
  Background run(Argv({"run", "photos", "--quiet"}));
  EXPECT_TRUE(run.HasSaid("NOTE: waiting"));
  EXPECT_EQ("ended the calculation of share 'photos': state stop\n",
            MustRun(Argv({"stop", "photos"})));
  EXPECT_EQ(12, run.Wait().status);
  EXPECT_EQ(std::vector<pid_t>{held.Holder()}, RunsInRow(RowOf("/volume1")));
}

TEST_F(CmdRunBtrfs, CtrlCInTheMiddle) {
  Churn();
  // A quick run may be over before its worker is seen: then there is another.
  CommandResult result;
  for (int attempt = 0; result.status != 12; ++attempt) {
    ASSERT_LT(attempt, 50) << "no run could be held";
    Background run(Argv({"run", "photos"}), Background::Terminal{100});
    if (HoldEngineWorker(5) > 0) run.Type('\x03');
    result = run.Wait();
    ASSERT_TRUE(result.status == 12 || result.status == 0) << result.out;
  }
  EXPECT_EQ("stop", ParseJson(ReadFile(kStatusOfPhotos))["status"].asString());
  EXPECT_EQ(0, Tool({"run", "photos"}).status) << "and the share is free at once";
}

}  // namespace
