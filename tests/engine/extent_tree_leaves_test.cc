// The leaves of an extent tree of several levels, and which kinds of extents they can have.
#include "engine/io/extent_tree_leaves.h"

#include <gtest/gtest.h>

#include "engine/io/tree_cursor.h"
#include "tests/engine/graph_filesystem.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// The trees of the last commit of a file system.
struct Loaded {
  explicit Loaded(GraphFilesystem& filesystem)
      : reader(filesystem.Devices(), {kNodeSize, 0}, meter), trees(reader) {
    Superblock superblock;
    EXPECT_TRUE(filesystem.ReadSuperblock(&superblock).Ok());
    const Status done = trees.Load(superblock);
    EXPECT_TRUE(done.Ok()) << done.Text();
    EXPECT_TRUE(ListExtentTreeLeaves(trees, &leaves).Ok());
  }

  ReadMeter meter;
  BlockReader reader;
  CommittedTrees trees;
  ArrayMemory memory{1 << 20, "/tmp"};
  BigArray<ExtentTreeLeaf> leaves{memory};
};

bool Has(const std::vector<LogicalRange>& ranges, uint64_t address) {
  for (const LogicalRange& range : ranges)
    if (address >= range.begin && address < range.end) return true;
  return false;
}

}  // namespace

TEST(ExtentTreeLeavesTest, AreAllThatSpeakOfTheKindInKeyOrder) {
  size_t levels = 0;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    GraphFilesystem filesystem(seed, GraphShape::Random(seed));
    filesystem.Change(&random, 30, 8);
    filesystem.Commit();
    Loaded loaded(filesystem);
    levels = std::max<size_t>(levels, loaded.trees.ExtentRoot().level);

    // All extents are seen through a cursor, each in a leaf that was listed for its kind.
    std::map<uint64_t, ExtentTreeLeaf> listed;
    uint64_t before = 0;
    for (const ExtentTreeLeaf& leaf : loaded.leaves) {
      listed[leaf.bytenr] = leaf;
      TreeBlockPtr block;
      ASSERT_TRUE(loaded.reader.Read({leaf.bytenr, leaf.generation, 0, {}}, &block).Ok());
      if (block->view->Count() == 0) continue;
      EXPECT_LE(before, block->view->KeyAt(0).objectid);
      before = block->view->KeyAt(0).objectid;
    }
    size_t both = 0;
    for (const auto& [bytenr, leaf] : listed) both += leaf.treeBlocks && leaf.data ? 1 : 0;
    const bool mixed = loaded.trees.MetadataRanges()[0].begin == loaded.trees.DataRanges()[0].begin;
    EXPECT_LE(both, mixed ? SIZE_MAX : 2u);
    TreeCursor cursor(loaded.reader, loaded.trees.ExtentRoot());
    ASSERT_TRUE(cursor.Seek(Key()).Ok());
    while (cursor.AtItem()) {
      ASSERT_EQ(1u, listed.count(cursor.BlockNumber()));
      const ExtentTreeLeaf& leaf = listed.at(cursor.BlockNumber());
      const uint64_t address = cursor.ItemKey().objectid;
      EXPECT_TRUE(leaf.treeBlocks || !Has(loaded.trees.MetadataRanges(), address));
      EXPECT_TRUE(leaf.data || !Has(loaded.trees.DataRanges(), address));
      ASSERT_TRUE(cursor.Next().Ok());
    }
  }
  EXPECT_GE(levels, 3u);
}

TEST(ExtentTreeLeavesTest, AreTheRootWhenThatIsALeaf) {
  GraphShape shape;
  shape.itemsPerLeaf = 1000;
  GraphFilesystem filesystem(1, shape);
  filesystem.Trees().Create(1);
  filesystem.Commit();
  Loaded loaded(filesystem);
  ASSERT_EQ(1u, loaded.leaves.Size());
  EXPECT_EQ(loaded.trees.ExtentRoot().bytenr, loaded.leaves[0].bytenr);
  EXPECT_TRUE(loaded.leaves[0].treeBlocks);
  EXPECT_TRUE(loaded.leaves[0].data);
}

namespace {

// Makes an extent tree in which each node of a level has all nodes of the next, as far as first
// keys allow: few blocks, and ways through them without number.
void MakeKnottedExtentTree(MiniFilesystem* mini) {
  constexpr uint64_t kWide = 20;
  mini->Write();
  const auto place = [](uint64_t level, uint64_t i) {
    return MiniFilesystem::kSubvolume + (1 + level * kWide + i) * kNodeSize;
  };
  for (uint64_t level = 0; level <= kMaxLevel; ++level) {
    for (uint64_t i = 0; i < kWide; ++i) {
      const uint64_t bytenr = place(level, i);
      if (level == 0) {
        std::vector<Item> items = {{{4096 * (1 + i), kMetadataItemType, 0},
                                    MiniFilesystem::ExtentBytes(0, kExtentIsTreeBlock)}};
        mini->PutLeaf(bytenr, &items);
        continue;
      }
      std::vector<Child> children;
      for (uint64_t child = i; child < kWide; ++child)
        children.push_back({{4096 * (1 + child), kMetadataItemType, 0}, place(level - 1, child)});
      mini->Memory().Put(bytenr, MakeNode(bytenr, static_cast<uint8_t>(level), children));
    }
  }
  mini->SetExtentTree(place(kMaxLevel, 0), kMaxLevel, 0);
}

// The trees of a file system that has such a one.
struct Knotted {
  Knotted() : reader(mini.Devices(), {kNodeSize, 0}, meter), trees(reader) {
    MakeKnottedExtentTree(&mini);
    EXPECT_TRUE(trees.Load(mini.MakeSuperblock()).Ok());
  }

  MiniFilesystem mini;
  ReadMeter meter;
  BlockReader reader;
  CommittedTrees trees;
};

}  // namespace

TEST(ExtentTreeLeavesTest, OfAKnottedTreeAreRefused) {
  Knotted knotted;
  ArrayMemory memory(1 << 20, "/tmp");
  BigArray<ExtentTreeLeaf> leaves(memory);
  const std::string text = ListExtentTreeLeaves(knotted.trees, &leaves).Text();
  EXPECT_NE(std::string::npos, text.find(" has keys that belong behind it; run btrfs check"))
      << text;
}

TEST(TreeCursorOrder, EndsInAKnottedTree) {
  Knotted knotted;
  TreeCursor cursor(knotted.reader, knotted.trees.ExtentRoot());
  Status done = cursor.Seek(Key());
  for (int items = 0; done.Ok() && cursor.AtItem(); ++items) {
    ASSERT_LT(items, 1000);
    done = cursor.Next();
  }
  EXPECT_NE(std::string::npos, done.Text().find(" has keys that belong before it; run btrfs check"))
      << done.Text();
}
