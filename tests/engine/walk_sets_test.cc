// The walk over several subvolumes that share what they have, held against a brute count.
#include <gtest/gtest.h>

#include "engine/size/newest_state_run.h"
#include "engine/size/top_down_walk.h"
#include "tests/engine/mini_forest.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

using Sums = std::map<std::vector<uint32_t>, HeldBytes>;

// The rows of a table that are not empty, by their members; data and metadata.
std::map<std::vector<uint32_t>, std::pair<uint64_t, uint64_t>> Plain(const Sums& sums) {
  std::map<std::vector<uint32_t>, std::pair<uint64_t, uint64_t>> plain;
  for (const auto& [members, bytes] : sums)
    if (bytes.data + bytes.metadata != 0) plain[members] = {bytes.data, bytes.metadata};
  return plain;
}

Sums RowsOf(const SizeTable& table) {
  Sums sums;
  for (const SetRow& row : table.rows) sums[row.members] += SizeTable::Sum(row.bytes);
  return sums;
}

SizeRequest Ask(const std::vector<uint64_t>& ids, size_t mostSetBytes = 1 << 20) {
  SizeRequest request;
  request.ids = ids;
  request.countMetadata = true;
  request.mostSetBytes = mostSetBytes;
  return request;
}

Status Walk(MiniForest* forest, const SizeRequest& request, TopDownWalk* walk, SizeResult* out) {
  SizeProgress progress;
  return RunOnNewestState(
      forest->Filesystem(), *walk, request, progress, [](const std::string&) {}, out);
}

// The IDs of a forest's subvolumes.
std::vector<uint64_t> IdsOf(size_t subvolumes) {
  std::vector<uint64_t> ids;
  for (size_t i = 0; i < subvolumes; ++i) ids.push_back(MiniForest::kFirstId + i);
  return ids;
}

// A random forest of `fewest` to 8 subvolumes, and some of them, in any order.
struct RandomForest {
  RandomForest(unsigned seed, size_t fewest)
      : random(seed),
        subvolumes(fewest + random() % (9 - fewest)),
        forest(seed, subvolumes),
        ids(IdsOf(subvolumes)) {
    std::shuffle(ids.begin(), ids.end(), random);
    ids.resize(1 + random() % subvolumes);
  }

  std::mt19937 random;
  size_t subvolumes;
  MiniForest forest;
  std::vector<uint64_t> ids;  // asked for
};

}  // namespace

TEST(TopDownWalkSets, AreThoseOfABruteCount) {
  size_t several = 0;
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomForest random(seed, 1);
    TopDownWalk walk;
    SizeResult result;
    const Status done = Walk(&random.forest, Ask(random.ids), &walk, &result);
    ASSERT_TRUE(done.Ok()) << done.Text();
    ASSERT_TRUE(result.table.Complete());
    const Sums brute = random.forest.BruteCount(random.ids);
    ASSERT_EQ(Plain(brute), Plain(RowsOf(result.table)));
    for (const auto& [members, bytes] : brute) several += members.size() > 1 ? 1 : 0;
  }
  EXPECT_GT(several, 300u);
}

// With no memory for sets, what comes free in the asked order is still exact.
TEST(TopDownWalkSets, WithoutRoomGiveWhatComesFreeInTheAskedOrder) {
  for (unsigned seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    RandomForest random(seed, 2);
    const std::vector<uint64_t>& ids = random.ids;
    TopDownWalk walk;
    SizeResult result;
    ASSERT_TRUE(Walk(&random.forest, Ask(ids, /*mostSetBytes=*/0), &walk, &result).Ok());

    std::vector<HeldBytes> freed(ids.size());
    for (const auto& [members, bytes] : random.forest.BruteCount(ids))
      freed[members.back()] += bytes;
    std::vector<uint32_t> order;
    for (uint32_t i = 0; i < ids.size(); ++i) order.push_back(i);
    const auto steps = result.table.Forecast(order);
    ASSERT_TRUE(steps.has_value());
    for (size_t i = 0; i < ids.size(); ++i) {
      EXPECT_EQ(freed[i].data, SizeTable::Sum((*steps)[i].bytes).data);
      EXPECT_EQ(freed[i].metadata, SizeTable::Sum((*steps)[i].bytes).metadata);
    }
  }
}

TEST(TopDownWalkLimit, IsPassedByOneBlockTooManyAndLeavesNoResult) {
  MiniForest forest(7, 6);
  const std::vector<uint64_t> ids = IdsOf(6);
  TopDownWalk walk;
  SizeResult result;
  ASSERT_TRUE(Walk(&forest, Ask(ids), &walk, &result).Ok());
  const uint64_t needed = walk.Blocks();
  ASSERT_GT(needed, 50u);

  walk.LimitTo(needed);
  EXPECT_TRUE(Walk(&forest, Ask(ids), &walk, &result).Ok());
  for (uint64_t limit = 0; limit < needed; ++limit) {
    SCOPED_TRACE(limit);
    walk.LimitTo(limit);
    SizeResult none;
    const Status done = Walk(&forest, Ask(ids), &walk, &none);
    EXPECT_EQ(Status::kOverLimit, done.GetKind());
    EXPECT_LE(walk.Blocks(), limit);
    EXPECT_TRUE(none.table.ids.empty());
  }
}
