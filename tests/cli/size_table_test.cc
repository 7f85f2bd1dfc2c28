// What comes free, against the definition: a set is free when all of its members are gone.
#include "cli/size_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

using namespace ZorvSnapUsage;

namespace {

using Places = std::vector<uint32_t>;

bool Has(const Members& members, uint32_t place) {
  return std::any_of(members.begin(), members.end(), [&](const PlaceRange& range) {
    return range.first <= place && place <= range.last;
  });
}

// A table of `count` snapshots with some random sets.
SizeTable RandomTable(uint32_t count, std::mt19937& random) {
  SizeTable table;
  for (uint32_t place = 0; place < count; ++place) table.subvolumeIDs.push_back(257 + place);
  for (unsigned n = 0; n < 12; ++n) {
    Places places;
    for (uint32_t place = 0; place < count; ++place)
      if (random() % 2 == 0) places.push_back(place);
    if (!places.empty()) table.sets.push_back({MembersOf(places), {random() % 99, random() % 9}});
  }
  return table;
}

// What the gone snapshots alone held.
FreedBytes HeldBy(const SizeTable& table, const std::vector<bool>& gone) {
  FreedBytes held;
  for (const HeldSet& set : table.sets) {
    bool allGone = true;
    for (uint32_t place = 0; place < gone.size(); ++place)
      allGone &= gone[place] || !Has(set.members, place);
    if (allGone) held += set.bytes;
  }
  return held;
}

}  // namespace

TEST(SizeTable, MembersAreRanges) {
  EXPECT_EQ((Members{{0, 2}, {4, 4}, {7, 8}}), MembersOf({0, 1, 2, 4, 7, 8}));
  EXPECT_EQ(6u, CountOf(MembersOf({0, 1, 2, 4, 7, 8})));
  EXPECT_TRUE(MembersOf({}).empty());
}

TEST(SizeTable, StepsAreWhatBecomesNobodys) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    const SizeTable table = RandomTable(1 + seed % 8, random);
    Places order(table.subvolumeIDs.size());
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), random);
    order.resize(1 + random() % order.size());
    const std::vector<FreedBytes> steps = FreedInOrder(table, order).value();
    ASSERT_EQ(order.size(), steps.size());
    std::vector<bool> gone(table.subvolumeIDs.size());
    FreedBytes sum;
    for (size_t i = 0; i < order.size(); ++i) {
      gone[order[i]] = true;
      sum += steps[i];
      EXPECT_EQ(HeldBy(table, gone), sum) << "seed " << seed << ", step " << i;
    }
    EXPECT_EQ(sum, SumOf(steps));
  }
}

TEST(SizeTable, SharesOfEachSnapshot) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const SizeTable table = RandomTable(1 + seed % 8, random);
    const std::vector<SnapshotShares> shares = SharesOf(table);
    std::vector<bool> older(shares.size());
    FreedBytes alone;
    for (uint32_t place = 0; place < shares.size(); ++place) {
      std::vector<bool> one(shares.size());
      one[place] = older[place] = true;
      EXPECT_EQ(HeldBy(table, one), shares[place].alone);
      EXPECT_EQ(HeldBy(table, older), shares[place].withAllOlder);
      FreedBytes newer;
      for (const HeldSet& set : table.sets)
        if (Has(set.members, place) && (place == 0 || !Has(set.members, place - 1)))
          newer += set.bytes;
      EXPECT_EQ(newer, shares[place].newSinceOlder);
      alone += shares[place].alone;
    }
    const TableTotals totals = TotalsOf(table);
    EXPECT_EQ(shares.back().withAllOlder, totals.all);
    alone += totals.heldBySeveral;
    EXPECT_EQ(totals.all, alone) << "so that the sum is explained";
  }
}

TEST(SizeTable, SumsAnswerForTheOrderOfTheTableAlone) {
  SizeTable table;
  table.subvolumeIDs = {257, 258, 259};
  table.sets = {{{{0, 0}}, {10, 1}}, {{{1, 2}}, {20, 0}}};
  table.sums = {{1, {5, 0}}, {2, {7, 0}}};
  EXPECT_FALSE(table.Complete());
  EXPECT_EQ((std::vector<FreedBytes>{{10, 1}, {5, 0}, {27, 0}}), FreedInOrder(table, {0, 1, 2}));
  EXPECT_EQ((std::vector<FreedBytes>{{10, 1}, {5, 0}}), FreedInOrder(table, {0, 1}));
  EXPECT_FALSE(FreedInOrder(table, {1, 0}));
  EXPECT_FALSE(FreedInOrder(table, {0, 2}));
  const std::vector<SnapshotShares> shares = SharesOf(table);
  EXPECT_EQ((FreedBytes{42, 1}), shares[2].withAllOlder);
  EXPECT_EQ((FreedBytes{0, 0}), shares[1].alone);
  EXPECT_FALSE(shares[1].newSinceOlder);
  EXPECT_EQ((FreedBytes{32, 0}), TotalsOf(table).heldBySeveral);
}
