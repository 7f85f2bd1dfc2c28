// Keys and little-endian fields at their edges.
#include "engine/ondisk/keys.h"

#include <gtest/gtest.h>

using namespace ZorvEngine;

TEST(LeGet, ReadsLowByteFirst) {
  const uint8_t raw[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88};
  EXPECT_EQ(0x01, reinterpret_cast<const Le8*>(raw)->Get());
  EXPECT_EQ(0x0201, reinterpret_cast<const Le16*>(raw)->Get());
  EXPECT_EQ(0x04030201u, reinterpret_cast<const Le32*>(raw)->Get());
  EXPECT_EQ(0x8807060504030201ull, reinterpret_cast<const Le64*>(raw)->Get());
}

TEST(LeGet, WorksAtOddAddresses) {
  const uint8_t raw[] = {0xFF, 0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
  EXPECT_EQ(0xFEDCBA9876543210ull, reinterpret_cast<const Le64*>(raw + 1)->Get());
}

TEST(LeSet, IsReadBack) {
  Le64 wide;
  wide.Set(0x1122334455667788ull);
  EXPECT_EQ(0x1122334455667788ull, wide.Get());
  EXPECT_EQ(0x88, reinterpret_cast<const uint8_t*>(&wide)[0]);
  Le16 narrow;
  narrow.Set(0xABCD);
  EXPECT_EQ(0xABCD, narrow.Get());
}

TEST(KeyIncrement, CarriesThroughTheFields) {
  const struct {
    const char* name;
    Key in;
    bool more;
    Key out;
  } kCases[] = {
      {"plain", {256, 1, 7}, true, {256, 1, 8}},
      {"offset wraps", {256, 1, UINT64_MAX}, true, {256, 2, 0}},
      {"type wraps too", {256, UINT8_MAX, UINT64_MAX}, true, {257, 0, 0}},
      {"type does not wrap alone", {256, UINT8_MAX, 7}, true, {256, UINT8_MAX, 8}},
      {"last key", {UINT64_MAX, UINT8_MAX, UINT64_MAX}, false, {0, 0, 0}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Key key = c.in;
    EXPECT_EQ(c.more, Increment(&key));
    EXPECT_EQ(c.out, key);
  }
}

TEST(KeyOrder, ComparesObjectidThenTypeThenOffset) {
  EXPECT_LT((Key{1, 255, 255}), (Key{2, 0, 0}));
  EXPECT_LT((Key{1, 1, 255}), (Key{1, 2, 0}));
  EXPECT_LT((Key{1, 1, 1}), (Key{1, 1, 2}));
  EXPECT_FALSE((Key{1, 1, 1}) < (Key{1, 1, 1}));
  EXPECT_NE((Key{1, 1, 1}), (Key{1, 1, 2}));
}

TEST(KeyIsSubvolumeId, AcceptsTheTopLevelAndWhatUsersMake) {
  const struct {
    const char* name;
    uint64_t id;
    bool is;
  } kCases[] = {
      {"none", 0, false},
      {"extent tree", 2, false},
      {"top level", 5, true},
      {"below the first", 255, false},
      {"first", 256, true},
      {"last", kLastFreeId, true},
      {"above the last", kLastFreeId + 1, false},
      {"data relocation tree", kDataRelocationTreeId, false},
      {"relocation tree", kRelocationTreeId, false},
      {"largest number", UINT64_MAX, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.is, IsSubvolumeId(c.id));
  }
}
