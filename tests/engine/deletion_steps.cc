#include "tests/engine/deletion_steps.h"

#include <gtest/gtest.h>

#include "tests/engine/forecast_run.h"
#include "tests/engine/tree_shapes.h"
#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {
namespace {

// Trees that change because a name goes from a directory: a few blocks on the way to it.
constexpr int64_t kBlocksOfADirectory = 8;

struct Bytes {
  int64_t data = 0;
  int64_t metadata = 0;
  int64_t fileTrees = 0;  // tree blocks of subvolumes, a part of the metadata
};

Bytes Measure(const BtrfsVolume& volume, const DeletionRules& rules) {
  const SpaceUsed used = UsedSpace(volume.MountPoint());
  const ExtentTreeShape shape = ReadExtentTree(volume.MountPoint());
  // The directory of the top level changes whenever a subvolume in it goes.
  const uint64_t blocks =
      shape.fileTreeBlocks - (rules.topLevelHasSnapshot ? 0 : shape.topLevelBlocks);
  return {static_cast<int64_t>(used.data), static_cast<int64_t>(used.metadata),
          static_cast<int64_t>(blocks * rules.nodeSize)};
}

// The plan for what is left of `order` after `done` steps.
std::vector<ForecastStep> PlanRest(const BtrfsVolume& volume, const std::vector<Deletion>& order,
                                   size_t done) {
  std::vector<unsigned long long> ids;
  for (size_t n = done; n < order.size(); ++n) ids.push_back(order[n].id);
  const EngineRun run =
      RunEngine({"--verify", "--forecast", Joined(ids), "-r", volume.MountPoint()});
  EXPECT_EQ(0, run.status) << run.err;
  std::vector<ForecastStep> plan = StepsOf(run);
  EXPECT_EQ(ids.size(), plan.size()) << run.out;
  plan.resize(ids.size());
  return plan;
}

bool ChangesOthers(const Deletion& deletion, const DeletionRules& rules) {
  return deletion.isNested || rules.topLevelHasSnapshot;
}

void ExpectFreed(const Bytes& before, const Bytes& after, const ForecastStep& plan,
                 const Deletion& deletion, const DeletionRules& rules) {
  const int64_t block = rules.nodeSize;
  const int64_t data = static_cast<int64_t>(plan.data);
  const int64_t treeBlocks = static_cast<int64_t>(plan.metadata);
  const int64_t metadata = before.metadata - after.metadata;
  EXPECT_EQ(deletion.id, plan.id);
  if (rules.mixed) {
    EXPECT_GE(metadata, data + treeBlocks - kBlocksOfADirectory * block);
  } else {
    EXPECT_EQ(data, before.data - after.data) << "data";
    EXPECT_GE(metadata, treeBlocks - kBlocksOfADirectory * block);
  }
  EXPECT_NEAR(treeBlocks, before.fileTrees - after.fileTrees,
              ChangesOthers(deletion, rules) ? kBlocksOfADirectory * block : 0)
      << "tree blocks";
}

}  // namespace

unsigned DeleteInOrder(const BtrfsVolume& volume, const std::vector<Deletion>& order,
                       const DeletionRules& rules) {
  CommitAndClean(volume.MountPoint());
  std::vector<ForecastStep> plan = PlanRest(volume, order, 0);
  size_t next = 0;  // step of the plan
  Bytes before = Measure(volume, rules);
  unsigned steps = 0;
  while (!testing::Test::HasFailure() && steps < order.size()) {
    const Deletion& deletion = order[steps];
    SCOPED_TRACE("deletion of " + deletion.path + ", step " + std::to_string(steps + 1));
    DestroySubvolume(volume.Path(deletion.path));
    CommitAndClean(volume.MountPoint());
    const Bytes after = Measure(volume, rules);
    ExpectFreed(before, after, plan[next++], deletion, rules);
    before = after;
    ++steps;
    if (!ChangesOthers(deletion, rules) || steps == order.size()) continue;
    plan = PlanRest(volume, order, steps);
    next = 0;
  }
  return steps;
}

}  // namespace ZorvTest
