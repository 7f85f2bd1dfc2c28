// Logical addresses to places on the devices.
#include "engine/io/chunk_map.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kMiB = 1 << 20;

Status AddChunk(ChunkMap* map, uint64_t logical, const Bytes& chunk) {
  return map->Add(ChunkKey(logical), View(chunk));
}

using PlaceList = std::vector<Place>;

PlaceList Find(const ChunkMap& map, uint64_t logical, uint64_t length) {
  const Places places = map.Find(logical, length);
  return PlaceList(places.begin(), places.end());
}

// Stripes on devices 1 to `count`, device n's at n * 100 MiB.
PlaceList Stripes(uint64_t count) {
  PlaceList stripes;
  for (uint64_t devid = 1; devid <= count; ++devid) stripes.push_back({devid, devid * 100 * kMiB});
  return stripes;
}

// A superblock whose system chunk array holds `array`.
Superblock WithSystemChunks(const Bytes& array) {
  Superblock superblock{};
  superblock.systemChunkArraySize.Set(static_cast<uint32_t>(array.size()));
  std::copy(array.begin(), array.end(), superblock.systemChunkArray);
  return superblock;
}

Bytes KeyBytes(const Key& key) {
  DiskKey disk{};
  disk.Set(key);
  return BytesOf(disk);
}

}  // namespace

TEST(ChunkMapFind, GivesEveryCopy) {
  const struct {
    const char* name;
    uint64_t profile;
    PlaceList stripes;
    PlaceList expected;
  } kCases[] = {
      {"single", 0, {{3, 5 * kMiB}}, {{3, 5 * kMiB + 4096}}},
      {"dup",
       kDup,
       {{1, 20 * kMiB}, {1, 40 * kMiB}},
       {{1, 20 * kMiB + 4096}, {1, 40 * kMiB + 4096}}},
      {"raid1", kRaid1, {{2, kMiB}, {1, 0}}, {{2, kMiB + 4096}, {1, 4096}}},
      {"raid1c3", kRaid1c3, {{4, 0}, {2, kMiB}, {7, 0}}, {{4, 4096}, {2, kMiB + 4096}, {7, 4096}}},
      {"raid1c4",
       kRaid1c4,
       {{4, 0}, {2, kMiB}, {7, 0}, {1, 0}},
       {{4, 4096}, {2, kMiB + 4096}, {7, 4096}, {1, 4096}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ChunkMap map;
    ASSERT_TRUE(
        AddChunk(&map, 8 * kMiB, MakeChunkOn(kMiB, kChunkMetadata | c.profile, c.stripes)).Ok());
    EXPECT_EQ(c.expected, Find(map, 8 * kMiB + 4096, 4096));
  }
}

TEST(ChunkMapFind, DealsThePiecesOfStripedChunks) {
  constexpr uint64_t kPiece = 64 << 10;
  const struct {
    const char* name;
    uint64_t profile;
    uint64_t stripes;
    uint64_t piece;                                       // asked for, from the start of the chunk
    std::vector<std::pair<uint64_t, uint64_t>> expected;  // device and row
  } kCases[] = {
      {"raid0, first", kRaid0, 2, 0, {{1, 0}}},
      {"raid0, second", kRaid0, 2, 1, {{2, 0}}},
      {"raid0, second row", kRaid0, 2, 2, {{1, 1}}},
      {"raid0 on one", kRaid0, 1, 5, {{1, 5}}},
      {"raid0 on three", kRaid0, 3, 8, {{3, 2}}},
      {"raid10, first", kRaid10, 4, 0, {{1, 0}, {2, 0}}},
      {"raid10, second", kRaid10, 4, 1, {{3, 0}, {4, 0}}},
      {"raid10, second row", kRaid10, 4, 2, {{1, 1}, {2, 1}}},
      {"raid10 on two", kRaid10, 2, 3, {{1, 3}, {2, 3}}},
      {"raid10 on six", kRaid10, 6, 5, {{5, 1}, {6, 1}}},
      {"raid5, first row", kRaid5, 3, 0, {{1, 0}}},
      {"raid5, first row's end", kRaid5, 3, 1, {{2, 0}}},
      {"raid5, second row", kRaid5, 3, 2, {{2, 1}}},
      {"raid5, second row's end", kRaid5, 3, 3, {{3, 1}}},
      {"raid5, third row", kRaid5, 3, 4, {{3, 2}}},
      {"raid5, third row's end", kRaid5, 3, 5, {{1, 2}}},
      {"raid5, round again", kRaid5, 3, 6, {{1, 3}}},
      {"raid5 on two", kRaid5, 2, 1, {{2, 1}}},
      {"raid6, first row", kRaid6, 4, 0, {{1, 0}}},
      {"raid6, first row's end", kRaid6, 4, 1, {{2, 0}}},
      {"raid6, second row", kRaid6, 4, 2, {{2, 1}}},
      {"raid6, fourth row", kRaid6, 4, 6, {{4, 3}}},
      {"raid6, fourth row's end", kRaid6, 4, 7, {{1, 3}}},
      {"raid6 on three", kRaid6, 3, 2, {{3, 2}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ChunkMap map;
    ASSERT_TRUE(AddChunk(&map, 8 * kMiB,
                         MakeChunkOn(12 * kMiB, kChunkMetadata | c.profile, Stripes(c.stripes)))
                    .Ok());
    PlaceList expected;
    for (const auto& [devid, row] : c.expected)
      expected.push_back({devid, devid * 100 * kMiB + row * kPiece + 8192});
    EXPECT_EQ(expected, Find(map, 8 * kMiB + c.piece * kPiece + 8192, 16384));
  }
}

TEST(ChunkMapFind, GivesNothingAcrossThePiecesOfAStripedChunk) {
  ChunkMap map;
  ASSERT_TRUE(AddChunk(&map, 0, MakeChunkOn(kMiB, kChunkMetadata | kRaid0, Stripes(2))).Ok());
  EXPECT_EQ(PlaceList({{1, 100 * kMiB}}), Find(map, 0, 65536));
  EXPECT_EQ(PlaceList(), Find(map, 0, 65537));
  EXPECT_EQ(PlaceList(), Find(map, 61440, 8192));
  EXPECT_EQ(PlaceList({{1, 100 * kMiB + 61440}}), Find(map, 61440, 4096));
}

TEST(ChunkMapFind, KnowsTwoProfilesAtOnce) {
  ChunkMap map;
  ASSERT_TRUE(AddChunk(&map, 0, MakeChunk(kMiB, kChunkMetadata | kDup, {0, 8 * kMiB})).Ok());
  ASSERT_TRUE(AddChunk(&map, kMiB, MakeChunkOn(kMiB, kChunkMetadata | kRaid5, Stripes(3))).Ok());
  EXPECT_EQ(PlaceList({{1, 4096}, {1, 8 * kMiB + 4096}}), Find(map, 4096, 4096));
  EXPECT_EQ(PlaceList({{2, 200 * kMiB + 4096}}), Find(map, kMiB + 65536 + 4096, 4096));
}

TEST(ChunkMapFind, KnowsTheEdgesOfChunks) {
  ChunkMap map;
  ASSERT_TRUE(AddChunk(&map, 8 * kMiB, MakeChunk(kMiB, kChunkMetadata, {kMiB})).Ok());
  ASSERT_TRUE(AddChunk(&map, 9 * kMiB, MakeChunk(kMiB, kChunkMetadata, {5 * kMiB})).Ok());
  EXPECT_EQ(PlaceList({{1, kMiB}}), Find(map, 8 * kMiB, kMiB));
  EXPECT_EQ(PlaceList({{1, 2 * kMiB - 4096}}), Find(map, 9 * kMiB - 4096, 4096));
  EXPECT_EQ(PlaceList({{1, 5 * kMiB}}), Find(map, 9 * kMiB, 4096));
  EXPECT_EQ(PlaceList(), Find(map, 9 * kMiB - 4096, 8192));  // over the edge
  EXPECT_EQ(PlaceList(), Find(map, 8 * kMiB - 1, 4096));
  EXPECT_EQ(PlaceList(), Find(map, 10 * kMiB, 4096));
  EXPECT_EQ(PlaceList(), Find(map, UINT64_MAX, 4096));
  EXPECT_EQ(PlaceList(), Find(ChunkMap(), 0, 1));
}

TEST(ChunkMapFind, StaysInsideTheStripesOfAnyLength) {
  // The last row is there in part only: five pieces on two data stripes.
  ChunkMap map;
  ASSERT_TRUE(AddChunk(&map, 0, MakeChunkOn(5 * 65536, kChunkMetadata | kRaid0, Stripes(2))).Ok());
  EXPECT_EQ(PlaceList({{1, 100 * kMiB + 2 * 65536}}), Find(map, 4 * 65536, 4096));
  EXPECT_EQ(PlaceList(), Find(map, 5 * 65536, 4096));
}

TEST(ChunkMapAdd, TakesTheSameChunkTwice) {
  ChunkMap map;
  const Bytes chunk = MakeChunk(kMiB, kChunkSystem, {kMiB});
  ASSERT_TRUE(AddChunk(&map, 8 * kMiB, chunk).Ok());
  EXPECT_TRUE(AddChunk(&map, 8 * kMiB, chunk).Ok());
}

TEST(ChunkMapAdd, TakesMixedGroups) {
  ChunkMap map;
  EXPECT_TRUE(AddChunk(&map, 0, MakeChunk(kMiB, kChunkData | kChunkMetadata, {kMiB})).Ok());
}

TEST(ChunkMapAdd, NamesTheProfileBitItDoesNotKnow) {
  for (const unsigned bit : {11u, 40u, 63u}) {
    SCOPED_TRACE(bit);
    ChunkMap map;
    EXPECT_EQ("the chunk at 4096 has a profile that this engine does not know (bit " +
                  std::to_string(bit) + "); use a newer engine",
              AddChunk(&map, 4096, MakeChunk(kMiB, kChunkData | 1ULL << bit, {kMiB})).Text());
  }
}

TEST(ChunkMapAdd, HoldsTheNumberOfStripesAgainstTheProfile) {
  const struct {
    const char* name;
    uint64_t profile;
    std::vector<uint64_t> possible;
    std::vector<uint64_t> impossible;
  } kCases[] = {
      {"single", 0, {1}, {0, 2}},
      {"raid0", kRaid0, {1, 2, 7}, {0}},
      {"raid1", kRaid1, {2}, {1, 3}},
      {"dup", kDup, {2}, {1, 3}},
      {"raid10", kRaid10, {2, 4, 10}, {0, 1, 3, 5}},
      {"raid5", kRaid5, {2, 3, 9}, {0, 1}},
      {"raid6", kRaid6, {3, 4, 9}, {0, 1, 2}},
      {"raid1c3", kRaid1c3, {3}, {1, 2, 4}},
      {"raid1c4", kRaid1c4, {4}, {1, 3, 5}},
  };
  const auto add = [](uint64_t profile, uint64_t stripes) {
    ChunkMap map;
    return AddChunk(&map, 0, MakeChunkOn(kMiB, kChunkMetadata | profile, Stripes(stripes)));
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    for (const uint64_t stripes : c.possible) EXPECT_EQ("", add(c.profile, stripes).Text());
    for (const uint64_t stripes : c.impossible)
      EXPECT_EQ("the chunk at 0 is damaged: its number of stripes is impossible",
                add(c.profile, stripes).Text())
          << stripes;
  }
}

TEST(ChunkMapAdd, RefusesAnotherStripeLengthOrNumberOfCopies) {
  Bytes raid0 = MakeChunkOn(kMiB, kChunkMetadata | kRaid0, Stripes(2));
  ObjectAt<ChunkItem>(&raid0, 0).stripeLength.Set(4096);
  ChunkMap map;
  EXPECT_EQ("the chunk at 0 is damaged: its stripe length is impossible",
            AddChunk(&map, 0, raid0).Text());

  Bytes raid10 = MakeChunkOn(kMiB, kChunkMetadata | kRaid10, Stripes(4));
  ObjectAt<ChunkItem>(&raid10, 0).subStripes.Set(1);
  EXPECT_EQ("the chunk at 0 is damaged: its number of copies is impossible",
            AddChunk(&map, 0, raid10).Text());
}

TEST(ChunkMapAdd, RefusesItemsThatDoNotAddUp) {
  const Bytes single = MakeChunk(kMiB, kChunkMetadata, {kMiB});
  const struct {
    const char* name;
    uint64_t logical;
    Bytes item;
    const char* text;
  } kCases[] = {
      {"empty", 0, {}, "the chunk at 0 is damaged: its item is short"},
      {"no stripe", 0, Bytes(single.begin(), single.begin() + sizeof(ChunkItem)),
       "the chunk at 0 is damaged: its item is short"},
      {"length zero", 7, MakeChunk(0, kChunkMetadata, {kMiB}),
       "the chunk at 7 is damaged: its length is impossible"},
      {"length wraps", 8192, MakeChunk(UINT64_MAX, kChunkMetadata, {kMiB}),
       "the chunk at 8192 is damaged: its length is impossible"},
      {"place wraps", 0, MakeChunk(kMiB, kChunkMetadata, {UINT64_MAX}),
       "the chunk at 0 is damaged: it lies nowhere"},
      {"last row wraps", 0, MakeChunk(2 * kMiB, kChunkMetadata | kRaid0, {kMiB, UINT64_MAX - kMiB}),
       "the chunk at 0 is damaged: it lies nowhere"},
      {"two profiles", 0, MakeChunk(kMiB, kChunkMetadata | kChunkDup | kRaid1, {kMiB, 2 * kMiB}),
       "the chunk at 0 is damaged: it has two profiles"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ChunkMap map;
    EXPECT_EQ(c.text, AddChunk(&map, c.logical, c.item).Text());
  }
}

TEST(ChunkMapAdd, RefusesOverlaps) {
  ChunkMap map;
  ASSERT_TRUE(AddChunk(&map, 8 * kMiB, MakeChunk(kMiB, kChunkMetadata, {kMiB})).Ok());
  const Bytes chunk = MakeChunk(kMiB, kChunkMetadata, {9 * kMiB});
  EXPECT_EQ("the chunk at 7340033 is damaged: it overlaps",
            AddChunk(&map, 7 * kMiB + 1, chunk).Text());
  EXPECT_EQ("the chunk at 9437183 is damaged: it overlaps",
            AddChunk(&map, 9 * kMiB - 1, chunk).Text());
  EXPECT_TRUE(AddChunk(&map, 7 * kMiB, chunk).Ok());
}

TEST(ChunkMapAddSystemChunks, ReadsTheSuperblocksArray) {
  Bytes array;
  for (const uint64_t logical : {kMiB, 4 * kMiB}) {
    AppendTo(&array, KeyBytes(ChunkKey(logical)));
    AppendTo(&array, MakeChunk(kMiB, kChunkSystem | kChunkDup, {logical, logical + 64 * kMiB}));
  }
  ChunkMap map;
  ASSERT_TRUE(map.AddSystemChunks(WithSystemChunks(array)).Ok());
  EXPECT_EQ(PlaceList({{1, 4 * kMiB}, {1, 68 * kMiB}}), Find(map, 4 * kMiB, 16384));
}

TEST(ChunkMapAddSystemChunks, RefusesADamagedArray) {
  Bytes sound = KeyBytes(ChunkKey(kMiB));
  AppendTo(&sound, MakeChunk(kMiB, kChunkSystem, {kMiB}));
  const struct {
    const char* name;
    std::function<void(Superblock*)> spoil;
  } kCases[] = {
      {"larger than its room",
       [](Superblock* s) { s->systemChunkArraySize.Set(kSystemChunkArraySize + 1); }},
      {"cut", [&](Superblock* s) { s->systemChunkArraySize.Set(sound.size() - 1); }},
      {"cut in the key", [&](Superblock* s) { s->systemChunkArraySize.Set(sound.size() + 3); }},
      {"not a chunk", [](Superblock* s) { s->systemChunkArray[8] = 1; }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Superblock superblock = WithSystemChunks(sound);
    c.spoil(&superblock);
    ChunkMap map;
    EXPECT_EQ("the system chunk array of the superblock is damaged",
              map.AddSystemChunks(superblock).Text());
  }
}
