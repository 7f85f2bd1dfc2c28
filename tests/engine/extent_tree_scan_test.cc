// The scan on hand-made file systems, and two ways of counting held against each other.
#include "engine/size/extent_tree_scan.h"

#include <gtest/gtest.h>

#include <random>

#include "engine/size/cross_check.h"
#include "engine/size/newest_state_run.h"
#include "engine/size/top_down_walk.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

using Mini = MiniFilesystem;

constexpr uint8_t kTreeRef = 176;
constexpr uint8_t kFileRef = 178;
constexpr uint8_t kLeafDataRef = 184;
constexpr uint64_t kFullBackref = 1 << 8;
constexpr uint64_t kOther = 300;  // a tree that is not asked for

Bytes Number(uint64_t value, size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return bytes;
}

class ScanTest : public testing::Test {
 protected:
  ScanTest() {
    mini_.Extents().clear();
    mini_.Chunks().back().second = MakeChunk(4 << 20, kChunkMetadata | kChunkData, {0});
  }

  // The subvolume's root leaf, held by the given trees.
  void AddRootLeaf(const std::vector<uint64_t>& holders, uint64_t flags = 0) {
    Bytes item = Mini::ExtentBytes(holders.size(), kExtentIsTreeBlock | flags);
    for (const uint64_t holder : holders) {
      item.push_back(kTreeRef);
      AppendTo(&item, Number(holder, 8));
    }
    mini_.Extents().push_back({{Mini::kSubvolume, kMetadataItemType, 0}, item});
  }

  struct DataRef {
    uint8_t type;
    uint64_t holder;
    uint32_t count;
  };

  void AddData(uint64_t length, const std::vector<DataRef>& refs) {
    uint64_t count = 0;
    Bytes inlined;
    for (const DataRef& ref : refs) {
      count += ref.count;
      inlined.push_back(ref.type);
      AppendTo(&inlined, Number(ref.holder, 8));
      if (ref.type == kFileRef) AppendTo(&inlined, Bytes(16));  // inode and offset
      AppendTo(&inlined, Number(ref.count, 4));
    }
    Bytes item = Mini::ExtentBytes(count, kExtentIsData);
    AppendTo(&item, inlined);
    mini_.Extents().push_back({{Mini::kData, kExtentItemType, length}, item});
  }

  Status Run(ExclusiveSizeMethod& method) {
    mini_.Write();
    return RunOnNewestState(
        mini_, method, {{Mini::kSubvolumeId}, true}, progress_, [](const std::string&) {},
        &result_);
  }

  // Runs scan and walk against each other.
  void ExpectSizes(uint64_t dataBytes, uint64_t metadataBytes) {
    CrossCheck both(scan_, walk_);
    const Status status = Run(both);
    ASSERT_TRUE(status.Ok()) << status.Text();
    ASSERT_EQ(std::vector<uint64_t>{Mini::kSubvolumeId}, result_.table.ids);
    EXPECT_EQ(dataBytes, result_.table.Exclusive(0).data);
    EXPECT_EQ(metadataBytes, result_.table.Exclusive(0).metadata);
    EXPECT_EQ(dataBytes + metadataBytes, progress_.exclusiveBytes);
  }

  Mini mini_;
  ExtentTreeScan scan_;
  TopDownWalk walk_;
  SizeProgress progress_;
  SizeResult result_;
};

using ExtentTreeScanRun = ScanTest;
using CrossCheckRun = ScanTest;

// A method that says what it is told.
class Fixed : public ExclusiveSizeMethod {
 public:
  explicit Fixed(HeldBytes held) {
    table_.ids = {Mini::kSubvolumeId};
    table_.redundancies = {{}};
    table_.rows = {{{0}, true, {held}}};
  }
  Status Run(CommittedTrees&, const SizeRequest&, SizeProgress&, SizeTable* out) override {
    *out = table_;
    return Status();
  }

 private:
  SizeTable table_;
};

}  // namespace

TEST_F(ExtentTreeScanRun, CountsAnExtentOnceWhenAllItsReferencesAreHere) {
  AddRootLeaf({Mini::kSubvolumeId});
  AddData(12288, {{kFileRef, Mini::kSubvolumeId, 2}});
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  ExpectSizes(12288, kNodeSize);
}

TEST_F(ExtentTreeScanRun, CountsReferencesThatNameTheLeaf) {
  AddRootLeaf({Mini::kSubvolumeId}, kFullBackref);
  AddData(12288, {{kLeafDataRef, Mini::kSubvolume, 2}});
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  ExpectSizes(12288, kNodeSize);
}

TEST_F(ExtentTreeScanRun, LeavesOutAnExtentThatAnotherTreeRefersTo) {
  AddRootLeaf({Mini::kSubvolumeId});
  AddData(12288, {{kFileRef, Mini::kSubvolumeId, 1}, {kFileRef, kOther, 1}});
  mini_.AddFileExtent(0, Mini::kData);
  ExpectSizes(0, kNodeSize);
}

TEST_F(ExtentTreeScanRun, LeavesOutAnExtentThatAnotherLeafRefersTo) {
  AddRootLeaf({Mini::kSubvolumeId});
  AddData(12288, {{kFileRef, Mini::kSubvolumeId, 1}, {kLeafDataRef, 1 << 20, 1}});
  mini_.AddFileExtent(0, Mini::kData);
  ExpectSizes(0, kNodeSize);
}

TEST_F(ExtentTreeScanRun, PrunesASharedRootBlock) {
  AddRootLeaf({Mini::kSubvolumeId, kOther});
  AddData(8192, {{kFileRef, Mini::kSubvolumeId, 1}});
  mini_.AddFileExtent(0, Mini::kData);
  ExpectSizes(0, 0);
}

TEST_F(ExtentTreeScanRun, MeterEndsWithAllThatWasPlanned) {
  AddRootLeaf({Mini::kSubvolumeId});
  ASSERT_TRUE(Run(scan_).Ok());
  EXPECT_EQ(progress_.meter.total, progress_.meter.processed);
}

TEST_F(ExtentTreeScanRun, NamesAnExtentWhoseReferencesAreMissing) {
  mini_.Extents().push_back(
      {{Mini::kSubvolume, kMetadataItemType, 0}, Mini::ExtentBytes(1, kExtentIsTreeBlock)});
  EXPECT_EQ("the extent tree is damaged at " + std::to_string(Mini::kSubvolume) +
                ": the references found are not as many as the item counts; run btrfs scrub and "
                "btrfs check",
            Run(scan_).Text());
}

TEST_F(ExtentTreeScanRun, NamesAnExtentWithMoreReferencesThanItsItemCounts) {
  AddRootLeaf({Mini::kSubvolumeId});
  AddData(12288, {{kFileRef, Mini::kSubvolumeId, 1}});
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  EXPECT_EQ("the extent at " + std::to_string(Mini::kData) +
                " has more references than its item counts; run btrfs check",
            Run(scan_).Text());
}

TEST_F(ExtentTreeScanRun, RefusesASubvolumeBeingDeleted) {
  mini_.Roots().clear();
  mini_.AddRoot(kExtentTreeId, Mini::kExtentTree);
  mini_.AddRoot(Mini::kSubvolumeId, Mini::kSubvolume, /*refs=*/0);
  AddRootLeaf({Mini::kSubvolumeId});
  EXPECT_EQ("subvolume 257 is being deleted; wait with btrfs subvolume sync", Run(scan_).Text());
}

// Blocks whose checksums are right and whose content is not: a result or a reason, never a crash.
TEST_F(ExtentTreeScanRun, SurvivesHostileBytesAnywhere) {
  AddRootLeaf({Mini::kSubvolumeId});
  AddData(12288, {{kFileRef, Mini::kSubvolumeId, 2}});
  mini_.AddFileExtent(0, Mini::kData);
  mini_.AddFileExtent(4096, Mini::kData);
  const std::pair<uint64_t, std::vector<Item>*> trees[] = {{Mini::kRootTree, &mini_.Roots()},
                                                           {Mini::kExtentTree, &mini_.Extents()},
                                                           {Mini::kSubvolume, &mini_.Files()}};
  std::mt19937 random(20260103);
  int refused = 0;
  for (int round = 0; round < 2000; ++round) {
    mini_.Write();
    const auto& [bytenr, items] = trees[random() % 3];
    Bytes block = MakeLeaf(bytenr, *items);
    const size_t content = random() % 2 == 0 ? sizeof(BlockHeader) : kNodeSize - 500;
    for (int change = 0; change < 3; ++change)
      block[content + random() % 400] = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
    Seal(&block);
    mini_.Memory().Put(bytenr, block);
    SizeResult result;
    ExtentTreeScan scan;
    const Status status = RunOnNewestState(
        mini_, scan, {{Mini::kSubvolumeId}, true}, progress_, [](const std::string&) {}, &result);
    refused += status.Ok() ? 0 : 1;
    EXPECT_EQ(status.Ok(), status.Text().empty());
  }
  EXPECT_GT(refused, 200);
  EXPECT_LT(refused, 1990);
}

TEST_F(CrossCheckRun, FailsWhenTheMethodsDisagree) {
  AddRootLeaf({Mini::kSubvolumeId});
  const HeldBytes right = {4096, 8192};
  for (const HeldBytes& wrong : {HeldBytes{4097, 8192}, HeldBytes{4096, 8191}}) {
    Fixed first(right);
    Fixed second(wrong);
    CrossCheck both(first, second);
    EXPECT_EQ(
        "two ways of counting disagree on subvolume 257; run btrfs check, and report this when it "
        "finds nothing",
        Run(both).Text());
  }
}

TEST_F(CrossCheckRun, PassesOnAFailureOfEither) {
  AddRootLeaf({Mini::kSubvolumeId, kOther});
  mini_.Extents()[0].second.pop_back();
  Fixed fixed({0, 0});
  CrossCheck first(scan_, fixed);
  EXPECT_NE("", Run(first).Text());
  CrossCheck second(fixed, scan_);
  EXPECT_NE("", Run(second).Text());
}
