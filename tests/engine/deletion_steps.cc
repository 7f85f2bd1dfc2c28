#include "tests/engine/deletion_steps.h"

#include <gtest/gtest.h>

#include "tests/engine/engine_run.h"
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

// What the engine says will come free when this subvolume goes next.
Bytes Foretell(const BtrfsVolume& volume, unsigned long long id) {
  const Sizes data = EngineSizes("-v", volume.MountPoint(), {id});
  const Sizes all = EngineSizes("-vm", volume.MountPoint(), {id});
  Bytes bytes;
  bytes.data = static_cast<int64_t>(data.at(id));
  bytes.metadata = static_cast<int64_t>(all.at(id)) - bytes.data;
  bytes.fileTrees = bytes.metadata;
  return bytes;
}

void ExpectFreed(const Bytes& before, const Bytes& after, const Bytes& foretold,
                 const Deletion& deletion, const DeletionRules& rules) {
  const int64_t block = rules.nodeSize;
  const int64_t metadata = before.metadata - after.metadata;
  if (rules.mixed) {
    EXPECT_GE(metadata, foretold.data + foretold.metadata - kBlocksOfADirectory * block);
  } else {
    EXPECT_EQ(foretold.data, before.data - after.data) << "data";
    EXPECT_GE(metadata, foretold.metadata - kBlocksOfADirectory * block);
  }
  EXPECT_NEAR(foretold.fileTrees, before.fileTrees - after.fileTrees,
              deletion.isNested || rules.topLevelHasSnapshot ? kBlocksOfADirectory * block : 0)
      << "tree blocks";
}

}  // namespace

unsigned DeleteInOrder(const BtrfsVolume& volume, const std::vector<Deletion>& order,
                       const DeletionRules& rules) {
  CommitAndClean(volume.MountPoint());
  Bytes before = Measure(volume, rules);
  unsigned steps = 0;
  for (const Deletion& deletion : order) {
    SCOPED_TRACE("deletion of " + deletion.path + ", step " + std::to_string(steps + 1));
    const Bytes foretold = Foretell(volume, deletion.id);
    DestroySubvolume(volume.Path(deletion.path));
    CommitAndClean(volume.MountPoint());
    const Bytes after = Measure(volume, rules);
    ExpectFreed(before, after, foretold, deletion, rules);
    if (testing::Test::HasFailure()) break;
    before = after;
    ++steps;
  }
  return steps;
}

}  // namespace ZorvTest
