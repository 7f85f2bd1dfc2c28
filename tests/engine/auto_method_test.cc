// The choice between the two ways of counting.
#include "engine/size/auto_method.h"

#include <gtest/gtest.h>

#include <functional>

#include "engine/size/newest_state_run.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// A scan that counts its turns and says that nothing is held.
class CountedScan : public ExclusiveSizeMethod {
 public:
  Status Run(CommittedTrees&, const SizeRequest& request, SizeProgress&, SizeTable* out) override {
    ++turns;
    out->ids = request.ids;
    out->redundancies = {{}};
    return Status();
  }

  int turns = 0;
};

// A file system on which a commit comes whenever somebody looks; `onCommit` says what it brings.
class Busy : public StateSource {
 public:
  Busy(MiniFilesystem& mini, std::function<void(int commit)> onCommit)
      : mini_(mini), onCommit_(std::move(onCommit)) {}

  const DeviceSet& Devices() const override { return mini_.Devices(); }
  Status CommitAndReadSuperblock(Superblock* out, std::string* note) override {
    note->clear();
    return ReadSuperblock(out);
  }
  Status ReadSuperblock(Superblock* out) override {
    ++commits_;
    onCommit_(commits_);
    const uint64_t generation = kGeneration + static_cast<unsigned>(commits_);
    Bytes roots = MakeLeaf(MiniFilesystem::kRootTree, mini_.Roots());
    HeaderOf(&roots).generation.Set(generation);
    Seal(&roots);
    mini_.Memory().Put(MiniFilesystem::kRootTree, roots);
    *out = mini_.MakeSuperblock(generation);
    return Status();
  }

 private:
  MiniFilesystem& mini_;
  std::function<void(int commit)> onCommit_;
  int commits_ = 0;
};

class AutoMethodRun : public testing::Test {
 protected:
  Status Run(StateSource& source, const std::vector<uint64_t>& ids) {
    return RunOnNewestState(
        source, method_, {ids, true}, progress_, [](const std::string&) {}, &result_);
  }

  // Says in the root item of the extent tree of `mini_` that it has that many blocks.
  void SayExtentTreeHas(uint64_t blocks) {
    mini_.Write();
    mini_.SetExtentTree(MiniFilesystem::kExtentTree, 0, blocks * kNodeSize);
  }

  MiniFilesystem mini_;
  CountedScan scan_;
  AutoMethod method_{scan_};
  SizeProgress progress_;
  SizeResult result_;
};

// What the walk reads in mini_: the root block, and one block of the extent tree.
constexpr uint64_t kWalked = 2;
constexpr uint64_t kEnough = kWalked * AutoMethod::kScannedPerWalked;

}  // namespace

TEST_F(AutoMethodRun, WalksWhileThatIsSmallAgainstTheExtentTree) {
  SayExtentTreeHas(kEnough);
  ASSERT_TRUE(Run(mini_, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(0, scan_.turns);
  EXPECT_EQ(kNodeSize, result_.table.Exclusive(0).metadata);
  EXPECT_STREQ("walk", progress_.stats.method);
  EXPECT_EQ("2 of at most 2 blocks, " + std::to_string(kEnough) + " being those of the extent tree",
            progress_.stats.why);
}

TEST_F(AutoMethodRun, ScansWhenTheWalkIsTooLarge) {
  SayExtentTreeHas(kEnough - 1);
  ASSERT_TRUE(Run(mini_, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(1, scan_.turns);
  EXPECT_EQ(0u, progress_.exclusiveBytes);
  EXPECT_EQ(progress_.meter.total, progress_.meter.processed);
  EXPECT_STREQ("scan", progress_.stats.method);
  EXPECT_EQ("a walk takes more than 1 blocks, " + std::to_string(kEnough - 1) +
                " being those of the extent tree",
            progress_.stats.why);
}

TEST_F(AutoMethodRun, WalksLessWhereAHeadMustMove) {
  mini_.Memory().Rotate(std::chrono::milliseconds(0));
  SayExtentTreeHas(kWalked * AutoMethod::kScannedPerWalkedOnRotating - 1);
  ASSERT_TRUE(Run(mini_, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(1, scan_.turns);
}

TEST_F(AutoMethodRun, ScansWhenTheRootItemSaysNothingOfTheSize) {
  SayExtentTreeHas(0);
  ASSERT_TRUE(Run(mini_, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(1, scan_.turns);
}

TEST_F(AutoMethodRun, WalksAgainWhenItIsOvertaken) {
  SayExtentTreeHas(kEnough);
  mini_.Memory().Put(MiniFilesystem::kSubvolume, Bytes(kNodeSize));
  Busy busy(mini_, [&](int commit) {
    if (commit == 1 + AutoMethod::kMostOvertaken)
      mini_.Memory().Put(MiniFilesystem::kSubvolume, MakeLeaf(MiniFilesystem::kSubvolume, {}));
  });
  ASSERT_TRUE(Run(busy, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(0, scan_.turns);
  EXPECT_EQ(kNodeSize, result_.table.Exclusive(0).metadata);
}

TEST_F(AutoMethodRun, ScansWhenTheWalkIsOvertakenAgainAndAgain) {
  SayExtentTreeHas(kEnough);
  mini_.Memory().Put(MiniFilesystem::kSubvolume, Bytes(kNodeSize));
  Busy busy(mini_, [](int) {});
  ASSERT_TRUE(Run(busy, {MiniFilesystem::kSubvolumeId}).Ok());
  EXPECT_EQ(1, scan_.turns);
  EXPECT_STREQ("a walk was overtaken by commits again and again", progress_.stats.why);
}

TEST_F(AutoMethodRun, PassesOnOtherFailuresOfTheWalk) {
  SayExtentTreeHas(kEnough);
  EXPECT_EQ("there is no subvolume 999 on the file system; see btrfs subvolume list",
            Run(mini_, {999}).Text());
  EXPECT_EQ(0, scan_.turns);
}
