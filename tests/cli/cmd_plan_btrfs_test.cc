// Plans are followed on a real file system: what they say is what the kernel then has free.
#include <sys/stat.h>

#include <algorithm>

#include "tests/cli/plan_world.h"
#include "tests/engine/held_row.h"
#include "tests/engine/tree_shapes.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

using Names = std::vector<std::string>;

constexpr unsigned kNodeSize = 16384;

// Snapshots lie in a directory of the share, which they share with it: where their names go from
// there, the kernel copies a few tree blocks.
constexpr int64_t kBlocksOfADirectory = 8;

class CmdPlanBtrfs : public CliWorld {
 protected:
  // Eight snapshots with a time: files that grow, that are replaced, that come and go, and one that
  // was brought back, so that some bytes are held by snapshots that are no neighbours.
  CmdPlanBtrfs() {
    RealEngine();
    for (unsigned day = 3; day < 9; ++day) {
      Write("growing", 200000, day, day * 100000);
      Write("replaced", 300000 + day * 50000, day);
      Write("passing" + std::to_string(day % 3), 400000, 100 + day);
      if (day == 4) Write("back", 900000, 77);
      if (day == 5) MustRun({"mv", volume_->Path("photos/back"), volume_->Path("kept aside")});
      if (day == 7)
        CloneRange({volume_->Path("photos/.snapshots/" + Day(4) + "/back")},
                   volume_->Path("photos/again"));
      volume_->Snapshot("photos", "photos/.snapshots/" + Day(day));
    }
    for (const char* file : {"growing", "replaced", "passing0", "passing1", "passing2", "again"})
      MustRun({"rm", volume_->Path(std::string("photos/") + file)});
    MustRun({"rm", volume_->Path("kept aside")});
    CommitAndClean("/volume1");
  }

  void Write(const std::string& file, size_t bytes, unsigned seed, size_t offset = 0) {
    WriteRandom(volume_->Path("photos/" + file), bytes, seed, offset);
  }

  static std::string Day(unsigned day) {
    return "GMT-2024.03.0" + std::to_string(day) + "-09.04.09";
  }

  static Json::Value Planned(Names words) {
    words.insert(words.begin(), {"plan", "photos", "--format", "json"});
    return ParseJson(MustRun(Argv(words)));
  }

  struct Used {
    int64_t data;
    int64_t trees;  // tree blocks of subvolumes
  };

  static Used UsedNow() {
    return {static_cast<int64_t>(UsedSpace("/volume1").data),
            static_cast<int64_t>(ReadExtentTree("/volume1").fileTreeBlocks) * kNodeSize};
  }

  // Deletes what the plan says, one after the other, and holds each step against the kernel.
  void Follow(const Json::Value& plan) {
    const Used before = UsedNow();
    Used now = before;
    int64_t metadata = 0;
    for (const Json::Value& step : plan["steps"]) {
      SCOPED_TRACE(step["name"].asString());
      DestroySubvolume(volume_->Path("photos/.snapshots/" + step["name"].asString()));
      CommitAndClean("/volume1");
      const Used after = UsedNow();
      EXPECT_EQ(step["frees"].asInt64() - step["metadata"].asInt64(), now.data - after.data);
      metadata += step["metadata"].asInt64();
      EXPECT_NEAR(metadata, before.trees - after.trees, kBlocksOfADirectory * kNodeSize);
      now = after;
    }
    const int64_t data =
        plan["together"]["frees"].asInt64() - plan["together"]["metadata"].asInt64();
    EXPECT_EQ(data, before.data - now.data);
    EXPECT_GT(data, 400000) << "something came free";
  }
};

TEST_F(CmdPlanBtrfs, NamedOnesInTheirOrder) {
  Follow(Planned({"--delete", Day(7) + "," + Day(4) + "," + Day(5), "--delete", kNoTime}));
}

TEST_F(CmdPlanBtrfs, Range) { Follow(Planned({"--delete", Day(3) + "%" + Day(6)})); }

TEST_F(CmdPlanBtrfs, RangeWithOpenEnds) {
  const Json::Value plan = Planned({"--delete", "%"});
  EXPECT_EQ(8u, plan["steps"].size());
  Follow(plan);
}

TEST_F(CmdPlanBtrfs, OlderThan) {
  Follow(Planned({"--older-than", "1y", "--keep-last", "2", "--keep", Day(4)}));
}

TEST_F(CmdPlanBtrfs, Until) { Follow(Planned({"--until", "2024-03-05 09:04:09"})); }

TEST_F(CmdPlanBtrfs, KeepLast) { Follow(Planned({"--keep-last", "3"})); }

TEST_F(CmdPlanBtrfs, Policy) { Follow(Planned({"--policy", "3d2w"})); }

TEST_F(CmdPlanBtrfs, FreeOldestFirst) {
  const Json::Value plan = Planned({"--free", "1.5M"});
  EXPECT_GE(plan["together"]["frees"].asUInt64(), 3u << 19);
  Follow(plan);
}

// All smaller choices are asked for one by one: none of them is enough.
TEST_F(CmdPlanBtrfs, FreeWithTheFewest) {
  const Json::Value plan = Planned({"--free", "2M", "--fewest", "--keep", Day(8)});
  ASSERT_TRUE(plan["proved"].asBool());
  const size_t count = plan["steps"].size();
  EXPECT_LT(count, Planned({"--free", "2M", "--keep", Day(8)})["steps"].size());
  for (unsigned chosen = 1; chosen < 1u << 7; ++chosen) {
    if (static_cast<size_t>(__builtin_popcount(chosen)) != count - 1) continue;
    std::string names;
    for (unsigned day = 1; day <= 7; ++day)
      if ((chosen >> (day - 1) & 1) != 0) names += (names.empty() ? "" : ",") + Day(day);
    EXPECT_LT(Planned({"--delete", names})["together"]["frees"].asUInt64(), 2u << 20) << names;
  }
  Follow(plan);
}

TEST_F(CmdPlanBtrfs, OneSnapshotFreesWhatTheKernelCallsExclusive) {
  const std::vector<std::string> names = {Day(3), Day(5), Day(8), kNoTime};
  std::vector<Json::Value> plans;
  for (const std::string& name : names) plans.push_back(Planned({"--delete", name}));
  std::vector<unsigned long long> ids;
  for (const std::string& name : names) ids.push_back(ID(name));
  const auto kernel = volume_->KernelExclusive();
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_EQ(kernel.at(ids[i]), plans[i]["together"]["frees"].asUInt64()) << names[i];
}

// What a set of snapshots holds together is the kernel's number for a quota group of them.
TEST_F(CmdPlanBtrfs, SeveralFreeWhatTheKernelCallsExclusiveOfAGroup) {
  const std::vector<std::vector<unsigned>> sets = {{3, 4}, {4, 7}, {3, 4, 5, 6, 7, 8}};
  std::vector<unsigned long long> planned;
  BtrfsVolume::IdSets ids;
  for (const auto& days : sets) {
    std::string names;
    ids.emplace_back();
    for (const unsigned day : days) {
      names += (names.empty() ? "" : ",") + Day(day);
      ids.back().push_back(ID(Day(day)));
    }
    planned.push_back(Planned({"--delete", names})["together"]["frees"].asUInt64());
  }
  EXPECT_EQ(planned, volume_->KernelExclusiveOf(ids).sets);
}

TEST_F(CmdPlanBtrfs, SaysThatItWaitsForOtherRunsAndCanBeEnded) {
  const HeldRow held(RowOf("/volume1"));
  Background plan(Argv({"plan", "photos", "--keep-last", "1"}), Background::Terminal{100});
  EXPECT_TRUE(
      plan.HasSaid("zorv-snapusage: note: waiting for other runs on this file system: 1 ahead"));
  plan.Type('\x03');
  EXPECT_EQ(130, plan.Wait().status);
  EXPECT_EQ(std::vector<pid_t>{held.Holder()}, RunsInRow(RowOf("/volume1")));
}

}  // namespace
