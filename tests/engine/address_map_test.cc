// Numbers of addresses, held against a plain map.
#include "engine/size/address_map.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

using namespace ZorvEngine;

namespace {

void ExpectAsInAPlainMap(AddressMap* map, uint64_t unit, uint64_t range, unsigned seed) {
  std::unordered_map<uint64_t, uint32_t> plain;
  std::mt19937_64 random(seed);
  for (uint32_t i = 0; i < 30'000; ++i) {
    const uint64_t address = unit * (random() % range);
    map->Set(address, i);
    plain[address] = i;
  }
  EXPECT_EQ(plain.size(), map->Count());
  for (const auto& [address, number] : plain) ASSERT_EQ(number, map->Find(address));
  for (int i = 0; i < 30'000; ++i) {
    const uint64_t address = unit * (random() % (2 * range));
    const auto found = plain.find(address);
    ASSERT_EQ(found == plain.end() ? std::nullopt : std::optional<uint32_t>(found->second),
              map->Find(address));
  }
}

}  // namespace

TEST(AddressMapTest, FindsWhatAPlainMapFinds) {
  ArrayMemory memory(64 << 20);
  unsigned seed = 1;
  for (const uint64_t unit : {4096, 16384, 65536, 1 << 20}) {
    for (const uint64_t range : {1000, 20'000, 1'000'000}) {
      SCOPED_TRACE(testing::Message() << unit << " " << range);
      AddressMap map(memory);
      ExpectAsInAPlainMap(&map, unit, range, seed++);
    }
  }
}

TEST(AddressMapTest, FindsTheSameInAFile) {
  ArrayMemory memory(0, "/tmp");
  AddressMap map(memory);
  ExpectAsInAPlainMap(&map, 4096, 20'000, 99);
  EXPECT_GT(memory.SpilledBytes(), 0u);
}

TEST(AddressMapTest, FindsNothingAtFirst) {
  ArrayMemory memory(1 << 20);
  AddressMap map(memory);
  EXPECT_EQ(std::nullopt, map.Find(0));
  EXPECT_EQ(std::nullopt, map.Find(4096));
  EXPECT_EQ(0u, map.Count());
}

TEST(AddressMapTest, TakesAddressZeroAndThoseAtTheEnd) {
  ArrayMemory memory(1 << 20);
  AddressMap map(memory);
  map.Set(0, 5);
  map.Set(UINT64_MAX - 4095, 6);
  EXPECT_EQ(5u, map.Find(0));
  EXPECT_EQ(6u, map.Find(UINT64_MAX - 4095));
  EXPECT_EQ(2u, map.Count());
}
