// Tree blocks: sound ones are read, hostile ones are refused whole.
#include "engine/ondisk/tree_block.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

const Bytes kSound = MakeLeaf(
    65536,
    {{{256, 1, 0}, Bytes(10, 'a')}, {{256, 12, 256}, Bytes(5, 'b')}, {{257, 1, 0}, Bytes()}});

const char* Parse(const Bytes& block, std::optional<TreeBlockView>* view) {
  return TreeBlockView::Parse(View(block), view);
}

LeafItem& ItemOf(Bytes* block, size_t slot) {
  return ObjectAt<LeafItem>(block, sizeof(BlockHeader) + slot * sizeof(LeafItem));
}

}  // namespace

TEST(TreeBlockViewParse, ReadsALeaf) {
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, Parse(kSound, &view));
  ASSERT_EQ(3u, view->Count());
  EXPECT_TRUE(view->IsLeaf());
  EXPECT_EQ((Key{256, 12, 256}), view->KeyAt(1));
  EXPECT_EQ(10u, view->DataAt(0).Size());
  EXPECT_EQ('a', view->DataAt(0).Data()[9]);
  EXPECT_EQ('b', view->DataAt(1).Data()[0]);
  EXPECT_EQ(0u, view->DataAt(2).Size());
}

TEST(TreeBlockViewParse, ReadsANode) {
  const Bytes node = MakeNode(65536, 2, {{{256, 0, 0}, 4096}, {{300, 0, 0}, 8192}});
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, Parse(node, &view));
  EXPECT_FALSE(view->IsLeaf());
  EXPECT_EQ(2, view->Level());
  EXPECT_EQ(8192u, view->PointerAt(1).bytenr.Get());
  EXPECT_EQ((Key{300, 0, 0}), view->KeyAt(1));
}

TEST(TreeBlockViewParse, ReadsAnEmptyLeaf) {
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, Parse(MakeLeaf(65536, {}), &view));
  EXPECT_EQ(0u, view->Count());
  EXPECT_EQ(0u, view->LowerBound(Key{1, 1, 1}));
}

TEST(TreeBlockViewParse, RefusesHostileLeaves) {
  const struct {
    const char* name;
    std::function<void(Bytes*)> spoil;
    const char* wrong;
  } kCases[] = {
      {"too many items", [](Bytes* b) { HeaderOf(b).nritems.Set(200); },
       "it claims more items than fit"},
      {"the most items", [](Bytes* b) { HeaderOf(b).nritems.Set(UINT32_MAX); },
       "it claims more items than fit"},
      {"level", [](Bytes* b) { HeaderOf(b).level.Set(8); }, "its level is impossible"},
      {"data beyond the end", [](Bytes* b) { ItemOf(b, 0).offset.Set(kNodeSize); },
       "an item lies outside it"},
      {"data far beyond", [](Bytes* b) { ItemOf(b, 0).offset.Set(UINT32_MAX); },
       "an item lies outside it"},
      {"size beyond the end", [](Bytes* b) { ItemOf(b, 1).size.Set(UINT32_MAX); },
       "an item lies outside it"},
      {"data over the items", [](Bytes* b) { ItemOf(b, 1).offset.Set(30); },
       "an item lies outside it"},
      {"keys fall",
       [](Bytes* b) {
         ItemOf(b, 1).key.Set({255, 1, 0});
       },
       "its keys are out of order"},
      {"keys repeat",
       [](Bytes* b) {
         ItemOf(b, 1).key.Set({256, 1, 0});
       },
       "its keys are out of order"},
      {"cut in the header", [](Bytes* b) { b->resize(sizeof(BlockHeader) - 1); }, "it is short"},
      {"cut in the items", [](Bytes* b) { b->resize(sizeof(BlockHeader) + 60); },
       "it claims more items than fit"},
      {"empty", [](Bytes* b) { b->clear(); }, "it is short"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes block = kSound;
    c.spoil(&block);
    std::optional<TreeBlockView> view;
    EXPECT_STREQ(c.wrong, Parse(block, &view));
    EXPECT_FALSE(view.has_value());
  }
}

TEST(TreeBlockViewParse, RefusesHostileNodes) {
  const Bytes sound = MakeNode(65536, 1, {{{256, 0, 0}, 4096}, {{300, 0, 0}, 8192}});
  const struct {
    const char* name;
    std::function<void(Bytes*)> spoil;
    const char* wrong;
  } kCases[] = {
      {"too many pointers", [](Bytes* b) { HeaderOf(b).nritems.Set(122); },
       "it claims more pointers than fit"},
      {"no pointers", [](Bytes* b) { HeaderOf(b).nritems.Set(0); },
       "it is a node without pointers"},
      {"keys fall",
       [](Bytes* b) {
         ObjectAt<KeyPointer>(b, sizeof(BlockHeader)).key.Set({301, 0, 0});
       },
       "its keys are out of order"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes block = sound;
    c.spoil(&block);
    std::optional<TreeBlockView> view;
    EXPECT_STREQ(c.wrong, Parse(block, &view));
  }
}

// Whatever stands in the block, what Parse lets through can be read to its end.
TEST(TreeBlockViewParse, LetsNothingThroughThatReadsOutside) {
  std::mt19937 random(20260101);
  int sound = 0;
  for (int round = 0; round < 200000; ++round) {
    Bytes block = kSound;
    for (int change = 0; change < 3; ++change)
      block[random() % (sizeof(BlockHeader) + 4 * sizeof(LeafItem))] =
          static_cast<uint8_t>(random());
    std::optional<TreeBlockView> view;
    if (Parse(block, &view) != nullptr) continue;
    ++sound;
    for (uint32_t slot = 0; view->IsLeaf() && slot < view->Count(); ++slot) {
      const ByteView data = view->DataAt(slot);
      ASSERT_GE(data.Data(), block.data());
      ASSERT_LE(data.Data() + data.Size(), block.data() + block.size());
    }
  }
  EXPECT_GT(sound, 1000);
}

TEST(TreeBlockViewLowerBound, FindsTheFirstKeyNotBelow) {
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, Parse(kSound, &view));
  EXPECT_EQ(0u, view->LowerBound({0, 0, 0}));
  EXPECT_EQ(0u, view->LowerBound({256, 1, 0}));
  EXPECT_EQ(1u, view->LowerBound({256, 1, 1}));
  EXPECT_EQ(2u, view->LowerBound({257, 1, 0}));
  EXPECT_EQ(3u, view->LowerBound({257, 1, 1}));
}
