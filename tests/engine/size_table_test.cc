// What is read from a table: exclusive sizes, forecasts, bytes on the devices; and how sums get
// into one.
#include "engine/size/size_table.h"

#include <gtest/gtest.h>

#include "engine/size/set_sums.h"
#include "tests/engine/mini_filesystem.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

// Three subvolumes, two kinds of redundancy.
SizeTable Table(bool complete = true) {
  SizeTable table;
  table.ids = {300, 257, 280};
  table.redundancies = {{0, 1, 1}, {kRaid1, 2, 1}};
  table.rows = {{{0}, true, {{1, 10}, {100, 1000}}},
                {{1}, true, {{2, 0}, {0, 0}}},
                {{2}, true, {{0, 0}, {0, 0}}},
                {{0, 2}, true, {{4, 40}, {0, 0}}},
                {{0, 1, 2}, true, {{8, 0}, {0, 80}}}};
  if (!complete) table.rows.push_back({{1}, false, {{16, 0}, {0, 160}}});
  return table;
}

using Steps = std::vector<std::pair<uint64_t, uint64_t>>;

Steps Sums(const std::optional<std::vector<ForecastStep>>& forecast) {
  Steps steps;
  for (const ForecastStep& step : *forecast) {
    const HeldBytes sum = SizeTable::Sum(step.bytes);
    steps.push_back({sum.data, sum.metadata});
  }
  return steps;
}

// The trees of a file system with two data chunks of one profile and tree blocks of another.
class SetSumsTest : public testing::Test {
 protected:
  static constexpr uint64_t kMiB = 1 << 20;

  SetSumsTest() {
    mini_.Chunks().push_back(
        {ChunkKey(16 * kMiB), MakeChunkOn(kMiB, kChunkData | kRaid1, {{1, 0}, {2, 0}})});
    mini_.Chunks().push_back(
        {ChunkKey(32 * kMiB), MakeChunkOn(kMiB, kChunkData | kRaid1, {{1, 0}, {2, 0}})});
    mini_.Write();
    EXPECT_TRUE(trees_.Load(mini_.MakeSuperblock()).Ok());
    request_.ids = {300, 257, 280};
    request_.mostSetBytes = 1 << 20;
  }

  MiniFilesystem mini_;
  SizeProgress progress_;
  BlockReader reader_{mini_.Devices(), {kNodeSize, 0}, progress_.meter};
  CommittedTrees trees_{reader_};
  SizeRequest request_;
};

}  // namespace

TEST(SizeTableTest, SaysWhatEachHoldsAlone) {
  const SizeTable table = Table();
  const std::vector<ExclusiveSize> sizes = table.ExclusiveSizes();
  ASSERT_EQ(3u, sizes.size());
  EXPECT_EQ(300u, sizes[0].id);
  EXPECT_EQ(101u, sizes[0].dataBytes);
  EXPECT_EQ(1010u, sizes[0].metadataBytes);
  EXPECT_EQ(257u, sizes[1].id);
  EXPECT_EQ(2u, sizes[1].dataBytes);
  EXPECT_EQ(280u, sizes[2].id);
  EXPECT_EQ(0u, sizes[2].dataBytes);
}

TEST(SizeTableTest, IsCompleteWhenEachRowIs) {
  EXPECT_TRUE(Table().Complete());
  EXPECT_FALSE(Table(false).Complete());
}

TEST(SizeTableTest, TellsNothingOfSeveralWhenTheyWereNotCounted) {
  SizeTable table = Table();
  table.countsSeveral = false;
  EXPECT_FALSE(table.Complete());
  EXPECT_FALSE(table.Forecast({}).has_value());
  EXPECT_FALSE(table.Forecast({0, 1, 2}).has_value());
}

TEST(SizeTableForecast, BringsASetWithTheLastOfItsMembers) {
  const SizeTable table = Table();
  EXPECT_EQ((Steps{{101, 1010}, {2, 0}, {12, 120}}), Sums(table.Forecast({0, 1, 2})));
  EXPECT_EQ((Steps{{0, 0}, {2, 0}, {113, 1130}}), Sums(table.Forecast({2, 1, 0})));
  EXPECT_EQ((Steps{{0, 0}, {105, 1050}, {10, 80}}), Sums(table.Forecast({2, 0, 1})));
}

TEST(SizeTableForecast, LeavesOutSetsWithMembersThatStay) {
  const SizeTable table = Table();
  EXPECT_EQ((Steps{{0, 0}, {105, 1050}}), Sums(table.Forecast({2, 0})));
  EXPECT_EQ((Steps{{2, 0}}), Sums(table.Forecast({1})));
  EXPECT_TRUE(Sums(table.Forecast({})).empty());
}

TEST(SizeTableForecast, KeepsRedundanciesApart) {
  const auto steps = Table().Forecast({0});
  ASSERT_TRUE(steps.has_value());
  EXPECT_EQ(0u, (*steps)[0].subvolume);
  ASSERT_EQ(2u, (*steps)[0].bytes.size());
  EXPECT_EQ(1u, (*steps)[0].bytes[0].data);
  EXPECT_EQ(100u, (*steps)[0].bytes[1].data);
  EXPECT_EQ(1000u, (*steps)[0].bytes[1].metadata);
}

TEST(SizeTableForecast, OfATableInPartIsForTheAskedOrderAlone) {
  const SizeTable table = Table(false);
  EXPECT_EQ((Steps{{101, 1010}, {18, 160}}), Sums(table.Forecast({0, 1})));
  EXPECT_EQ((Steps{{101, 1010}}), Sums(table.Forecast({0})));
  for (const std::vector<uint32_t>& order :
       std::vector<std::vector<uint32_t>>{{1}, {1, 0}, {0, 2}, {0, 2, 1}, {2, 1, 0}})
    EXPECT_FALSE(table.Forecast(order).has_value());
}

TEST(SizeTableRawBytes, CountCopiesAndParity) {
  const struct {
    const char* name;
    Redundancy redundancy;
    uint64_t bytes;
    uint64_t raw;
  } kCases[] = {
      {"single", {0, 1, 1}, 4096, 4096},
      {"dup", {kDup, 2, 1}, 4096, 8192},
      {"raid1", {kRaid1, 2, 1}, 16384, 32768},
      {"raid1c3", {kRaid1c3, 3, 1}, 4096, 12288},
      {"raid1c4", {kRaid1c4, 4, 1}, 4096, 16384},
      {"raid0 on 3", {kRaid0, 3, 3}, 12288, 12288},
      {"raid0 on 3, not all", {kRaid0, 3, 3}, 4096, 4096},
      {"raid10 on 4", {kRaid10, 4, 2}, 8192, 16384},
      {"raid5 on 3", {kRaid5, 3, 2}, 8192, 12288},
      {"raid5 on 4, not all", {kRaid5, 4, 3}, 4096, 5461},
      {"raid6 on 6", {kRaid6, 6, 4}, 65536, 98304},
      {"nothing", {kRaid6, 6, 4}, 0, 0},
      {"very much", {kRaid1, 2, 1}, 1ULL << 62, 1ULL << 63},
      {"very much on many", {kRaid5, 1000, 999}, 999ULL << 53, 1000ULL << 53},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.raw, SizeTable::RawBytes(c.redundancy, c.bytes));
  }
}

TEST_F(SetSumsTest, AddUpBySetAndRedundancy) {
  SetSums sums(request_, trees_, progress_);
  HolderUnion both(sums.Sets());
  both.Add(HolderSets::Only(0));
  both.Add(HolderSets::Only(2));
  sums.AddData(both.Id(), 32 * kMiB, 5);
  sums.AddData(both.Id(), 16 * kMiB, 7);
  sums.AddData(HolderSets::Only(1), 32 * kMiB + 4096, 11);
  sums.AddTreeBlock(HolderSets::Only(1), MiniFilesystem::kSubvolume, 13);
  sums.AddData(HolderSets::kNobody, 16 * kMiB, 1000);
  sums.AddTreeBlock(HolderSets::kNobody, 0, 1000);

  const SizeTable table = sums.Table();
  EXPECT_EQ(request_.ids, table.ids);
  ASSERT_EQ(2u, table.redundancies.size());
  EXPECT_EQ(kRaid1, table.redundancies[1].profile);
  ASSERT_EQ(4u, table.rows.size());
  EXPECT_EQ((std::vector<uint32_t>{0, 2}), table.rows[3].members);
  EXPECT_EQ(0u, table.rows[3].bytes[0].data);
  EXPECT_EQ(12u, table.rows[3].bytes[1].data);
  EXPECT_EQ(11u, table.rows[1].bytes[1].data);
  EXPECT_EQ(13u, table.rows[1].bytes[0].metadata);
  EXPECT_EQ(0u, table.Exclusive(0).data);
}

TEST_F(SetSumsTest, ShowWhatIsExclusiveWhileTheyGrow) {
  for (const bool countMetadata : {false, true}) {
    request_.countMetadata = countMetadata;
    progress_.exclusiveBytes = 77;
    SetSums sums(request_, trees_, progress_);
    EXPECT_EQ(0u, progress_.exclusiveBytes);
    sums.AddData(HolderSets::Only(1), 16 * kMiB, 11);
    sums.AddTreeBlock(HolderSets::Only(2), 0, 13);
    sums.AddData(HolderSets::kNobody, 16 * kMiB, 1000);
    EXPECT_EQ(countMetadata ? 24u : 11u, progress_.exclusiveBytes);
  }
}

TEST_F(SetSumsTest, WithoutRoomAddUpByTheLastMember) {
  request_.mostSetBytes = 0;
  SetSums sums(request_, trees_, progress_);
  HolderUnion set(sums.Sets());
  for (const uint32_t other : {0, 1}) {
    set.Clear();
    set.Add(HolderSets::Only(2));
    set.Add(HolderSets::Only(other));
    sums.AddData(set.Id(), 16 * kMiB, 5);
  }
  const SizeTable table = sums.Table();
  EXPECT_FALSE(table.Complete());
  EXPECT_EQ(std::vector<uint32_t>{2}, table.rows.back().members);
  EXPECT_EQ(10u, table.rows.back().bytes[1].data);
  EXPECT_EQ(0u, table.Exclusive(2).data);
}

TEST_F(SetSumsTest, OfOneAloneLeaveOutWhatSeveralHold) {
  for (const size_t mostSetBytes : {0, 1 << 20}) {
    request_.mostSetBytes = mostSetBytes;
    request_.countSeveral = false;
    SetSums sums(request_, trees_, progress_);
    HolderUnion set(sums.Sets());
    EXPECT_FALSE(sums.AreTooMany(set));
    set.Add(HolderSets::Only(2));
    set.Add(HolderSets::kNobody);
    EXPECT_FALSE(sums.AreTooMany(set));
    sums.AddData(set.Id(), 16 * kMiB, 5);
    set.Add(HolderSets::Only(0));
    EXPECT_TRUE(sums.AreTooMany(set));
    sums.AddData(set.Id(), 16 * kMiB, 7);
    sums.AddTreeBlock(set.Id(), 0, 9);
    const HolderId both = set.Id();
    set.Clear();
    set.Add(both);
    EXPECT_TRUE(sums.AreTooMany(set));

    const SizeTable table = sums.Table();
    EXPECT_FALSE(table.countsSeveral);
    EXPECT_EQ(3u, table.rows.size());
    EXPECT_EQ(5u, table.Exclusive(2).data);
    EXPECT_EQ(5u, progress_.exclusiveBytes);
    request_.countSeveral = true;
    EXPECT_FALSE(sums.AreTooMany(set));
  }
}
