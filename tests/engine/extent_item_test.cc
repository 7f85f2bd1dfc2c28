// Extents put together from their items: each kind of reference, inline and keyed, and what is
// wrong with hostile ones.
#include "engine/ondisk/extent_item.h"

#include <gtest/gtest.h>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kPlace = 1 << 20;
constexpr uint64_t kLength = 12288;
constexpr Key kDataKey = {kPlace, kExtentItemType, kLength};
constexpr Key kTreeKey = {kPlace, kMetadataItemType, 1};

// Item types, as in <linux/btrfs_tree.h>.
enum : uint8_t { kOwner = 172, kTree = 176, kFile = 178, kBlock = 182, kLeafData = 184 };

Bytes Number(uint64_t value, size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
  AppendTo(&a, b);
  return a;
}

Bytes Extent(uint64_t refs, uint64_t flags) {
  ExtentItem item{};
  item.refs.Set(refs);
  item.generation.Set(kGeneration);
  item.flags.Set(flags);
  return BytesOf(item);
}

Bytes FileRef(uint64_t root, uint32_t count) {
  return Number(root, 8) + Number(258, 8) + Number(0, 8) + Number(count, 4);
}

Bytes Inline(uint8_t type, const Bytes& rest) { return Bytes{type} + rest; }

// Feeds items to an assembler and keeps what comes out.
class ExtentAssemblerTest : public testing::Test {
 protected:
  const char* Take(const Key& key, const Bytes& data) {
    const ExtentRecord* complete = nullptr;
    const char* wrong = assembler_.Take(key, View(data), &complete);
    if (complete != nullptr) extents_.push_back(*complete);
    return wrong;
  }
  const char* Finish() {
    const ExtentRecord* complete = nullptr;
    const char* wrong = assembler_.Finish(&complete);
    if (complete != nullptr) extents_.push_back(*complete);
    return wrong;
  }

  ExtentAssembler assembler_{kNodeSize};
  std::vector<ExtentRecord> extents_;
};

using ExtentAssemblerTake = ExtentAssemblerTest;
using ExtentAssemblerFinish = ExtentAssemblerTest;

void ExpectReference(ExtentReference::Kind kind, uint64_t holder, uint64_t count,
                     const ExtentReference& reference) {
  EXPECT_EQ(kind, reference.kind);
  EXPECT_EQ(holder, reference.holder);
  EXPECT_EQ(count, reference.count);
}

}  // namespace

TEST_F(ExtentAssemblerTake, ReadsInlineReferencesOfData) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(7, kExtentIsData) + Inline(kFile, FileRef(257, 3)) +
                                        Inline(kLeafData, Number(9999, 8) + Number(4, 4))));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(1u, extents_.size());
  const ExtentRecord& extent = extents_[0];
  EXPECT_FALSE(extent.isTreeBlock);
  EXPECT_EQ(kPlace, extent.bytenr);
  EXPECT_EQ(kLength, extent.length);
  EXPECT_EQ(7u, extent.refs);
  EXPECT_EQ(kGeneration, extent.generation);
  ASSERT_EQ(2u, extent.references.size());
  ExpectReference(ExtentReference::kFile, 257, 3, extent.references[0]);
  ExpectReference(ExtentReference::kLeafData, 9999, 4, extent.references[1]);
}

TEST_F(ExtentAssemblerTake, ReadsInlineReferencesOfATreeBlock) {
  constexpr uint64_t kFullBackref = 1 << 8;
  EXPECT_EQ(nullptr,
            Take(kTreeKey, Extent(2, kExtentIsTreeBlock | kFullBackref) +
                               Inline(kTree, Number(5, 8)) + Inline(kBlock, Number(4096, 8))));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(1u, extents_.size());
  const ExtentRecord& extent = extents_[0];
  EXPECT_TRUE(extent.isTreeBlock);
  EXPECT_TRUE(extent.fullBackref);
  EXPECT_EQ(1, extent.level);
  EXPECT_EQ(kNodeSize, extent.length);
  ASSERT_EQ(2u, extent.references.size());
  ExpectReference(ExtentReference::kTree, 5, 1, extent.references[0]);
  ExpectReference(ExtentReference::kBlock, 4096, 1, extent.references[1]);
}

TEST_F(ExtentAssemblerTake, ReadsTheLevelOfATreeBlockOfTheOldKind) {
  TreeBlockInfo info{};
  info.level.Set(3);
  EXPECT_EQ(nullptr,
            Take({kPlace, kExtentItemType, kNodeSize},
                 Extent(1, kExtentIsTreeBlock) + BytesOf(info) + Inline(kTree, Number(5, 8))));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(1u, extents_.size());
  EXPECT_EQ(3, extents_[0].level);
}

TEST_F(ExtentAssemblerTake, GathersKeyedReferencesOfTheSameExtent) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(6, kExtentIsData) + Inline(kFile, FileRef(257, 1))));
  EXPECT_EQ(nullptr, Take({kPlace, kFile, 0xABCD}, FileRef(258, 2)));
  EXPECT_EQ(nullptr, Take({kPlace, kLeafData, 8192}, Number(3, 4)));
  EXPECT_TRUE(extents_.empty());
  EXPECT_EQ(nullptr, Take({2 * kPlace, kMetadataItemType, 0}, Extent(2, kExtentIsTreeBlock)));
  ASSERT_EQ(1u, extents_.size());
  ASSERT_EQ(3u, extents_[0].references.size());
  ExpectReference(ExtentReference::kFile, 258, 2, extents_[0].references[1]);
  ExpectReference(ExtentReference::kLeafData, 8192, 3, extents_[0].references[2]);
  EXPECT_EQ(nullptr, Take({2 * kPlace, kTree, 261}, {}));
  EXPECT_EQ(nullptr, Take({2 * kPlace, kBlock, 4096}, {}));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(2u, extents_.size());
  ExpectReference(ExtentReference::kTree, 261, 1, extents_[1].references[0]);
  ExpectReference(ExtentReference::kBlock, 4096, 1, extents_[1].references[1]);
}

TEST_F(ExtentAssemblerTake, TakesWhoWroteAnExtentForNoReference) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(1, kExtentIsData) + Inline(kOwner, Number(259, 8)) +
                                        Inline(kFile, FileRef(257, 1))));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(1u, extents_.size());
  EXPECT_EQ(1u, extents_[0].references.size());
}

TEST_F(ExtentAssemblerTake, SkipsBlockGroupsBetweenExtents) {
  constexpr uint8_t kBlockGroup = 192;
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(1, kExtentIsData) + Inline(kFile, FileRef(257, 1))));
  EXPECT_EQ(nullptr, Take({2 * kPlace, kBlockGroup, 1 << 30}, Bytes(24)));
  EXPECT_EQ(nullptr, Finish());
  EXPECT_EQ(1u, extents_.size());
}

TEST_F(ExtentAssemblerFinish, LeavesTheRestToTheNextLeaf) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(3, kExtentIsData) + Inline(kFile, FileRef(257, 2))));
  EXPECT_EQ(nullptr, Finish());
  ASSERT_EQ(1u, extents_.size());
  EXPECT_EQ(3u, extents_[0].refs);
  EXPECT_EQ(2u, extents_[0].found);
  EXPECT_FALSE(extents_[0].continued);
}

TEST_F(ExtentAssemblerFinish, RefusesMoreReferencesThanTheItemCounts) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(1, kExtentIsData) + Inline(kFile, FileRef(257, 2))));
  EXPECT_STREQ("the references found are more than the item counts", Finish());
  EXPECT_TRUE(extents_.empty());
}

TEST_F(ExtentAssemblerTake, MissesReferencesInTheMiddleOfALeaf) {
  EXPECT_EQ(nullptr, Take(kDataKey, Extent(2, kExtentIsData) + Inline(kFile, FileRef(257, 1))));
  EXPECT_STREQ("the references found are not as many as the item counts",
               Take({2 * kPlace, kExtentItemType, 4096}, Extent(1, kExtentIsData)));
  EXPECT_TRUE(extents_.empty());
}

TEST_F(ExtentAssemblerTake, GoesOnWithTheLastExtentOfTheLeafBefore) {
  EXPECT_EQ(nullptr, Take({kPlace, kLeafData, 5 * kNodeSize}, Number(7, 4)));
  EXPECT_EQ(nullptr, Take({kPlace, kLeafData, 6 * kNodeSize}, Number(1, 4)));
  EXPECT_EQ(nullptr, Take({2 * kPlace, kExtentItemType, 4096},
                          Extent(1, kExtentIsData) + Inline(kFile, FileRef(257, 1))));
  ASSERT_EQ(1u, extents_.size());
  EXPECT_TRUE(extents_[0].continued);
  EXPECT_EQ(kPlace, extents_[0].bytenr);
  EXPECT_EQ(8u, extents_[0].found);
  EXPECT_EQ(2u, extents_[0].references.size());
  EXPECT_STREQ("a reference without an extent",
               Take({2 * kPlace + 4096, kLeafData, 5 * kNodeSize}, Number(7, 4)));
}

TEST_F(ExtentAssemblerFinish, HasNothingToEndWithoutAnExtent) {
  EXPECT_EQ(nullptr, Finish());
  EXPECT_TRUE(extents_.empty());
}

TEST(ExtentAssembler, SaysWhatIsWrongWithAnItem) {
  const Bytes data = Extent(1, kExtentIsData);
  const Bytes tree = Extent(1, kExtentIsTreeBlock);
  const struct {
    const char* name;
    Key key;
    Bytes bytes;
    const char* wrong;
  } kCases[] = {
      {"short extent item", kDataKey, Bytes(23), "an extent item is short"},
      {"neither kind", kDataKey, Extent(1, 0), "an extent is neither data nor a tree block"},
      {"both kinds", kDataKey, Extent(1, kExtentIsData | kExtentIsTreeBlock),
       "an extent is neither data nor a tree block"},
      {"data under a metadata key", kTreeKey, data, "a metadata item is no tree block"},
      {"level out of range",
       {kPlace, kMetadataItemType, 8},
       tree,
       "a metadata item is no tree block"},
      {"old tree block cut",
       {kPlace, kExtentItemType, kNodeSize},
       tree + Bytes(17),
       "an extent item is short"},
      {"inline type without a place", kTreeKey, tree + Inline(kTree, Bytes(7)),
       "an inline reference is cut"},
      {"inline file reference cut", kDataKey, data + Inline(kFile, Bytes(27)),
       "an inline reference is cut"},
      {"inline count cut", kDataKey, data + Inline(kLeafData, Bytes(11)),
       "an inline reference is cut"},
      {"unknown inline type", kDataKey, data + Inline(177, Bytes(8)),
       "an inline reference of an unknown type"},
      {"unknown item", {kPlace, 170, 5}, {}, "an item of an unknown type"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ExtentAssembler assembler(kNodeSize);
    const ExtentRecord* complete = nullptr;
    EXPECT_STREQ(c.wrong, assembler.Take(c.key, View(c.bytes), &complete));
    EXPECT_EQ(nullptr, complete);
  }
}

TEST_F(ExtentAssemblerTake, RefusesKeyedReferencesThatAreCutOrElsewhere) {
  ASSERT_EQ(nullptr, Take(kDataKey, Extent(1, kExtentIsData)));
  EXPECT_STREQ("a reference item is short", Take({kPlace, kFile, 1}, Bytes(27)));
  EXPECT_STREQ("a reference item is short", Take({kPlace, kLeafData, 1}, Bytes(3)));
  EXPECT_STREQ("a reference without an extent", Take({kPlace + 1, kLeafData, 1}, Number(1, 4)));
}
