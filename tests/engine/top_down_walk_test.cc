// The walk on hand-made file systems: what counts, what is refused, what happens when it is
// overtaken.
#include "engine/size/top_down_walk.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "engine/size/newest_state_run.h"
#include "engine/size/patience.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

using Mini = MiniFilesystem;

class WalkTest : public testing::Test {
 protected:
  Status Run(std::vector<uint64_t> ids = {Mini::kSubvolumeId}) {
    request_.ids = ids;
    request_.countMetadata = true;
    return RunOnNewestState(
        mini_, walk_, request_, progress_, [&](const std::string& n) { notes_.push_back(n); },
        &result_);
  }
  Status WriteAndRun() {
    mini_.Write();
    return Run();
  }

  // Makes a further commit, with a root tree of `roots`, which must be sorted.
  void CommitRoots(uint64_t generation, const std::vector<Item>& roots) {
    const uint64_t bytenr = Mini::kMiB + (generation - kGeneration) * kNodeSize;
    Bytes block = MakeLeaf(bytenr, roots);
    HeaderOf(&block).generation.Set(generation);
    Seal(&block);
    mini_.Memory().Put(bytenr, block);
    mini_.Superblocks().push_back(mini_.MakeSuperblock(generation));
    mini_.Superblocks().back().root.Set(bytenr);
  }

  Mini mini_;
  SizeRequest request_;
  TopDownWalk walk_;
  SizeProgress progress_;
  SizeResult result_;
  std::vector<std::string> notes_;
};

using TopDownWalkRun = WalkTest;
using RunOnNewestStateTest = WalkTest;
using CommittedTreesLoad = WalkTest;

}  // namespace

TEST_F(TopDownWalkRun, CountsAnExtentOnceWhenAllItsReferencesAreHere) {
  mini_.AddDataExtent(Mini::kData, 12288, 2);
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  ASSERT_TRUE(WriteAndRun().Ok());
  ASSERT_EQ(1u, result_.table.ids.size());
  EXPECT_EQ(Mini::kSubvolumeId, result_.table.ids[0]);
  EXPECT_EQ(12288u, result_.table.Exclusive(0).data);
  EXPECT_EQ(kNodeSize, result_.table.Exclusive(0).metadata);
  EXPECT_EQ(12288u + kNodeSize, progress_.exclusiveBytes);
  EXPECT_EQ(kGeneration, result_.generation);
}

TEST_F(TopDownWalkRun, LeavesOutAnExtentThatOthersReferToToo) {
  mini_.AddDataExtent(Mini::kData, 12288, 3);
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(0u, result_.table.Exclusive(0).data);
}

TEST_F(TopDownWalkRun, CountsPreallocatedAndNeitherHolesNorInlineData) {
  mini_.AddDataExtent(Mini::kData, 8192, 1);
  mini_.AddFileExtent(0, Mini::kData, kFileExtentPreallocated);
  mini_.AddFileExtent(4096, 0);
  mini_.AddFileExtent(8192, Mini::kData, kFileExtentInline);
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(8192u, result_.table.Exclusive(0).data);
}

TEST_F(TopDownWalkRun, PrunesASharedRootBlock) {
  mini_.Extents().clear();
  mini_.AddTreeExtent(Mini::kSubvolume, 2);
  mini_.AddDataExtent(Mini::kData, 8192, 1);
  mini_.AddFileExtent(0, Mini::kData);
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(0u, result_.table.Exclusive(0).data);
  EXPECT_EQ(0u, result_.table.Exclusive(0).metadata);
}

TEST_F(TopDownWalkRun, ReadsTreeBlocksEnteredWithTheOldKind) {
  mini_.Extents().clear();
  Bytes item = Mini::ExtentBytes(1, kExtentIsTreeBlock);
  AppendTo(&item, BytesOf(TreeBlockInfo{}));
  mini_.Extents().push_back({{Mini::kSubvolume, kExtentItemType, kNodeSize}, item});
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(kNodeSize, result_.table.Exclusive(0).metadata);
}

TEST_F(TopDownWalkRun, MeterEndsWithAllThatWasPlanned) {
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(progress_.meter.total, progress_.meter.processed);
  EXPECT_EQ(4 * kNodeSize, progress_.meter.total);
}

TEST_F(TopDownWalkRun, RefusesUnknownSubvolumes) {
  mini_.Write();
  for (const uint64_t id : {uint64_t{258}, uint64_t{5}, uint64_t{2}, uint64_t{0}, UINT64_MAX}) {
    SCOPED_TRACE(id);
    EXPECT_EQ("there is no subvolume " + std::to_string(id) +
                  " on the file system; see btrfs subvolume list",
              Run({id}).Text());
  }
}

TEST_F(TopDownWalkRun, RefusesASubvolumeBeingDeleted) {
  mini_.AddRoot(300, Mini::kSubvolume, 0);
  mini_.Write();
  EXPECT_EQ("subvolume 300 is being deleted; wait with btrfs subvolume sync", Run({300}).Text());
}

TEST_F(TopDownWalkRun, NamesWhatIsDamaged) {
  const uint64_t data = Mini::kData;
  const std::string extentTree = " (tree block 2105344): ";
  const std::string check = "; run btrfs scrub and btrfs check";
  const struct {
    const char* name;
    void (*spoil)(Mini*);
    std::string text;
  } kCases[] = {
      {"no item for a tree block", [](Mini* m) { m->Extents().clear(); },
       "the extent tree is damaged at 2109440: an extent in use has no item" + check},
      {"no item for data", [](Mini* m) { m->AddFileExtent(0, Mini::kData); },
       "the extent tree is damaged at 3145728: an extent in use has no item" + check},
      {"tree block entered as data",
       [](Mini* m) {
         m->Extents().clear();
         m->AddDataExtent(Mini::kSubvolume, kNodeSize, 1);
       },
       "the extent tree is damaged at 2109440" + extentTree + "a tree block is entered as data" +
           check},
      {"data entered as a tree block",
       [](Mini* m) {
         m->AddTreeExtent(Mini::kData, 1);
         m->AddFileExtent(0, Mini::kData);
       },
       "the extent tree is damaged at 3145728" + extentTree + "data is entered as a tree block" +
           check},
      {"another level", [](Mini* m) { m->Extents()[0].first.offset = 1; },
       "the extent tree is damaged at 2109440" + extentTree +
           "a tree block is entered with another level" + check},
      {"short extent item", [](Mini* m) { m->Extents()[0].second.resize(sizeof(ExtentItem) - 1); },
       "the extent tree is damaged at 2109440" + extentTree + "an extent item is short" + check},
      {"short extent item of the old kind",
       [](Mini* m) {
         m->Extents()[0].first = {Mini::kSubvolume, kExtentItemType, kNodeSize};
       },
       "the extent tree is damaged at 2109440" + extentTree + "an extent item is short" + check},
      {"more references than counted",
       [](Mini* m) {
         m->AddDataExtent(Mini::kData, 4096, 1);
         m->AddFileExtent(0, Mini::kData);
         m->AddFileExtent(4096, Mini::kData);
       },
       "the extent at " + std::to_string(data) +
           " has more references than its item counts; run btrfs check"},
      {"file extent of an unknown kind", [](Mini* m) { m->AddFileExtent(0, Mini::kData, 3); },
       "item 0 of tree block 2109440 is a damaged file extent" + check},
      {"short file extent",
       [](Mini* m) {
         m->Files().push_back({{258, kFileExtentType, 0}, Bytes(10)});
       },
       "item 0 of tree block 2109440 is a damaged file extent" + check},
      {"file extent without its place",
       [](Mini* m) {
         m->AddFileExtent(0, Mini::kData);
         m->Files()[0].second.resize(sizeof(FileExtentHead) + 31);
       },
       "item 0 of tree block 2109440 is a damaged file extent" + check},
      {"no extent tree", [](Mini* m) { m->Roots().erase(m->Roots().begin()); },
       "the file system has no extent tree"},
      {"short root item", [](Mini* m) { m->Roots()[1].second.resize(100); },
       "the root item of tree 257 in tree block 2101248 is damaged"},
      {"root item with an impossible level", [](Mini* m) { m->Roots()[1].second[238] = 8; },
       "the root item of tree 257 in tree block 2101248 is damaged"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Mini mini;
    c.spoil(&mini);
    mini.Write();
    SizeProgress progress;
    SizeResult result;
    TopDownWalk walk;
    const Status status = RunOnNewestState(
        mini, walk, {{Mini::kSubvolumeId}, true}, progress, [](const std::string&) {}, &result);
    EXPECT_EQ(c.text, status.Text());
    EXPECT_TRUE(result.table.ids.empty());
  }
}

// Blocks whose checksums are right and whose content is not: a result or a reason, never a crash.
TEST_F(TopDownWalkRun, SurvivesHostileBytesAnywhere) {
  mini_.AddDataExtent(Mini::kData, 12288, 2);
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  std::vector<Item> other = {{{256, 1, 0}, Bytes(160)}};
  mini_.AddRoot(kDataRelocationTreeId, Mini::kSubvolume + kNodeSize);
  mini_.PutLeaf(Mini::kSubvolume + kNodeSize, &other);
  const std::pair<uint64_t, std::vector<Item>*> trees[] = {{Mini::kChunkRoot, &mini_.Chunks()},
                                                           {Mini::kRootTree, &mini_.Roots()},
                                                           {Mini::kExtentTree, &mini_.Extents()},
                                                           {Mini::kSubvolume, &mini_.Files()}};
  std::mt19937 random(20260102);
  int refused = 0;
  for (int round = 0; round < 2000; ++round) {
    mini_.Write();
    const auto& [bytenr, items] = trees[random() % 4];
    Bytes block = MakeLeaf(bytenr, *items);
    const size_t content = random() % 2 == 0 ? sizeof(BlockHeader) : kNodeSize - 600;
    for (int change = 0; change < 3; ++change)
      block[content + random() % 400] = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
    Seal(&block);
    mini_.Memory().Put(bytenr, block);
    const Status status = Run();
    refused += status.Ok() ? 0 : 1;
    EXPECT_EQ(status.Ok(), status.Text().empty());
  }
  EXPECT_GT(refused, 200);
  EXPECT_LT(refused, 1990);
}

TEST_F(CommittedTreesLoad, RefusesAnUnknownProfileInTheChunkTree) {
  mini_.Chunks().insert(
      mini_.Chunks().begin() + 1,
      {ChunkKey(64 * Mini::kMiB), MakeChunk(Mini::kMiB, kChunkData | 1 << 11, {Mini::kMiB})});
  EXPECT_EQ(
      "the chunk at 67108864 has a profile that this engine does not know (bit 11); use a newer "
      "engine",
      WriteAndRun().Text());
}

TEST_F(CommittedTreesLoad, TakesDataOfAnyProfileOnDevicesThatAreMissing) {
  mini_.Chunks().insert(
      mini_.Chunks().begin() + 1,
      {ChunkKey(64 * Mini::kMiB), MakeChunkOn(Mini::kMiB, kChunkData | kRaid0, {{2, 0}, {3, 0}})});
  EXPECT_TRUE(WriteAndRun().Ok());
}

TEST_F(RunOnNewestStateTest, BeginsAgainFromANewerSuperblock) {
  mini_.Write();
  Superblock old =
      mini_.MakeSuperblock(kGeneration - 1);  // its root tree has been overwritten since
  mini_.Superblocks() = {old, mini_.MakeSuperblock()};
  ASSERT_TRUE(Run().Ok());
  EXPECT_EQ(kGeneration, result_.generation);
  EXPECT_EQ(kNodeSize, result_.table.Exclusive(0).metadata);
  EXPECT_EQ(kNodeSize, progress_.exclusiveBytes);
  EXPECT_EQ(progress_.meter.total, progress_.meter.processed);
}

TEST_F(RunOnNewestStateTest, NamesTheDamagedBlockWhenThereIsNoNewerSuperblock) {
  mini_.Write();
  mini_.Memory().Put(Mini::kSubvolume, Bytes(kNodeSize));
  EXPECT_EQ(
      "tree block 2109440 (level 0, generation 77) cannot be used: its checksum is wrong; run btrfs "
      "scrub",
      Run().Text());
}

// A device that has been replaced meanwhile has old blocks; its successor has the same superblock.
TEST(RunOnReplacedDevice, BeginsAgainOnItsSuccessor) {
  struct Replaced : Mini {
    Status ReadSuperblock(Superblock* out) override {
      if (++looks == 2) Write();  // the first look is for the commit
      return Mini::ReadSuperblock(out);
    }
    bool DevicesChanged() const override { return looks == 2; }
    int looks = 0;
  } mini;
  mini.Write();
  mini.Memory().Put(Mini::kSubvolume, Bytes(kNodeSize));
  TopDownWalk walk;
  SizeProgress progress;
  SizeResult result;
  EXPECT_EQ("",
            RunOnNewestState(
                mini, walk, {{Mini::kSubvolumeId}}, progress, [](const std::string&) {}, &result)
                .Text());
  EXPECT_EQ(2, mini.looks);
}

// Once a run failed whose devices were listed just before one was added and whose state was read
// just after: it called the new one missing.
TEST(RunOnAddedDevice, BeginsAgainWithIt) {
  struct Added : Mini {
    struct Forward : ByteSource {
      explicit Forward(MemoryDevice& memory) : device(memory) {}
      Status ReadAt(uint64_t offset, uint8_t* buffer, size_t size) override {
        return device.ReadAt(offset, buffer, size);
      }
      uint64_t Size() const override { return device.Size(); }
      MemoryDevice& device;
    };

    const DeviceSet& Devices() const override { return known; }
    Status ReadSuperblock(Superblock* out) override {
      if (++looks == 2 && appears) known.Add(1, {std::make_unique<Forward>(Memory()), {}, {}});
      return Mini::ReadSuperblock(out);
    }
    bool DevicesChanged() const override { return looks == 2 && appears; }

    DeviceSet known;
    bool appears = true;
    int looks = 0;
  };
  for (const bool appears : {true, false}) {
    Added mini;
    mini.appears = appears;
    mini.Write();
    TopDownWalk walk;
    SizeProgress progress;
    SizeResult result;
    const Status run = RunOnNewestState(
        mini, walk, {{Mini::kSubvolumeId}}, progress, [](const std::string&) {}, &result);
    EXPECT_EQ(appears ? ""
                      : "device 1 is missing and tree block 2097152 lies nowhere else; attach "
                        "the device or replace it (btrfs replace), then try again",
              run.Text());
  }
}

TEST_F(RunOnNewestStateTest, GivesUpWhenItIsOvertakenAgainAndAgain) {
  mini_.Write();
  // The second attempt is shorter than the first, as it finds the chunks in the cache.
  for (int i = 0; i <= Patience::kMostWithoutGain + 1; ++i)
    mini_.Superblocks().push_back(mini_.MakeSuperblock(kGeneration + 1 + static_cast<unsigned>(i)));
  EXPECT_EQ(
      "the file system changes faster than it can be read (41 attempts); try again when it is "
      "quieter",
      Run().Text());
}

// A relocation tree with references: its subvolume is getting what was moved.
TEST_F(RunOnNewestStateTest, WaitsUntilMovedBlocksAreInTheirPlaces) {
  mini_.Write();
  const std::vector<Item> settled = mini_.Roots();
  mini_.AddRoot(kRelocationTreeId, Mini::kSubvolume);
  CommitRoots(kGeneration, mini_.Roots());
  CommitRoots(kGeneration + 1, settled);
  ASSERT_EQ("", Run().Text());
  EXPECT_EQ(kGeneration + 1, result_.generation);
}

TEST_F(RunOnNewestStateTest, SaysThatMovedBlocksDoNotComeIntoTheirPlaces) {
  mini_.Write();
  mini_.AddRoot(kRelocationTreeId, Mini::kSubvolume);
  CommitRoots(kGeneration, mini_.Roots());
  request_.mostSettling = std::chrono::milliseconds(50);
  EXPECT_EQ(
      "a balance, or a device that shrinks or goes, is giving subvolumes the blocks that it has "
      "moved; try again in a moment (nothing was committed meanwhile: if it is mounted read-only, "
      "mount it writable once)",
      Run().Text());
}

// The time of waiting does not begin before there is something to wait for.
TEST_F(RunOnNewestStateTest, WaitsAlsoWhenItHasTakenLongAlready) {
  struct SettlesLate : ExclusiveSizeMethod {
    Status Run(CommittedTrees&, const SizeRequest& request, SizeProgress&, SizeTable*) override {
      if (++runs > 1) return Status();
      std::this_thread::sleep_for(2 * request.mostSettling);
      return Status::Unsettled("not yet");
    }
    int runs = 0;
  } method;
  mini_.Write();
  const std::vector<Item> roots = mini_.Roots();
  for (const uint64_t generation : {kGeneration, kGeneration + 1}) CommitRoots(generation, roots);
  request_.mostSettling = std::chrono::milliseconds(50);
  EXPECT_EQ("", RunOnNewestState(
                    mini_, method, request_, progress_, [](const std::string&) {}, &result_)
                    .Text());
  EXPECT_EQ(2, method.runs);
}

TEST_F(RunOnNewestStateTest, PassesOnWhyTheCommitIsNotTheNewest) {
  mini_.Write();
  mini_.CommitNote() = "slow";
  ASSERT_TRUE(Run().Ok());
  EXPECT_EQ((std::vector<std::string>{"slow"}), notes_);
}

TEST_F(RunOnNewestStateTest, SaysThatASubvolumeIsBeingDeleted) {
  mini_.AddRoot(300, Mini::kSubvolume + kNodeSize, /*refs=*/0);
  mini_.Roots().push_back({{kOrphanId, kOrphanItemType, 300}, {}});
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_EQ(
      std::vector<std::string>{
          "a subvolume is being deleted; what it shares is held by it until that has ended "
          "(btrfs subvolume sync)"},
      notes_);
}

TEST_F(RunOnNewestStateTest, SaysNothingOfDeletionsThatHaveEnded) {
  mini_.Roots().push_back({{kOrphanId, kOrphanItemType, 300}, {}});
  mini_.Roots().push_back({{kOrphanId, kOrphanItemType, Mini::kSubvolumeId}, {}});
  ASSERT_TRUE(WriteAndRun().Ok());
  EXPECT_TRUE(notes_.empty());
}

TEST_F(RunOnNewestStateTest, RefusesFeaturesOfANewerSuperblockToo) {
  mini_.Write();
  Superblock newer = mini_.MakeSuperblock();
  newer.incompatFlags.Set(1 << 12);
  mini_.Superblocks() = {mini_.MakeSuperblock(kGeneration - 1), newer};
  EXPECT_EQ("zoned file systems cannot be read by this engine", Run().Text());
}

TEST_F(RunOnNewestStateTest, AnswersInTheOrderOfTheQuestion) {
  const uint64_t other = Mini::kSubvolume + kNodeSize;
  mini_.AddRoot(300, other);
  mini_.AddTreeExtent(other, 1);
  std::vector<Item> none;
  mini_.PutLeaf(other, &none);
  mini_.Write();
  ASSERT_TRUE(Run({300, Mini::kSubvolumeId}).Ok());
  EXPECT_EQ(300u, result_.table.ids[0]);
  EXPECT_EQ(Mini::kSubvolumeId, result_.table.ids[1]);
}
