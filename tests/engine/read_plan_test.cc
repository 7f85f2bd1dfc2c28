// Which requests read which blocks.
#include "engine/io/read_plan.h"

#include <gtest/gtest.h>

using namespace ZorvEngine;

namespace {

constexpr size_t kBlock = 4096;

// Blocks at these multiples of kBlock on device 1.
std::vector<WantedBlock> BlocksAt(const std::vector<uint64_t>& places, uint64_t devid = 1) {
  std::vector<WantedBlock> blocks;
  for (const uint64_t place : places)
    blocks.push_back({{devid, place * kBlock}, static_cast<uint32_t>(blocks.size()), false});
  return blocks;
}

// The requests for the blocks as text: device:first block+blocks read(blocks wanted).
std::string Plan(std::vector<WantedBlock> blocks, const RequestShape& shape) {
  std::string text;
  size_t covered = 0;
  for (const PlannedRead& read : PlanReads(&blocks, kBlock, [&](uint64_t) { return shape; })) {
    for (size_t i = 0; i < read.count; ++i) {
      const Place& place = blocks[read.first + i].place;
      EXPECT_EQ(read.devid, place.devid);
      EXPECT_LE(read.offset, place.offset);
      EXPECT_LE(place.offset + kBlock, read.offset + read.size);
    }
    covered += read.count;
    text += (text.empty() ? "" : " ") + std::to_string(read.devid) + ":" +
            std::to_string(read.offset / kBlock) + "+" + std::to_string(read.size / kBlock) + "(" +
            std::to_string(read.count) + ")";
  }
  EXPECT_EQ(blocks.size(), covered);
  return text;
}

constexpr RequestShape kNoGaps = {4 * kBlock, 0};
constexpr RequestShape kGaps = {8 * kBlock, 2 * kBlock};

}  // namespace

TEST(ReadPlan, JoinsNeighboursAndReadsGapsWhereTheShapeAllows) {
  const struct {
    const char* name;
    std::vector<uint64_t> places;
    RequestShape shape;
    const char* reads;
  } kCases[] = {
      {"nothing", {}, kNoGaps, ""},
      {"one", {7}, kNoGaps, "1:7+1(1)"},
      {"sorted and joined", {3, 1, 2}, kNoGaps, "1:1+3(3)"},
      {"no gap is read", {1, 2, 4}, kNoGaps, "1:1+2(2) 1:4+1(1)"},
      {"cut at the most", {0, 1, 2, 3, 4, 5}, kNoGaps, "1:0+4(4) 1:4+2(2)"},
      {"wanted twice", {5, 5, 6}, kNoGaps, "1:5+2(3)"},
      {"gap just allowed", {0, 3}, kGaps, "1:0+4(2)"},
      {"gap too large", {0, 4}, kGaps, "1:0+1(1) 1:4+1(1)"},
      {"gaps up to the most", {0, 3, 6, 7, 8}, kGaps, "1:0+8(4) 1:8+1(1)"},
      {"never ends in a gap", {0, 2, 9}, kGaps, "1:0+3(2) 1:9+1(1)"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.reads, Plan(BlocksAt(c.places), c.shape));
  }
}

TEST(ReadPlan, LetsDevicesTakeTurns) {
  std::vector<WantedBlock> blocks = BlocksAt({0, 2, 4, 6});
  for (const uint64_t devid : {3, 2})
    for (const WantedBlock& block : BlocksAt({1, 8}, devid)) blocks.push_back(block);
  EXPECT_EQ("1:0+1(1) 2:1+1(1) 3:1+1(1) 1:2+1(1) 2:8+1(1) 3:8+1(1) 1:4+1(1) 1:6+1(1)",
            Plan(blocks, kNoGaps));
}

TEST(ReadPlan, AsksForTheShapeOfEachDevice) {
  std::vector<WantedBlock> blocks = BlocksAt({0, 2});
  for (const WantedBlock& block : BlocksAt({0, 2}, 2)) blocks.push_back(block);
  const std::vector<PlannedRead> reads =
      PlanReads(&blocks, kBlock, [](uint64_t devid) { return devid == 1 ? kGaps : kNoGaps; });
  EXPECT_EQ(3u, reads.size());
}
