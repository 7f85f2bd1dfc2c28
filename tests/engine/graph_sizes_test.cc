// Both ways of counting on random file systems, held against a plain search through their trees.
#include <gtest/gtest.h>

#include "tests/engine/graph_run.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr unsigned kGraphs = 600;

std::pair<uint64_t, uint64_t> Plain(const HeldBytes& bytes) { return {bytes.data, bytes.metadata}; }

SizeTable Counted(GraphFilesystem& filesystem, ExclusiveSizeMethod& method,
                  const SizeRequest& request, SizeProgress* progress) {
  SizeResult result;
  const Status done = RunOn(filesystem, method, request, &result, progress);
  EXPECT_TRUE(done.Ok()) << done.Text();
  result.table.rows.resize(std::max(result.table.rows.size(), request.ids.size()));
  return result.table;
}

SizeTable Scanned(GraphFilesystem& filesystem, const SizeRequest& request,
                  SizeProgress* progress = nullptr) {
  ExtentTreeScan scan;
  return Counted(filesystem, scan, request, progress);
}

SizeTable Walked(GraphFilesystem& filesystem, const SizeRequest& request,
                 SizeProgress* progress = nullptr) {
  TopDownWalk walk;
  return Counted(filesystem, walk, request, progress);
}

// What the rows within a set of positions add up to.
std::pair<uint64_t, uint64_t> SumWithin(const PlainSums& rows, uint32_t set) {
  std::pair<uint64_t, uint64_t> sum;
  for (const auto& [members, bytes] : rows) {
    const bool within = std::ranges::all_of(
        members, [&](uint32_t member) { return member < 32 && (set >> member & 1) != 0; });
    if (!within) continue;
    sum.first += bytes.first;
    sum.second += bytes.second;
  }
  return sum;
}

std::set<uint64_t> IdsOf(const std::vector<uint64_t>& ids, uint32_t set) {
  std::set<uint64_t> some;
  for (size_t i = 0; i < ids.size(); ++i)
    if ((set >> i & 1) != 0) some.insert(ids[i]);
  return some;
}

std::vector<uint32_t> RandomOrder(std::mt19937* random, size_t count, size_t most) {
  std::vector<uint32_t> order;
  for (uint32_t i = 0; i < count; ++i) order.push_back(i);
  std::shuffle(order.begin(), order.end(), *random);
  order.resize(most);
  return order;
}

// Step by step: what nobody reaches any more when the next of `order` goes as well.
void ExpectForecast(const RandomGraph& graph, const SizeTable& table,
                    const std::vector<uint32_t>& order) {
  const auto steps = table.Forecast(order);
  ASSERT_TRUE(steps.has_value());
  ASSERT_EQ(order.size(), steps->size());
  std::set<uint64_t> gone;
  HeldBytes before;
  for (size_t i = 0; i < order.size(); ++i) {
    EXPECT_EQ(order[i], (*steps)[i].subvolume);
    gone.insert(graph.ids[order[i]]);
    const HeldBytes now = graph.filesystem.Trees().OnlyReachedBy(gone);
    const HeldBytes step = SizeTable::Sum((*steps)[i].bytes);
    ASSERT_EQ(now.data - before.data, step.data) << "step " << i;
    ASSERT_EQ(now.metadata - before.metadata, step.metadata) << "step " << i;
    before = now;
  }
}

}  // namespace

TEST(GraphSizes, OfEverySubsetAreWhatNobodyElseReaches) {
  size_t subsets = 0;
  size_t several = 0;
  for (unsigned seed = 1; seed <= kGraphs; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids));
    ASSERT_TRUE(table.Complete());
    const PlainSums rows = PlainRows(table);
    ASSERT_EQ(graph.Expected(), rows);
    for (const auto& [members, bytes] : rows) several += members.size() > 1 ? 1 : 0;

    // All subsets of small questions, some of larger ones.
    const uint32_t all = 1u << graph.ids.size();
    for (uint32_t set = 1; set < all; set += all <= 16 ? 1 : 1 + graph.random() % (all / 8)) {
      ASSERT_EQ(Plain(graph.filesystem.Trees().OnlyReachedBy(IdsOf(graph.ids, set))),
                SumWithin(rows, set));
      ++subsets;
    }
  }
  EXPECT_GT(subsets, 5 * kGraphs);
  EXPECT_GT(several, kGraphs);
}

TEST(GraphSizes, AreTheSameToTheWalk) {
  for (unsigned seed = 1; seed <= kGraphs / 2; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    ASSERT_EQ(graph.Expected(), PlainRows(Walked(graph.filesystem, Ask(graph.ids))));
  }
}

// Both ways, also where a moved tree holds things beside a subvolume; and nothing is told that was
// not counted.
TEST(GraphSizes, AloneAreTheSameWithoutThoseOfSeveral) {
  uint64_t blocks = 0;
  uint64_t blocksAlone = 0;
  for (unsigned seed = 1; seed <= kGraphs; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeRequest request = AskAlone(graph.ids);
    const PlainSums expected = Asked(graph.Expected(), request);
    SizeProgress progress;
    const SizeTable table = Scanned(graph.filesystem, request, &progress);
    ASSERT_EQ(expected, PlainRows(table));
    ASSERT_EQ(expected, PlainRows(Walked(graph.filesystem, request, &progress)));
    EXPECT_FALSE(table.Complete());
    EXPECT_FALSE(table.Forecast({0}).has_value());
    blocksAlone += progress.meter.counters.blocksVerified;

    SizeProgress ofAll;
    (void)Scanned(graph.filesystem, Ask(graph.ids), &ofAll);
    (void)Walked(graph.filesystem, Ask(graph.ids), &ofAll);
    blocks += ofAll.meter.counters.blocksVerified;
  }
  EXPECT_LT(blocksAlone, blocks);
}

TEST(GraphSizes, OfEveryOneOfAThousandSubsetsAreWhatNobodyElseReaches) {
  RandomGraph graph(4711, 14, 160);
  graph.ids = graph.filesystem.Trees().Subvolumes();
  ASSERT_GE(graph.ids.size(), 10u);
  graph.ids.resize(10);
  const PlainSums rows = PlainRows(Scanned(graph.filesystem, Ask(graph.ids)));
  for (uint32_t set = 0; set < 1u << 10; ++set)
    ASSERT_EQ(Plain(graph.filesystem.Trees().OnlyReachedBy(IdsOf(graph.ids, set))),
              SumWithin(rows, set))
        << set;
}

// Data that a balance moves, and that a subvolume has been given already, has an old place too.
TEST(GraphSizes, AreNotToldWhileMovedDataIsHandedOver) {
  size_t told = 0;
  size_t waited = 0;
  for (unsigned seed = 1; seed <= kGraphs / 6; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed, 6, 20);
    graph.filesystem.Trees().CreateMovedData();
    graph.filesystem.Commit();
    bool handedOver = false;
    for (const auto& [bytenr, extent] : graph.filesystem.Trees().Extents()) {
      const auto own = std::ranges::count_if(extent.references, [](const auto& reference) {
        return !reference.first.shared && reference.first.holder == kDataRelocationTreeId;
      });
      if (extent.isTreeBlock || own == 0) continue;
      handedOver = handedOver || static_cast<size_t>(own) != extent.references.size();
    }

    SizeRequest request = Ask(graph.ids);
    request.mostSettling = std::chrono::milliseconds(1);
    ExtentTreeScan scan;
    SizeResult result;
    const Status done = RunOn(graph.filesystem, scan, request, &result);
    if (handedOver) {
      ++waited;
      EXPECT_EQ(0u, done.Text().find("a balance, or a device that shrinks or goes, is giving "
                                     "subvolumes the new places of data that it has moved"))
          << done.Text();
    } else {
      ++told;
      ASSERT_EQ(graph.Expected(), PlainRows(result.table)) << done.Text();
    }
    TopDownWalk walk;
    const std::string walked = RunOn(graph.filesystem, walk, request, &result).Text();
    EXPECT_EQ(0u, walked.find("a balance, or a device that shrinks or goes, is moving data, which "
                              "this way of counting cannot follow; try again when it has ended, or "
                              "with --method scan"))
        << walked;
  }
  EXPECT_GT(told, 10u);
  EXPECT_GT(waited, 10u);
}

TEST(GraphForecast, IsWhatDeletionInThatOrderLeavesUnreached) {
  for (unsigned seed = 1; seed <= kGraphs / 3; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids));
    const size_t count = graph.ids.size();
    ExpectForecast(graph, table, RandomOrder(&graph.random, count, count));
    ExpectForecast(graph, table, RandomOrder(&graph.random, count, graph.random() % (count + 1)));
  }
}

// The kernel's rules of dropping a tree free what was forecast, and nothing else.
TEST(GraphForecast, IsWhatDroppingTheTreesFrees) {
  size_t steps = 0;
  for (unsigned seed = 1; seed <= kGraphs / 3; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    GraphTrees& trees = graph.filesystem.Trees();
    bool moves = false;
    for (const auto& [key, root] : trees.Roots()) moves = moves || !IsSubvolumeId(key.first);
    if (moves) continue;
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids));
    const std::vector<uint32_t> order =
        RandomOrder(&graph.random, graph.ids.size(), graph.ids.size());
    const auto forecast = table.Forecast(order);
    ASSERT_TRUE(forecast.has_value());
    for (size_t i = 0; i < order.size(); ++i, ++steps) {
      const HeldBytes before = trees.Entered();
      trees.Delete(graph.ids[order[i]]);
      const HeldBytes now = trees.Entered();
      const HeldBytes freed = SizeTable::Sum((*forecast)[i].bytes);
      ASSERT_EQ(before.data - now.data, freed.data);
      ASSERT_EQ(before.metadata - now.metadata, freed.metadata);
    }
  }
  EXPECT_GT(steps, kGraphs / 3);
}

// No memory for sets: what each holds alone, and what comes free in the asked order, stay exact.
TEST(GraphSizes, WithoutRoomForSetsAreExactAloneAndInTheAskedOrder) {
  for (unsigned seed = 1; seed <= kGraphs / 3; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeRequest request = Ask(graph.ids, /*mostSetBytes=*/0);
    const SizeTable table = Scanned(graph.filesystem, request);
    const PlainSums expected = graph.Expected();
    for (uint32_t i = 0; i < graph.ids.size(); ++i) {
      const auto alone = expected.find({i});
      ASSERT_EQ(alone == expected.end() ? std::make_pair(uint64_t{0}, uint64_t{0}) : alone->second,
                Plain(table.Exclusive(i)));
    }
    std::vector<uint32_t> order;
    for (uint32_t i = 0; i < graph.ids.size(); ++i) order.push_back(i);
    ExpectForecast(graph, table, order);
    ASSERT_EQ(PlainRows(table), PlainRows(Walked(graph.filesystem, request)));
  }
}

// Memory that ends while sets are found: single ones stay exact, no set gets too much, and what
// misses in the sets that were kept is in the sum of their last member.
TEST(GraphSizes, WithRoomForFewSetsLoseNothing) {
  size_t partial = 0;
  size_t kept = 0;
  for (unsigned seed = 1; seed <= kGraphs / 2; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const size_t limit = 72 * (graph.ids.size() + 2 + graph.random() % 4);
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids, limit));
    const PlainSums expected = graph.Expected();
    const PlainSums found = PlainRows(table);
    PlainSums leftByLast;
    for (const auto& [members, bytes] : expected) {
      leftByLast[{members.back()}].first += bytes.first;
      leftByLast[{members.back()}].second += bytes.second;
      if (members.size() > 1) continue;
      ASSERT_EQ(bytes, Plain(table.Exclusive(members[0])));
    }
    for (const auto& [members, bytes] : found) {
      leftByLast[{members.back()}].first -= bytes.first;
      leftByLast[{members.back()}].second -= bytes.second;
      if (members[0] == UINT32_MAX) continue;
      const auto whole = expected.find(members);
      ASSERT_NE(expected.end(), whole);
      ASSERT_LE(bytes.first, whole->second.first);
      ASSERT_LE(bytes.second, whole->second.second);
      kept += members.size() > 1 ? 1 : 0;
    }
    for (const auto& [last, left] : leftByLast) {
      ASSERT_EQ(0u, left.first);
      ASSERT_EQ(0u, left.second);
    }
    if (!table.Complete()) ++partial;
    std::vector<uint32_t> order;
    for (uint32_t i = 0; i < graph.ids.size(); ++i) order.push_back(i);
    ExpectForecast(graph, table, order);
  }
  EXPECT_GT(partial, 50u);
  EXPECT_GT(kept, 50u);
}

TEST(GraphLaws, AForecastOfOneIsWhatItHoldsAlone) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids));
    for (uint32_t i = 0; i < graph.ids.size(); ++i) {
      const auto steps = table.Forecast({i});
      ASSERT_TRUE(steps.has_value());
      EXPECT_EQ(Plain(table.Exclusive(i)), Plain(SizeTable::Sum((*steps)[0].bytes)));
      EXPECT_EQ(Plain(table.Exclusive(i)),
                Plain(Scanned(graph.filesystem, Ask({graph.ids[i]})).Exclusive(0)));
    }
  }
}

TEST(GraphLaws, AForecastGrowsWithItsSet) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeTable table = Scanned(graph.filesystem, Ask(graph.ids));
    const size_t count = graph.ids.size();
    const std::vector<uint32_t> order = RandomOrder(&graph.random, count, count);
    const auto steps = table.Forecast(order);
    ASSERT_TRUE(steps.has_value());
    HeldBytes total;
    for (size_t i = 0; i < count; ++i) {
      const HeldBytes step = SizeTable::Sum((*steps)[i].bytes);
      EXPECT_GE(step.data, table.Exclusive(order[i]).data);
      EXPECT_GE(step.metadata, table.Exclusive(order[i]).metadata);
      total += step;
    }
    // Leaving one out brings no more.
    std::vector<uint32_t> fewer = order;
    fewer.erase(fewer.begin() + static_cast<ptrdiff_t>(graph.random() % count));
    HeldBytes ofFewer;
    const auto stepsOfFewer = table.Forecast(fewer);
    ASSERT_TRUE(stepsOfFewer.has_value());
    for (const ForecastStep& step : *stepsOfFewer) ofFewer += SizeTable::Sum(step.bytes);
    EXPECT_LE(ofFewer.data, total.data);
    EXPECT_LE(ofFewer.metadata, total.metadata);
  }
}

TEST(GraphLaws, TheOrderOfArgumentsChangesNothing) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    std::map<std::set<uint64_t>, std::pair<uint64_t, uint64_t>> byIds[2];
    for (auto& rows : byIds) {
      std::shuffle(graph.ids.begin(), graph.ids.end(), graph.random);
      for (const auto& [members, bytes] : PlainRows(Scanned(graph.filesystem, Ask(graph.ids)))) {
        std::set<uint64_t> holders;
        for (const uint32_t member : members) holders.insert(graph.ids[member]);
        rows[holders] = bytes;
      }
    }
    EXPECT_EQ(byIds[0], byIds[1]);
  }
}

// The new root block is counted with the snapshot; a written path of the open transaction may be
// copied, so that the state before is committed first.
TEST(GraphLaws, ASnapshotMoreRaisesNobodysExclusiveSize) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeTable before = Scanned(graph.filesystem, Ask(graph.ids));
    const std::vector<uint64_t> all = graph.filesystem.Trees().Subvolumes();
    graph.filesystem.Trees().Snapshot(all[graph.random() % all.size()]);
    graph.filesystem.Commit();
    const SizeTable after = Scanned(graph.filesystem, Ask(graph.ids));
    for (uint32_t i = 0; i < graph.ids.size(); ++i) {
      EXPECT_LE(after.Exclusive(i).data, before.Exclusive(i).data);
      EXPECT_LE(after.Exclusive(i).metadata, before.Exclusive(i).metadata);
    }
  }
}

TEST(GraphLaws, AllTogetherAreAllThatSubvolumesUse) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const std::vector<uint64_t> all = graph.filesystem.Trees().Subvolumes();
    HeldBytes used;
    for (const auto& [holders, bytes] :
         graph.filesystem.HoldersAt(graph.filesystem.LastGeneration()))
      if (holders != std::set<uint64_t>{kRelocationTreeId}) used += bytes;
    HeldBytes sum;
    for (const SetRow& row : Scanned(graph.filesystem, Ask(all)).rows)
      sum += SizeTable::Sum(row.bytes);
    EXPECT_EQ(Plain(used), Plain(sum));
  }
}

TEST(GraphLaws, SmallMemoryGivesTheSameTable) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    RandomGraph graph(seed);
    const SizeRequest small = Ask(graph.ids, kAllSets, /*mostArrayBytes=*/0);
    EXPECT_EQ(graph.Expected(), PlainRows(Scanned(graph.filesystem, small)));
  }
}
