// Logical addresses to places on the device.
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

std::vector<uint64_t> Places(std::initializer_list<uint64_t> places) { return places; }

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
  ChunkMap map(1);
  ASSERT_TRUE(
      AddChunk(&map, 8 * kMiB, MakeChunk(kMiB, kChunkMetadata | kChunkDup, {20 * kMiB, 40 * kMiB}))
          .Ok());
  EXPECT_EQ(Places({20 * kMiB + 4096, 40 * kMiB + 4096}), map.Find(8 * kMiB + 4096, 4096));
}

TEST(ChunkMapFind, KnowsTheEdgesOfChunks) {
  ChunkMap map(1);
  ASSERT_TRUE(AddChunk(&map, 8 * kMiB, MakeChunk(kMiB, kChunkMetadata, {kMiB})).Ok());
  ASSERT_TRUE(AddChunk(&map, 9 * kMiB, MakeChunk(kMiB, kChunkMetadata, {5 * kMiB})).Ok());
  EXPECT_EQ(Places({kMiB}), map.Find(8 * kMiB, kMiB));
  EXPECT_EQ(Places({2 * kMiB - 4096}), map.Find(9 * kMiB - 4096, 4096));
  EXPECT_EQ(Places({5 * kMiB}), map.Find(9 * kMiB, 4096));
  EXPECT_EQ(Places({}), map.Find(9 * kMiB - 4096, 8192));  // over the edge
  EXPECT_EQ(Places({}), map.Find(8 * kMiB - 1, 4096));
  EXPECT_EQ(Places({}), map.Find(10 * kMiB, 4096));
  EXPECT_EQ(Places({}), map.Find(UINT64_MAX, 4096));
  EXPECT_EQ(Places({}), ChunkMap(1).Find(0, 1));
}

TEST(ChunkMapAdd, TakesTheSameChunkTwice) {
  ChunkMap map(1);
  const Bytes chunk = MakeChunk(kMiB, kChunkSystem, {kMiB});
  ASSERT_TRUE(AddChunk(&map, 8 * kMiB, chunk).Ok());
  EXPECT_TRUE(AddChunk(&map, 8 * kMiB, chunk).Ok());
}

TEST(ChunkMapAdd, TakesMixedGroups) {
  ChunkMap map(1);
  EXPECT_TRUE(AddChunk(&map, 0, MakeChunk(kMiB, kChunkData | kChunkMetadata, {kMiB})).Ok());
}

TEST(ChunkMapAdd, NamesTheProfileItRefuses) {
  const struct {
    const char* name;
    uint64_t bit;
  } kCases[] = {{"raid0", 1 << 3}, {"raid1", 1 << 4},   {"raid10", 1 << 6},  {"raid5", 1 << 7},
                {"raid6", 1 << 8}, {"raid1c3", 1 << 9}, {"raid1c4", 1 << 10}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ChunkMap map(1);
    const Status added = AddChunk(&map, 0, MakeChunk(kMiB, kChunkMetadata | c.bit, {0, kMiB}));
    EXPECT_EQ(std::string("the file system uses the profile ") + c.name +
                  "; this engine reads single and dup",
              added.Text());
  }
}

TEST(ChunkMapAdd, RefusesChunksOfOtherDevices) {
  ChunkMap map(1);
  const Status added = AddChunk(&map, 0, MakeChunk(kMiB, kChunkMetadata, {0}, 2));
  EXPECT_EQ("the file system has several devices; this engine reads file systems of one device",
            added.Text());
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
      {"zero stripes", 0, MakeChunk(kMiB, kChunkMetadata, {}),
       "the chunk at 0 is damaged: its number of stripes is impossible"},
      {"single with two stripes", 0, MakeChunk(kMiB, kChunkMetadata, {0, kMiB}),
       "the chunk at 0 is damaged: its number of stripes is impossible"},
      {"dup with one stripe", 0, MakeChunk(kMiB, kChunkMetadata | kChunkDup, {0}),
       "the chunk at 0 is damaged: its number of stripes is impossible"},
      {"length zero", 7, MakeChunk(0, kChunkMetadata, {0}),
       "the chunk at 7 is damaged: its length is impossible"},
      {"length wraps", 8192, MakeChunk(UINT64_MAX, kChunkMetadata, {0}),
       "the chunk at 8192 is damaged: its length is impossible"},
      {"place wraps", 0, MakeChunk(kMiB, kChunkMetadata, {UINT64_MAX}),
       "the chunk at 0 is damaged: it lies nowhere"},
      {"unknown profile", 0, MakeChunk(kMiB, kChunkMetadata | 1ULL << 40, {0}),
       "the chunk at 0 is damaged: its profile is unknown"},
      {"two profiles", 0, MakeChunk(kMiB, kChunkMetadata | kChunkDup | 1 << 4, {0, 0}),
       "the chunk at 0 is damaged: its profile is unknown"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ChunkMap map(1);
    EXPECT_EQ(c.text, AddChunk(&map, c.logical, c.item).Text());
  }
}

TEST(ChunkMapAdd, RefusesOverlaps) {
  ChunkMap map(1);
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
  ChunkMap map(1);
  ASSERT_TRUE(map.AddSystemChunks(WithSystemChunks(array)).Ok());
  EXPECT_EQ(Places({4 * kMiB, 68 * kMiB}), map.Find(4 * kMiB, 16384));
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
    ChunkMap map(1);
    EXPECT_EQ("the system chunk array of the superblock is damaged",
              map.AddSystemChunks(superblock).Text());
  }
}
