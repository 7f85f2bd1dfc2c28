// Sets of subvolumes and their unions, held against plain sets.
#include "engine/size/holder_sets.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

using namespace ZorvEngine;

namespace {

constexpr size_t kRoomy = 64 << 20;
using Members = std::vector<uint32_t>;

HolderId UnionOf(HolderSets* sets, const std::vector<HolderId>& ids) {
  HolderUnion together(*sets);
  for (const HolderId id : ids) together.Add(id);
  return together.Id();
}

HolderId SetOf(HolderSets* sets, const Members& members) {
  HolderUnion together(*sets);
  for (const uint32_t member : members) together.Add(HolderSets::Only(member));
  return together.Id();
}

// Memory for this many sets besides nobody and the single ones.
size_t RoomFor(size_t subvolumes, size_t sets) {
  return ((subvolumes + 63) / 64 * 8 + 64) * (subvolumes + 1 + sets);
}

}  // namespace

TEST(HolderSetsTest, KnowsSingleSetsAndNobody) {
  for (const size_t bytes : {size_t{0}, kRoomy}) {
    HolderSets sets(3, bytes);
    EXPECT_EQ(3u, sets.Subvolumes());
    EXPECT_TRUE(sets.Members(HolderSets::kNobody).empty());
    EXPECT_FALSE(sets.IsSingle(HolderSets::kNobody));
    for (uint32_t i = 0; i < 3; ++i) {
      EXPECT_TRUE(sets.IsSingle(HolderSets::Only(i)));
      EXPECT_TRUE(sets.IsComplete(HolderSets::Only(i)));
      EXPECT_EQ(Members{i}, sets.Members(HolderSets::Only(i)));
      EXPECT_EQ(i, sets.Last(HolderSets::Only(i)));
    }
  }
}

TEST(HolderSetsTest, GivesEqualSetsOneNumber) {
  HolderSets sets(300, kRoomy);
  std::map<Members, HolderId> numbers;
  std::mt19937 random(1);
  for (int i = 0; i < 5000; ++i) {
    std::set<uint32_t> members;
    const size_t count = 2 + random() % 3;
    while (members.size() < count) members.insert(random() % 12 * 27);
    Members shuffled(members.begin(), members.end());
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    const HolderId id = SetOf(&sets, shuffled);
    const auto [known, isNew] = numbers.emplace(Members(members.begin(), members.end()), id);
    ASSERT_EQ(known->second, id);
    ASSERT_EQ(known->first, sets.Members(id));
    ASSERT_EQ(*members.rbegin(), sets.Last(id));
    ASSERT_TRUE(sets.IsComplete(id));
    ASSERT_FALSE(sets.IsSingle(id));
  }
  EXPECT_LT(numbers.size(), 1000u);
}

TEST(HolderUnionTest, IsThatOfPlainSets) {
  for (const size_t subvolumes : {1, 2, 63, 64, 65, 128, 500}) {
    SCOPED_TRACE(subvolumes);
    HolderSets sets(subvolumes, kRoomy);
    std::mt19937 random(static_cast<unsigned>(subvolumes));
    std::vector<HolderId> known = {HolderSets::kNobody};
    for (uint32_t i = 0; i < subvolumes; ++i) known.push_back(HolderSets::Only(i));
    HolderUnion together(sets);
    for (int round = 0; round < 2000; ++round) {
      std::set<uint32_t> plain;
      together.Clear();
      for (size_t count = random() % 5; count > 0; --count) {
        const HolderId id = known[random() % known.size()];
        together.Add(id);
        for (const uint32_t member : sets.Members(id)) plain.insert(member);
      }
      const HolderId id = together.Id();
      ASSERT_EQ(Members(plain.begin(), plain.end()), sets.Members(id));
      if (known.size() < 3000) known.push_back(id);
    }
  }
}

TEST(HolderUnionTest, BeginsAnewWhenItIsCleared) {
  HolderSets sets(100, kRoomy);
  HolderUnion together(sets);
  together.Add(HolderSets::Only(1));
  together.Add(HolderSets::Only(99));
  EXPECT_EQ((Members{1, 99}), sets.Members(together.Id()));
  together.Clear();
  EXPECT_EQ(HolderSets::kNobody, together.Id());
  together.Add(HolderSets::Only(2));
  together.Add(HolderSets::Only(3));
  EXPECT_EQ((Members{2, 3}), sets.Members(together.Id()));
}

TEST(HolderUnionTest, LeavesOutNobody) {
  HolderSets sets(3, kRoomy);
  EXPECT_EQ(HolderSets::Only(1), UnionOf(&sets, {HolderSets::kNobody, HolderSets::Only(1),
                                                 HolderSets::kNobody, HolderSets::Only(1)}));
  EXPECT_EQ(HolderSets::kNobody, UnionOf(&sets, {HolderSets::kNobody}));
}

TEST(HolderUnionTest, WithoutRoomKnowsThatThereAreSeveralAndTheLast) {
  HolderSets sets(10, 0);
  const HolderId some = SetOf(&sets, {7, 2, 5});
  EXPECT_FALSE(sets.IsComplete(some));
  EXPECT_FALSE(sets.IsSingle(some));
  EXPECT_EQ(7u, sets.Last(some));
  EXPECT_EQ(Members{7}, sets.Members(some));
  EXPECT_EQ(9u, sets.Last(UnionOf(&sets, {some, HolderSets::Only(9)})));
  EXPECT_EQ(7u, sets.Last(UnionOf(&sets, {HolderSets::Only(1), some})));
  EXPECT_EQ(some, UnionOf(&sets, {some, some}));
  EXPECT_EQ(HolderSets::Only(4), SetOf(&sets, {4, 4}));
}

// Room for two sets of several: later ones are known in part, those two stay known.
TEST(HolderSetsTest, KeepsWhatItHasWhenItsRoomEnds) {
  HolderSets sets(70, RoomFor(70, 2));
  const HolderId first = SetOf(&sets, {1, 2});
  const HolderId second = SetOf(&sets, {1, 69});
  const HolderId third = SetOf(&sets, {2, 68});
  EXPECT_TRUE(sets.IsComplete(first));
  EXPECT_TRUE(sets.IsComplete(second));
  EXPECT_FALSE(sets.IsComplete(third));
  EXPECT_EQ(68u, sets.Last(third));
  EXPECT_EQ(first, SetOf(&sets, {2, 1}));
  EXPECT_EQ(second, UnionOf(&sets, {second, HolderSets::Only(1)}));
  const HolderId more = UnionOf(&sets, {third, second});
  EXPECT_FALSE(sets.IsComplete(more));
  EXPECT_EQ(69u, sets.Last(more));
  const HolderId large = UnionOf(&sets, {first, HolderSets::Only(50)});
  EXPECT_FALSE(sets.IsComplete(large));
  EXPECT_EQ(50u, sets.Last(large));
}

// The limit is where the room for single ones alone ends: then no set is kept at all.
TEST(HolderSetsTest, KeepsNoSetWhenThereIsRoomForSingleOnesAlone) {
  HolderSets none(70, RoomFor(70, 0));
  EXPECT_FALSE(none.IsComplete(SetOf(&none, {1, 2})));
  HolderSets one(70, RoomFor(70, 1));
  EXPECT_TRUE(one.IsComplete(SetOf(&one, {1, 2})));
  EXPECT_FALSE(one.IsComplete(SetOf(&one, {1, 3})));
}
