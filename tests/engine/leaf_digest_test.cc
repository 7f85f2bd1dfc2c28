// What the scan keeps of a block: rows of addresses, extents of a leaf, and extents that go on from
// leaf to leaf.
#include "engine/size/leaf_digest.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kPlace = 1 << 20;
constexpr uint64_t kFullBackref = 1 << 8;
enum : uint8_t { kTree = 176, kFile = 178, kBlock = 182, kLeafData = 184 };

Bytes Number(uint64_t value, size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i)
    bytes.push_back(i < 8 ? static_cast<uint8_t>(value >> (8 * i)) : 0);
  return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
  AppendTo(&a, b);
  return a;
}

Item Data(uint64_t bytenr, uint64_t refs, const Bytes& inlined = {}) {
  return {{bytenr, kExtentItemType, 12288},
          MiniFilesystem::ExtentBytes(refs, kExtentIsData) + inlined};
}

Item TreeItem(uint64_t bytenr, uint64_t refs, const Bytes& inlined, uint64_t flags = 0,
              uint8_t level = 0) {
  return {{bytenr, kMetadataItemType, level},
          MiniFilesystem::ExtentBytes(refs, kExtentIsTreeBlock | flags) + inlined};
}

Bytes ByTree(uint64_t id) { return Bytes{kTree} + Number(id, 8); }
Bytes ByBlock(uint64_t bytenr) { return Bytes{kBlock} + Number(bytenr, 8); }
Bytes ByFile(uint64_t id, uint64_t count) {
  return Bytes{kFile} + Number(id, 8) + Number(258, 8) + Number(0, 8) + Number(count, 4);
}
Bytes ByLeaf(uint64_t bytenr, uint64_t count) {
  return Bytes{kLeafData} + Number(bytenr, 8) + Number(count, 4);
}
Item KeyedLeaf(uint64_t bytenr, uint64_t leaf, uint64_t count) {
  return {{bytenr, kLeafData, leaf}, Number(count, 4)};
}

// An extent with its parents written out.
struct Seen {
  ExtentDigest extent;
  std::vector<std::pair<uint64_t, uint64_t>> parents;
};

class DigestTest : public testing::Test {
 protected:
  // The digest of a leaf with these items; asserts that there is one.
  Words Digest(const std::vector<Item>& items) {
    Words words;
    const Status done = Make(items, &words);
    EXPECT_TRUE(done.Ok()) << done.Text();
    return words;
  }

  Status Make(const std::vector<Item>& items, Words* words) {
    const Bytes block = MakeLeaf(kPlace, items);
    std::optional<TreeBlockView> view;
    EXPECT_EQ(nullptr, TreeBlockView::Parse(View(block), &view));
    return DigestExtentLeaf(*view, kNodeSize, {asked_, leafMatters_}, words);
  }

  std::string Wrong(const std::vector<Item>& items) {
    Words words;
    return Make(items, &words).Text();
  }

  ExtentJoiner::Sink Collect() {
    return [this](const ExtentDigest& extent) {
      Seen seen{extent, {}};
      for (WordSpan parents = extent.parents; !parents.empty();) {
        const CountedAddress parent = TakeCounted(&parents);
        seen.parents.push_back({parent.bytenr, parent.count});
      }
      seen_.push_back(seen);
      return Status();
    };
  }

  // What comes out of the digests of these leaves.
  const std::vector<Seen>& Joined(const std::vector<std::vector<Item>>& leaves) {
    seen_.clear();
    ExtentJoiner joiner(Collect());
    for (const std::vector<Item>& leaf : leaves) EXPECT_TRUE(joiner.Take(Digest(leaf)).Ok());
    const Status done = joiner.Finish();
    EXPECT_TRUE(done.Ok()) << done.Text();
    return seen_;
  }

  std::vector<uint64_t> asked_ = {257, 259};
  std::function<bool(uint64_t)> leafMatters_;
  std::vector<Seen> seen_;
};

using DigestExtentLeafTest = DigestTest;
using ExtentJoinerTest = DigestTest;

std::string Damaged(uint64_t bytenr, const std::string& what) {
  return "the extent tree is damaged at " + std::to_string(bytenr) + ": " + what +
         "; run btrfs scrub and btrfs check";
}

using Parents = std::vector<std::pair<uint64_t, uint64_t>>;

}  // namespace

TEST(CountedAddresses, ComeBackAsTheyWereWhateverTheirCount) {
  const uint64_t counts[] = {0,    1,    2,       4094,       4095,      4096,
                             4097, 8192, 1 << 20, UINT32_MAX, UINT64_MAX};
  const uint64_t places[] = {0, 4096, kPlace, UINT64_MAX - 4095};
  Words words;
  for (const uint64_t place : places)
    for (const uint64_t count : counts) AppendCounted({place, count}, &words);
  WordSpan rest = words;
  for (const uint64_t place : places) {
    for (const uint64_t count : counts) {
      ASSERT_FALSE(rest.empty());
      const CountedAddress back = TakeCounted(&rest);
      EXPECT_EQ(place, back.bytenr);
      EXPECT_EQ(count, back.count);
    }
  }
  EXPECT_TRUE(rest.empty());
}

TEST(CountedAddresses, TakeOneWordBelow4096) {
  Words words;
  AppendCounted({kPlace, 4095}, &words);
  EXPECT_EQ(1u, words.size());
  AppendCounted({kPlace, 4096}, &words);
  EXPECT_EQ(3u, words.size());
}

TEST_F(DigestExtentLeafTest, KeepsAllThatIsKnownOfAnExtent) {
  const auto& seen =
      Joined({{TreeItem(kPlace, 3, ByTree(257) + ByBlock(4096) + ByBlock(8192), kFullBackref, 5),
               Data(2 * kPlace, 9000, ByFile(257, 1000) + ByLeaf(4096, 8000))}});
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(kPlace, seen[0].extent.bytenr);
  EXPECT_TRUE(seen[0].extent.isTreeBlock);
  EXPECT_TRUE(seen[0].extent.fullBackref);
  EXPECT_TRUE(seen[0].extent.asked);
  EXPECT_FALSE(seen[0].extent.outside);
  EXPECT_EQ(5, seen[0].extent.level);
  EXPECT_EQ(kGeneration, seen[0].extent.generation);
  EXPECT_EQ(3u, seen[0].extent.refs);
  EXPECT_EQ((Parents{{4096, 1}, {8192, 1}}), seen[0].parents);
  EXPECT_FALSE(seen[1].extent.isTreeBlock);
  EXPECT_FALSE(seen[1].extent.fullBackref);
  EXPECT_EQ(12288u, seen[1].extent.length);
  EXPECT_EQ(9000u, seen[1].extent.refs);
  EXPECT_EQ(9000u, seen[1].extent.found);
  EXPECT_EQ((Parents{{4096, 8000}}), seen[1].parents);
}

// Each row: what holds an extent, and what becomes of it.
TEST_F(DigestExtentLeafTest, LeavesOutWhatSomebodyOutsideHolds) {
  const struct {
    const char* name;
    Item item;
    bool kept;
    bool outside;
    bool asked;
  } kCases[] = {
      {"asked data", Data(kPlace, 1, ByFile(259, 1)), true, false, true},
      {"data of another", Data(kPlace, 1, ByFile(258, 1)), false, false, false},
      {"data of both", Data(kPlace, 2, ByFile(257, 1) + ByFile(258, 1)), false, false, false},
      {"data of another and a leaf", Data(kPlace, 2, ByFile(258, 1) + ByLeaf(4096, 1)), false,
       false, false},
      {"data of a leaf", Data(kPlace, 1, ByLeaf(4096, 1)), true, false, false},
      {"asked block", TreeItem(kPlace, 1, ByTree(257)), true, false, true},
      {"block of another", TreeItem(kPlace, 1, ByTree(258)), false, false, false},
      {"block of both", TreeItem(kPlace, 2, ByTree(257) + ByTree(258)), false, false, false},
      {"block of another and a node", TreeItem(kPlace, 2, ByTree(258) + ByBlock(4096)), true, true,
       false},
      {"block of a node", TreeItem(kPlace, 1, ByBlock(4096)), true, false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const auto& seen = Joined({{c.item}});
    ASSERT_EQ(c.kept ? 1u : 0u, seen.size());
    if (!c.kept) continue;
    EXPECT_EQ(c.outside, seen[0].extent.outside);
    EXPECT_EQ(c.asked, seen[0].extent.asked);
  }
}

TEST_F(DigestExtentLeafTest, LeavesOutDataOfLeavesThatDoNotMatter) {
  leafMatters_ = [](uint64_t bytenr) { return bytenr == 8192; };
  EXPECT_EQ(0u, Joined({{Data(kPlace, 1, ByLeaf(4096, 1))}}).size());
  EXPECT_EQ(1u, Joined({{Data(kPlace, 2, ByLeaf(4096, 1) + ByLeaf(8192, 1))}}).size());
  EXPECT_EQ(1u, Joined({{Data(kPlace, 2, ByLeaf(4096, 1) + ByFile(257, 1))}}).size());
  EXPECT_EQ(1u, Joined({{TreeItem(kPlace, 1, ByBlock(4096))}}).size());
}

TEST_F(DigestExtentLeafTest, OfAnEmptyLeafIsEmpty) { EXPECT_TRUE(Digest({}).empty()); }

TEST_F(DigestExtentLeafTest, NamesWhatIsWrong) {
  EXPECT_EQ(Damaged(kPlace + 512, "an extent lies at an impossible address"),
            Wrong({Data(kPlace + 512, 1, ByFile(257, 1))}));
  EXPECT_EQ(Damaged(kPlace, "a reference comes from an impossible address"),
            Wrong({Data(kPlace, 1, ByLeaf(4097, 1))}));
  EXPECT_EQ(Damaged(kPlace, "a reference comes from an impossible address"),
            Wrong({TreeItem(kPlace, 1, ByBlock(1))}));
  EXPECT_EQ(Damaged(kPlace, "an extent has an impossible number of references"),
            Wrong({Data(kPlace, 1ULL << 44)}));
  EXPECT_EQ(Damaged(2 * kPlace, "the references found are not as many as the item counts"),
            Wrong({Data(kPlace, 1), Data(2 * kPlace, 1, ByFile(257, 1))}));
  EXPECT_EQ(Damaged(kPlace, "the references found are more than the item counts"),
            Wrong({Data(kPlace, 1, ByFile(257, 2))}));
  EXPECT_EQ(Damaged(kPlace, "an item of an unknown type"), Wrong({{{kPlace, 170, 0}, {}}}));
  // In the middle of a leaf such a thing is seen when the next extent begins.
  EXPECT_EQ(Damaged(2 * kPlace, "an extent lies at an impossible address"),
            Wrong({Data(kPlace + 512, 1, ByFile(257, 1)), Data(2 * kPlace, 1, ByFile(257, 1))}));
}

TEST(DigestOwnBlock, CountsTheReferencesToEachAddress) {
  std::vector<Item> items;
  for (uint64_t i = 0; i < 20; ++i)
    items.push_back(
        MiniFilesystem::FileExtent(258, i * 4096, kPlace * (1 + i % 3),
                                   i % 2 == 0 ? kFileExtentRegular : kFileExtentPreallocated));
  items.push_back(MiniFilesystem::FileExtent(259, 0, 0, kFileExtentRegular));  // a hole
  items.push_back(MiniFilesystem::FileExtent(259, 4096, 77, kFileExtentInline));
  const Bytes block = MakeLeaf(kPlace, items);
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, TreeBlockView::Parse(View(block), &view));
  Words words;
  ASSERT_TRUE(DigestOwnBlock(*view, &words).Ok());
  WordSpan rest = words;
  for (const auto& [bytenr, count] : Parents{{kPlace, 7}, {2 * kPlace, 7}, {3 * kPlace, 6}}) {
    const CountedAddress address = TakeCounted(&rest);
    EXPECT_EQ(bytenr, address.bytenr);
    EXPECT_EQ(count, address.count);
  }
  EXPECT_TRUE(rest.empty());
}

TEST(DigestOwnBlock, TakesTheChildrenOfANodeByRisingAddress) {
  const Bytes block =
      MakeNode(kPlace, 2, {{{256, 1, 0}, 3 * kPlace}, {{257, 1, 0}, kPlace}, {{258, 1, 0}, 4096}});
  std::optional<TreeBlockView> view;
  ASSERT_EQ(nullptr, TreeBlockView::Parse(View(block), &view));
  Words words;
  ASSERT_TRUE(DigestOwnBlock(*view, &words).Ok());
  EXPECT_EQ((Words{4096 | 1, kPlace | 1, (3 * kPlace) | 1}), words);
}

TEST(DigestOwnBlock, NamesABlockThatRefersToAnImpossibleAddress) {
  const Bytes node = MakeNode(kPlace, 1, {{{256, 1, 0}, 4096 + 8}});
  const Bytes leaf =
      MakeLeaf(kPlace, {MiniFilesystem::FileExtent(258, 0, 512, kFileExtentRegular)});
  const std::pair<Bytes, std::string> cases[] = {
      {node, "tree block 1048576 refers to an impossible address; run btrfs check"},
      {leaf,
       "item 0 of tree block 1048576 is a damaged file extent; run btrfs scrub and btrfs check"}};
  for (const auto& [block, text] : cases) {
    std::optional<TreeBlockView> view;
    ASSERT_EQ(nullptr, TreeBlockView::Parse(View(block), &view));
    Words words;
    EXPECT_EQ(text, DigestOwnBlock(*view, &words).Text());
  }
}

// Extents over one to four leaves, with nothing or something after them.
TEST_F(ExtentJoinerTest, PutsAnExtentTogetherFromAllItsLeaves) {
  for (size_t leaves = 1; leaves <= 4; ++leaves) {
    SCOPED_TRACE(leaves);
    std::vector<std::vector<Item>> items(leaves);
    Parents parents;
    items[0].push_back(Data(kPlace, 10 * leaves, ByLeaf(4096, 10)));
    parents.push_back({4096, 10});
    for (size_t i = 1; i < leaves; ++i) {
      items[i].push_back(KeyedLeaf(kPlace, 4096 * (2 * i), 3));
      items[i].push_back(KeyedLeaf(kPlace, 4096 * (2 * i + 1), 7));
      parents.push_back({4096 * (2 * i), 3});
      parents.push_back({4096 * (2 * i + 1), 7});
    }
    for (const bool more : {false, true}) {
      if (more) items.back().push_back(Data(2 * kPlace, 1, ByFile(257, 1)));
      const auto& seen = Joined(items);
      ASSERT_EQ(more ? 2u : 1u, seen.size());
      EXPECT_EQ(parents, seen[0].parents);
      EXPECT_EQ(10 * leaves, seen[0].extent.found);
      EXPECT_EQ(12288u, seen[0].extent.length);
    }
  }
}

// It was lost when nothing that is wanted came after it: the sizes were too small.
TEST_F(ExtentJoinerTest, GivesAnExtentOnAsSoonAsItIsWhole) {
  ExtentJoiner joiner(Collect());
  ASSERT_TRUE(joiner.Take(Digest({Data(kPlace, 2, ByLeaf(4096, 1))})).Ok());
  EXPECT_TRUE(seen_.empty());
  ASSERT_TRUE(joiner.Take(Digest({KeyedLeaf(kPlace, 8192, 1)})).Ok());
  EXPECT_EQ(1u, seen_.size());
  ASSERT_TRUE(joiner.TakeAfterGap(Digest({Data(2 * kPlace, 1, ByFile(257, 1))})).Ok());
  ASSERT_TRUE(joiner.Finish().Ok());
  EXPECT_EQ(2u, seen_.size());
}

TEST_F(ExtentJoinerTest, KnowsWhoHoldsItByNameInAnyOfItsLeaves) {
  const Item asked = {{kPlace, kFile, 1}, Number(257, 8) + Number(1, 16) + Number(1, 4)};
  const Item other = {{kPlace, kFile, 1}, Number(300, 8) + Number(1, 16) + Number(1, 4)};
  EXPECT_TRUE(Joined({{Data(kPlace, 2, ByLeaf(4096, 1))}, {asked}})[0].extent.asked);
  EXPECT_FALSE(seen_[0].extent.outside);
  EXPECT_TRUE(Joined({{Data(kPlace, 2, ByLeaf(4096, 1))}, {other}})[0].extent.outside);
  EXPECT_FALSE(seen_[0].extent.asked);
}

TEST_F(ExtentJoinerTest, LeavesOutWhatGoesOnFromOrInAGap) {
  ExtentJoiner joiner(Collect());
  ASSERT_TRUE(joiner.Take(Digest({Data(kPlace, 2, ByLeaf(4096, 1))})).Ok());
  ASSERT_TRUE(joiner
                  .TakeAfterGap(
                      Digest({KeyedLeaf(2 * kPlace, 8192, 1), Data(3 * kPlace, 1, ByFile(257, 1))}))
                  .Ok());
  ASSERT_TRUE(joiner.Finish().Ok());
  ASSERT_EQ(1u, seen_.size());
  EXPECT_EQ(3 * kPlace, seen_[0].extent.bytenr);
}

TEST_F(ExtentJoinerTest, NamesReferencesWithoutAnExtentAndExtentsWithoutThem) {
  const struct {
    const char* name;
    std::vector<std::vector<Item>> leaves;
    std::string text;
  } kCases[] = {
      {"no extent before",
       {{KeyedLeaf(kPlace, 4096, 1)}},
       Damaged(kPlace, "a reference without an extent")},
      {"another extent before",
       {{Data(kPlace, 2, ByLeaf(4096, 1))}, {KeyedLeaf(2 * kPlace, 4096, 1)}},
       Damaged(2 * kPlace, "a reference without an extent")},
      {"an extent that has all",
       {{Data(kPlace, 1, ByLeaf(4096, 1))}, {KeyedLeaf(kPlace, 8192, 1)}},
       Damaged(kPlace, "a reference without an extent")},
      {"too few",
       {{Data(kPlace, 3, ByLeaf(4096, 1))}, {KeyedLeaf(kPlace, 8192, 1)}},
       Damaged(kPlace, "the references found are not as many as the item counts")},
      {"too many",
       {{Data(kPlace, 3, ByLeaf(4096, 1))}, {KeyedLeaf(kPlace, 8192, 3)}},
       Damaged(kPlace, "the references found are not as many as the item counts")},
      {"too few before another",
       {{Data(kPlace, 2, ByLeaf(4096, 1))}, {Data(2 * kPlace, 1, ByFile(257, 1))}},
       Damaged(kPlace, "the references found are not as many as the item counts")},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ExtentJoiner joiner(Collect());
    Status done;
    for (const auto& leaf : c.leaves)
      if (done.Ok()) done = joiner.Take(Digest(leaf));
    if (done.Ok()) done = joiner.Finish();
    EXPECT_EQ(c.text, done.Text());
  }
}

TEST_F(ExtentJoinerTest, PassesOnWhatItsSinkSays) {
  ExtentJoiner joiner([](const ExtentDigest&) { return Status::Failed("no"); });
  EXPECT_EQ("no", joiner.Take(Digest({Data(kPlace, 1, ByFile(257, 1))})).Text());
}

TEST_F(ExtentJoinerTest, RefusesExtentsThatAreOutOfOrder) {
  const std::vector<Item> low = {Data(kPlace, 1, ByFile(257, 1))};
  const std::vector<Item> high = {Data(2 * kPlace, 1, ByFile(257, 1))};
  for (const auto& [first, second] : {std::pair(high, low), std::pair(low, low)}) {
    ExtentJoiner joiner(Collect());
    ASSERT_TRUE(joiner.Take(Digest(first)).Ok());
    EXPECT_EQ(Damaged(kPlace, "extents are out of order"),
              joiner.TakeAfterGap(Digest(second)).Text());
  }
}
