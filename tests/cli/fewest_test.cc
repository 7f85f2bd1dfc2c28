// The choice of as few snapshots as possible, against all choices there are.
#include "cli/fewest.h"

#include <gtest/gtest.h>

#include <random>

using namespace ZorvSnapUsage;

namespace {

using Places = std::vector<uint32_t>;

// A set given by the bits of its members.
struct BitSet {
  uint32_t members;
  unsigned long long bytes;
};

Places PlacesOf(uint32_t bits) {
  Places places;
  for (uint32_t place = 0; place < 32; ++place)
    if ((bits >> place & 1) != 0) places.push_back(place);
  return places;
}

std::vector<WeightedSet> Weighted(const std::vector<BitSet>& sets) {
  std::vector<WeightedSet> weighted;
  for (const BitSet& set : sets) weighted.push_back({MembersOf(PlacesOf(set.members)), set.bytes});
  return weighted;
}

unsigned long long FreedBy(const std::vector<BitSet>& sets, uint32_t chosen) {
  unsigned long long freed = 0;
  for (const BitSet& set : sets)
    if ((set.members & ~chosen) == 0) freed += set.bytes;
  return freed;
}

uint32_t BitsOf(const Places& places) {
  uint32_t bits = 0;
  for (const uint32_t place : places) bits |= 1u << place;
  return bits;
}

// The least number of all subsets that free the target; more than `count` when none does.
size_t FewestOfAll(size_t count, const std::vector<BitSet>& sets, unsigned long long target) {
  size_t fewest = count + 1;
  for (uint32_t chosen = 0; chosen < 1u << count; ++chosen)
    if (FreedBy(sets, chosen) >= target)
      fewest = std::min<size_t>(fewest, static_cast<size_t>(__builtin_popcount(chosen)));
  return fewest;
}

// Random sets: single members, and ranges or any members at all.
std::vector<BitSet> RandomSets(size_t count, bool ranges, std::mt19937& random) {
  std::vector<BitSet> sets;
  for (uint32_t place = 0; place < count; ++place)
    if (random() % 3 != 0) sets.push_back({1u << place, random() % 50});
  for (size_t n = random() % (3 * count); n > 0; --n) {
    uint32_t members = 0;
    if (ranges) {
      const size_t first = random() % count, last = first + random() % (count - first);
      for (size_t place = first; place <= last; ++place) members |= 1u << place;
    } else {
      members = 1 + static_cast<uint32_t>(random() % ((1u << count) - 1));
      if (random() % 2 == 0) members &= static_cast<uint32_t>(random());
      if (members == 0) continue;
    }
    sets.push_back({members, 1 + random() % 100});
  }
  return sets;
}

void ExpectLikeAllSubsets(bool ranges) {
  unsigned reached = 0, notReached = 0, morePossible = 0;
  for (unsigned seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const size_t count = 1 + random() % 10;
    const std::vector<BitSet> sets = RandomSets(count, ranges, random);
    const unsigned long long all = FreedBy(sets, (1u << count) - 1);
    const unsigned long long target = 1 + random() % (all + all / 10 + 1);
    const FewestChoice choice = ChooseFewest(count, Weighted(sets), target);
    EXPECT_EQ(all, choice.most);
    EXPECT_TRUE(choice.Proved());
    const size_t fewest = FewestOfAll(count, sets, target);
    if (fewest > count) {
      EXPECT_FALSE(choice.Reached());
      ++notReached;
      continue;
    }
    ++reached;
    morePossible += fewest < count;
    EXPECT_EQ(fewest, choice.chosen.size());
    EXPECT_TRUE(std::is_sorted(choice.chosen.begin(), choice.chosen.end()));
    EXPECT_GE(FreedBy(sets, BitsOf(choice.chosen)), target);
  }
  EXPECT_GT(reached, 200u);
  EXPECT_GT(notReached, 5u);
  EXPECT_GT(morePossible, 100u);
}

}  // namespace

TEST(Fewest, RangesLikeAllSubsets) { ExpectLikeAllSubsets(/*ranges=*/true); }

TEST(Fewest, AnySetsLikeAllSubsets) { ExpectLikeAllSubsets(/*ranges=*/false); }

// Each of the first three is larger than each of the others; together the others free more.
TEST(Fewest, TakesWhatIsFreeOnlyTogether) {
  const std::vector<BitSet> sets = {{0b00001, 30}, {0b00010, 30}, {0b00100, 30},
                                    {0b01000, 1},  {0b10000, 1},  {0b11000, 90}};
  EXPECT_EQ((Places{3, 4}), ChooseFewest(5, Weighted(sets), 80).chosen);
  EXPECT_EQ((Places{0}), ChooseFewest(5, Weighted(sets), 30).chosen) << "of equals the oldest";
  EXPECT_EQ((Places{0, 3, 4}), ChooseFewest(5, Weighted(sets), 120).chosen);
}

TEST(Fewest, SaysTheMostWhenItIsNotEnough) {
  const FewestChoice choice = ChooseFewest(2, Weighted({{0b01, 10}, {0b11, 5}}), 16);
  EXPECT_FALSE(choice.Reached());
  EXPECT_EQ(15u, choice.most);
  EXPECT_FALSE(ChooseFewest(0, {}, 1).Reached());
}

TEST(Fewest, LimitGivesAnAnswerThatIsNotProved) {
  std::mt19937 random(7);
  const std::vector<BitSet> sets = RandomSets(20, /*ranges=*/false, random);
  const unsigned long long target = FreedBy(sets, (1u << 20) - 1) / 2;
  const FewestChoice choice = ChooseFewest(20, Weighted(sets), target, {.looks = 100});
  EXPECT_TRUE(choice.Reached());
  EXPECT_FALSE(choice.Proved());
  EXPECT_GE(FreedBy(sets, BitsOf(choice.chosen)), target);
  const FewestChoice proved = ChooseFewest(20, Weighted(sets), target);
  EXPECT_TRUE(proved.Proved());
  EXPECT_GE(choice.chosen.size(), proved.chosen.size());
  EXPECT_LE(choice.atLeast, proved.chosen.size());
  EXPECT_EQ(FewestOfAll(20, sets, target), proved.chosen.size());
}

// Beyond the number for which all runs are compared the search answers, with the same number.
TEST(Fewest, SearchAndRunsAgree) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    const std::vector<BitSet> sets = RandomSets(12, /*ranges=*/true, random);
    const unsigned long long target = 1 + FreedBy(sets, (1u << 12) - 1) / 2;
    const FewestChoice runs = ChooseFewest(12, Weighted(sets), target);
    const FewestChoice search = ChooseFewest(12, Weighted(sets), target, {.candidates = 0});
    EXPECT_EQ(runs.chosen.size(), search.chosen.size()) << "seed " << seed;
    EXPECT_TRUE(search.Proved());
  }
}

// Whatever it is at, it looks up soon: each of its ways ends where the caller wants it to.
TEST(Fewest, EndsWhereTheCallerThrows) {
  struct Enough {};
  std::mt19937 random(3);
  for (const bool ranges : {true, false}) {
    const std::vector<BitSet> sets = RandomSets(20, ranges, random);
    const unsigned long long target = FreedBy(sets, (1u << 20) - 1) / 2;
    const auto ticksUntil = [&](unsigned last, const FewestLimits& limits) {
      unsigned ticks = 0;
      const auto tick = [&] {
        if (++ticks == last) throw Enough();
      };
      if (last == 0) {
        ChooseFewest(20, Weighted(sets), target, limits, tick);
      } else {
        EXPECT_THROW(ChooseFewest(20, Weighted(sets), target, limits, tick), Enough) << last;
      }
      return ticks;
    };
    for (const FewestLimits& limits : {FewestLimits{}, FewestLimits{.candidates = 0}}) {
      const unsigned all = ticksUntil(0, limits);
      EXPECT_GT(all, 20u);
      for (unsigned last = 1; last <= all; ++last) EXPECT_EQ(last, ticksUntil(last, limits));
    }
  }
}

TEST(Fewest, ManySnapshotsOfOneHistory) {
  std::mt19937 random(1);
  constexpr uint32_t kCount = 1000;
  std::vector<WeightedSet> sets;
  unsigned long long all = 0;
  for (unsigned n = 0; n < 10000; ++n) {
    const uint32_t first = static_cast<uint32_t>(random() % kCount);
    const uint32_t last =
        std::min<uint32_t>(kCount - 1, first + static_cast<uint32_t>(random() % 30));
    sets.push_back({{{first, last}}, random() % 1000});
    all += sets.back().bytes;
  }
  const FewestChoice choice = ChooseFewest(kCount, sets, all / 10);
  EXPECT_TRUE(choice.Proved());
  EXPECT_LT(choice.chosen.size(), kCount / 4);
  const FewestChoice nearlyAll = ChooseFewest(kCount, sets, all - 1000);
  EXPECT_TRUE(nearlyAll.Proved());
  EXPECT_GT(nearlyAll.chosen.size(), choice.chosen.size());
}
