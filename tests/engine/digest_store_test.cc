// Digests of blocks from pass to pass, and references by rising addresses.
#include "engine/size/digest_store.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "engine/size/digest_reader.h"
#include "engine/size/held_references.h"
#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kPlace = 1 << 20;

Words WordsOf(std::optional<WordSpan> span) {
  return span ? Words(span->begin(), span->end()) : Words{999};
}

// Eight leaves on a device, and a reader of digests.
class DigestReaderTest : public testing::Test {
 protected:
  DigestReaderTest() {
    ChunkMap chunks;
    EXPECT_TRUE(chunks.Add(ChunkKey(0), View(MakeChunk(4 << 20, kChunkMetadata, {0}))).Ok());
    reader_.UseChunks(std::move(chunks));
    for (uint64_t i = 0; i < 8; ++i) {
      const uint64_t bytenr = kPlace + i * kNodeSize;
      device_.Put(bytenr, MakeLeaf(bytenr, {{{256, 1, i}, {}}}));
      all_.push_back({bytenr, kGeneration, 0, {}});
    }
  }

  // Reads those of the blocks that have no digest.
  Status Read() {
    std::vector<BlockPointer> pointers;
    for (const BlockPointer& pointer : all_)
      if (!digests_.Store().Find(pointer.bytenr, pointer.generation)) pointers.push_back(pointer);
    const auto make = [](const TreeBlockView& block, Words* words) {
      words->push_back(block.KeyAt(0).offset);
      return Status();
    };
    return digests_.Read(reader_, &pointers, make, /*filtered=*/false);
  }

  void Spoil(size_t index) { device_.Put(all_[index].bytenr, Bytes(kNodeSize)); }

  DeviceSet devices_;
  MemoryDevice& device_ = AddMemoryDevice(&devices_, 1, 4 << 20);
  ReadMeter meter_;
  BlockReader reader_{devices_, {kNodeSize, 0}, meter_};
  ArrayMemory memory_{1 << 20, "/tmp"};
  DigestReader digests_{memory_};
  std::vector<BlockPointer> all_;
};

}  // namespace

TEST(DigestStoreTest, KeepsDigestsOfAnyLength) {
  for (const size_t limit : {size_t{0}, size_t{64} << 20}) {
    ArrayMemory memory(limit, "/tmp");
    {
      DigestStore store(memory);
      std::map<uint64_t, Words> plain;
      std::mt19937_64 random(3);
      for (int i = 0; i < 600; ++i) {
        Words digest(i % 50 == 49 ? 200'000 : random() % 300);
        for (uint64_t& word : digest) word = random();
        const uint64_t bytenr = 4096 * (random() % 400);
        store.Put(bytenr, kGeneration, digest, i % 2 == 0);
        plain[bytenr] = digest;
      }
      for (const auto& [bytenr, digest] : plain)
        ASSERT_EQ(digest, WordsOf(store.Find(bytenr, kGeneration)));
    }
    EXPECT_EQ(0u, memory.SpilledBytes());
  }
}

TEST(DigestStoreTest, KnowsTheGenerationThatWasPutLast) {
  ArrayMemory memory(1 << 20, "/tmp");
  DigestStore store(memory);
  EXPECT_FALSE(store.Find(4096, 7).has_value());
  store.Put(4096, 7, {1, 2}, false);
  EXPECT_FALSE(store.Find(4096, 8).has_value());
  EXPECT_FALSE(store.Find(8192, 7).has_value());
  store.Put(4096, 8, {3}, false);
  EXPECT_FALSE(store.Find(4096, 7).has_value());
  EXPECT_EQ((Words{3}), WordsOf(store.Find(4096, 8)));
  store.Put(8192, 8, {}, false);
  EXPECT_EQ((Words{}), WordsOf(store.Find(8192, 8)));
}

TEST(DigestStoreTest, DropsWhatWasFilteredAndNothingElse) {
  ArrayMemory memory(1 << 20, "/tmp");
  DigestStore store(memory);
  store.Put(4096, 7, {1}, true);
  store.Put(8192, 7, {2}, false);
  store.Put(12288, 7, {3}, true);
  store.Put(12288, 8, {4}, false);
  store.DropFiltered();
  EXPECT_FALSE(store.Find(4096, 7).has_value());
  EXPECT_EQ((Words{2}), WordsOf(store.Find(8192, 7)));
  EXPECT_EQ((Words{4}), WordsOf(store.Find(12288, 8)));
  store.Put(4096, 7, {5}, true);
  EXPECT_EQ((Words{5}), WordsOf(store.Find(4096, 7)));
}

TEST(HeldReferencesTest, ComeBackByRisingAddresses) {
  for (const size_t count : {0, 1, 2, 1000, 20'000}) {
    ArrayMemory memory(64 << 20, "/tmp");
    HeldReferences references(memory);
    std::multimap<uint64_t, std::pair<HolderId, uint32_t>> plain;
    std::mt19937_64 random(count);
    for (size_t i = 0; i < count; ++i) {
      // Addresses of all sizes, many of them equal.
      const uint64_t bytenr = (random() % 500) << (12 + random() % 40);
      const auto number = static_cast<uint32_t>(i);
      references.Add({bytenr, number % 7, number});
      plain.emplace(bytenr, std::make_pair(number % 7, number));
    }
    references.Sort();
    size_t taken = 0;
    for (auto at = plain.begin(); at != plain.end(); at = plain.upper_bound(at->first)) {
      if (taken % 5 == 4) {  // some addresses nobody asks about
        taken += plain.count(at->first);
        continue;
      }
      std::multiset<std::pair<HolderId, uint32_t>> found, expected;
      references.Take(at->first, [&](const HeldReference& reference) {
        EXPECT_EQ(at->first, reference.bytenr);
        found.insert({reference.holder, reference.count});
      });
      const auto range = plain.equal_range(at->first);
      for (auto one = range.first; one != range.second; ++one) expected.insert(one->second);
      ASSERT_EQ(expected, found);
      taken += found.size();
    }
    EXPECT_EQ(count, taken);
  }
}

TEST(HeldReferencesTest, OfAnAddressWithoutAnyAreNone) {
  ArrayMemory memory(1 << 20, "/tmp");
  HeldReferences references(memory);
  references.Add({8192, 1, 1});
  references.Sort();
  int taken = 0;
  references.Take(4096, [&](const HeldReference&) { ++taken; });
  EXPECT_EQ(0, taken);
  references.Take(8192, [&](const HeldReference&) { ++taken; });
  EXPECT_EQ(1, taken);
  references.Take(12288, [&](const HeldReference&) { ++taken; });
  EXPECT_EQ(1, taken);
}

TEST_F(DigestReaderTest, ReadsTheOthersWhenOneIsBadAndOnlyThatOneAgain) {
  Spoil(3);
  digests_.BeginPass();
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(Status::kBadBlock, digests_.Outcome().GetKind());
  EXPECT_EQ(1u, digests_.BadBlocks());
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ(i == 3 ? Words{999} : Words{i},
              WordsOf(digests_.Store().Find(all_[i].bytenr, kGeneration)));

  all_.erase(all_.begin() + 3);  // the newer state has it no more
  digests_.BeginPass();
  const uint64_t before = meter_.counters.blocksVerified;
  ASSERT_TRUE(Read().Ok());
  EXPECT_TRUE(digests_.Outcome().Ok());
  EXPECT_EQ(before, meter_.counters.blocksVerified);
}

TEST_F(DigestReaderTest, NamesABlockAsDamagedThatIsBadInTwoPasses) {
  Spoil(3);
  digests_.BeginPass();
  ASSERT_TRUE(Read().Ok());
  digests_.BeginPass();
  const Status done = Read();
  EXPECT_EQ(Status::kFailed, done.GetKind());
  EXPECT_EQ(
      "tree block 1060864 (level 0, generation 77) cannot be used: its checksum is wrong; run "
      "btrfs scrub",
      done.Text());
}

TEST_F(DigestReaderTest, TakesAnotherGenerationInThatPlaceForAnotherBlock) {
  Spoil(3);
  digests_.BeginPass();
  ASSERT_TRUE(Read().Ok());
  all_[3].generation = kGeneration + 1;
  digests_.BeginPass();
  EXPECT_TRUE(Read().Ok());
  EXPECT_EQ(Status::kBadBlock, digests_.Outcome().GetKind());
}

TEST_F(DigestReaderTest, FailsWithWhatMakingADigestFailsWith) {
  std::vector<BlockPointer> pointers = all_;
  const auto make = [](const TreeBlockView&, Words*) { return Status::Failed("no"); };
  EXPECT_EQ("no", digests_.Read(reader_, &pointers, make, false).Text());
}
