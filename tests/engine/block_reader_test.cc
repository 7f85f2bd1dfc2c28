// Blocks are verified, mirrors used, neighbours on a device read together, missing devices named,
// the cache kept within its bound.
#include "engine/io/block_reader.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "engine/io/tree_cursor.h"
#include "engine/ondisk/checksum.h"
#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kMirror = 4 * kMiB;  // distance of the second copy

BlockFormat Format() {
  BlockFormat format;
  format.nodeSize = kNodeSize;
  format.checksumType = kCrc32c;
  return format;
}

// Logical addresses 0 to 4 MiB, stored twice.
class BlockReaderTest : public testing::Test {
 protected:
  BlockReaderTest() {
    ChunkMap chunks;
    const Bytes chunk = MakeChunk(4 * kMiB, kChunkMetadata | kChunkDup, {0, kMirror});
    EXPECT_TRUE(chunks.Add(ChunkKey(0), View(chunk)).Ok());
    reader_.UseChunks(chunks);
  }

  void PutBoth(uint64_t bytenr, const Bytes& block) {
    device_.Put(bytenr, block);
    device_.Put(bytenr + kMirror, block);
  }

  static BlockPointer Leaf(uint64_t bytenr) { return {bytenr, kGeneration, 0, {}}; }

  std::string ReadFailure(const BlockPointer& pointer) {
    TreeBlockPtr block;
    const Status status = reader_.Read(pointer, &block);
    EXPECT_EQ(Status::kBadBlock, status.GetKind());
    EXPECT_EQ(nullptr, block);
    return status.Text();
  }

  DeviceSet devices_;
  MemoryDevice& device_ = AddMemoryDevice(&devices_, 1, 8 * kMiB);
  ReadMeter meter_;
  BlockReader reader_{devices_, Format(), meter_};
};

class BlockReaderFindBadCopies : public BlockReaderTest {
 protected:
  static Bytes Spoilt(uint64_t bytenr) {
    Bytes block = MakeLeaf(bytenr, {});
    block[200] ^= 1;
    return block;
  }

  void ExpectRead(uint64_t bytenr) {
    TreeBlockPtr block;
    EXPECT_EQ("", reader_.Read(Leaf(bytenr), &block).Text());
  }
};

using BlockReaderRead = BlockReaderTest;
using BlockReaderReadMany = BlockReaderTest;

const Bytes kData(4, 'x');

// Takes a block for nothing.
const BlockReader::Visitor kIgnore = [](const TreeBlockView&) { return Status(); };

}  // namespace

TEST_F(BlockReaderRead, GivesAVerifiedBlock) {
  PutBoth(kMiB, MakeLeaf(kMiB, {{{256, 1, 0}, kData}}));
  TreeBlockPtr block;
  ASSERT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
  EXPECT_EQ(1u, block->view->Count());
  EXPECT_EQ(1, device_.Reads());
}

TEST_F(BlockReaderRead, TakesTheSecondCopyWhenTheFirstDoesNotVerify) {
  const Bytes sound = MakeLeaf(kMiB, {{{256, 1, 0}, kData}});
  Bytes spoilt = sound;
  spoilt[200] ^= 1;
  device_.Put(kMiB, spoilt);
  device_.Put(kMiB + kMirror, sound);
  TreeBlockPtr block;
  EXPECT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
}

TEST_F(BlockReaderRead, TakesTheSecondCopyWhenTheFirstCannotBeRead) {
  PutBoth(kMiB, MakeLeaf(kMiB, {{{256, 1, 0}, kData}}));
  device_.Break(kMiB);
  TreeBlockPtr block;
  EXPECT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
}

// Once the other copy of a bad one was used, and nobody was told: the next fault would have found
// the file system without any.
TEST_F(BlockReaderFindBadCopies, NamesThoseInWhosePlaceAnotherWasRead) {
  for (const uint64_t bytenr : {kMiB, 2 * kMiB, 3 * kMiB}) PutBoth(bytenr, MakeLeaf(bytenr, {}));
  device_.Put(kMiB, Spoilt(kMiB));
  device_.Break(2 * kMiB);
  for (const uint64_t bytenr : {3 * kMiB, 2 * kMiB, kMiB, kMiB}) ExpectRead(bytenr);
  const std::vector<BadCopy> bad = reader_.FindBadCopies();
  ASSERT_EQ(2u, bad.size());
  EXPECT_EQ(kMiB, bad[0].pointer.bytenr);
  EXPECT_EQ((Place{1, kMiB}), bad[0].place);
  EXPECT_EQ("its checksum is wrong", bad[0].why);
  EXPECT_EQ(2 * kMiB, bad[1].pointer.bytenr);
  EXPECT_EQ("Input/output error", bad[1].why);
}

TEST_F(BlockReaderFindBadCopies, NamesThoseOfASweep) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  device_.Put(kMiB, Spoilt(kMiB));
  ASSERT_TRUE(reader_.ReadMany({Leaf(kMiB)}, kIgnore).Ok());
  EXPECT_EQ(1u, reader_.FindBadCopies().size());
}

TEST_F(BlockReaderFindBadCopies, LeavesOutWhatWasJustBeingWritten) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  device_.Put(kMiB, Spoilt(kMiB));
  ExpectRead(kMiB);
  device_.Put(kMiB, MakeLeaf(kMiB, {}));
  EXPECT_TRUE(reader_.FindBadCopies().empty());
}

TEST_F(BlockReaderFindBadCopies, LeavesOutWhatIsNoLongerThere) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  device_.Put(kMiB, Spoilt(kMiB));
  ExpectRead(kMiB);
  PutBoth(kMiB, Bytes(kNodeSize));
  EXPECT_TRUE(reader_.FindBadCopies().empty());
}

TEST_F(BlockReaderFindBadCopies, AreNoneWhenADeviceIsMissing) {
  ChunkMap chunks;
  const Bytes chunk = MakeChunkOn(4 * kMiB, kChunkMetadata | kRaid1, {{2, 0}, {1, 0}});
  ASSERT_TRUE(chunks.Add(ChunkKey(0), View(chunk)).Ok());
  reader_.UseChunks(chunks);
  device_.Put(kMiB, MakeLeaf(kMiB, {}));
  ExpectRead(kMiB);
  EXPECT_TRUE(reader_.FindBadCopies().empty());
}

TEST_F(BlockReaderFindBadCopies, AreKeptInMindUpToALimit) {
  for (uint64_t n = 0; n <= BlockReader::kMostBadCopies; ++n) {
    const uint64_t bytenr = kMiB + n * kNodeSize;
    device_.Put(bytenr + kMirror, MakeLeaf(bytenr, {}));
    ExpectRead(bytenr);
  }
  EXPECT_EQ(BlockReader::kMostBadCopies, reader_.FindBadCopies().size());
}

TEST_F(BlockReaderRead, SaysWhichBlockCannotBeReadAtAll) {
  device_.Break(kMiB);
  device_.Break(kMiB + kMirror);
  EXPECT_EQ("tree block 1048576 (level 0, generation 77) cannot be used: Input/output error",
            ReadFailure(Leaf(kMiB)));
}

TEST_F(BlockReaderRead, RefusesEveryMismatch) {
  const struct {
    const char* name;
    void (*spoil)(Bytes*);
    const char* why;
  } kCases[] = {
      {"place", [](Bytes* b) { HeaderOf(b).bytenr.Set(4096); }, "it belongs to another place"},
      {"file system", [](Bytes* b) { HeaderOf(b).fsid[3] = 1; },
       "it belongs to another file system"},
      {"chunk tree", [](Bytes* b) { HeaderOf(b).chunkTreeUuid[3] = 1; },
       "it belongs to another chunk tree"},
      {"older", [](Bytes* b) { HeaderOf(b).generation.Set(76); }, "its generation is 76"},
      {"newer", [](Bytes* b) { HeaderOf(b).generation.Set(78); }, "its generation is 78"},
      {"level", [](Bytes* b) { HeaderOf(b).level.Set(1); }, "its level is 1"},
      {"items", [](Bytes* b) { HeaderOf(b).nritems.Set(9999); }, "it claims more items than fit"},
  };
  const uint8_t chunkTree[kUuidSize] = {};
  reader_.ExpectChunkTree(chunkTree);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes block = MakeLeaf(kMiB, {{{256, 1, 0}, kData}});
    c.spoil(&block);
    Seal(&block);
    PutBoth(kMiB, block);
    EXPECT_EQ(std::string("tree block 1048576 (level 0, generation 77) cannot be used: ") + c.why,
              ReadFailure(Leaf(kMiB)));
  }
}

TEST_F(BlockReaderRead, RefusesAWrongChecksum) {
  Bytes block = MakeLeaf(kMiB, {});
  block.back() ^= 1;
  PutBoth(kMiB, block);
  EXPECT_EQ("tree block 1048576 (level 0, generation 77) cannot be used: its checksum is wrong",
            ReadFailure(Leaf(kMiB)));
}

TEST_F(BlockReaderRead, HoldsTheFirstKeyAgainstTheParents) {
  PutBoth(kMiB, MakeLeaf(kMiB, {{{256, 1, 0}, kData}}));
  BlockPointer pointer = Leaf(kMiB);
  pointer.firstKey = Key{256, 1, 1};
  EXPECT_EQ(
      "tree block 1048576 (level 0, generation 77) cannot be used: its first key is not the one in "
      "its parent",
      ReadFailure(pointer));
  pointer.firstKey = Key{256, 1, 0};
  TreeBlockPtr block;
  EXPECT_TRUE(reader_.Read(pointer, &block).Ok());
}

TEST_F(BlockReaderRead, RefusesAnEmptyLeafBelowAParent) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  BlockPointer pointer = Leaf(kMiB);
  pointer.firstKey = Key{256, 1, 0};
  EXPECT_NE("", ReadFailure(pointer));
}

TEST_F(BlockReaderRead, RefusesAddressesOutsideAllChunks) {
  EXPECT_EQ("tree block 67108864 (level 0, generation 77) cannot be used: no chunk holds it",
            ReadFailure(Leaf(64 * kMiB)));
}

TEST_F(BlockReaderRead, ReadsABlockOnceAndAnotherGenerationAnew) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  TreeBlockPtr block;
  ASSERT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
  ASSERT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
  EXPECT_EQ(1, device_.Reads());

  Bytes newer = MakeLeaf(kMiB, {});
  HeaderOf(&newer).generation.Set(78);
  Seal(&newer);
  PutBoth(kMiB, newer);
  BlockPointer pointer = Leaf(kMiB);
  pointer.generation = 78;
  ASSERT_TRUE(reader_.Read(pointer, &block).Ok());
  EXPECT_EQ(2, device_.Reads());
  EXPECT_EQ(78u, block->view->Header().generation.Get());
}

TEST_F(BlockReaderRead, CountsWhatIsReadAndNotWhatIsKept) {
  PutBoth(kMiB, MakeLeaf(kMiB, {}));
  TreeBlockPtr block;
  ASSERT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
  ASSERT_TRUE(reader_.Read(Leaf(kMiB), &block).Ok());
  EXPECT_EQ(kNodeSize, meter_.total);
  EXPECT_EQ(kNodeSize, meter_.processed);
}

TEST_F(BlockReaderReadMany, ReadsNeighboursTogetherInOrderOfPlace) {
  std::vector<BlockPointer> pointers;
  for (const uint64_t block : {7, 3, 1, 2, 5}) {
    PutBoth(block * kNodeSize, MakeLeaf(block * kNodeSize, {}));
    pointers.push_back(Leaf(block * kNodeSize));
  }
  std::vector<uint64_t> seen;
  ASSERT_TRUE(reader_
                  .ReadMany(pointers,
                            [&](const TreeBlockView& view) {
                              seen.push_back(view.Header().bytenr.Get() / kNodeSize);
                              return Status();
                            })
                  .Ok());
  EXPECT_EQ((std::vector<uint64_t>{1, 2, 3, 5, 7}), seen);
  EXPECT_EQ(3, device_.Reads());
  EXPECT_EQ(5 * kNodeSize, meter_.total);
  EXPECT_EQ(5 * kNodeSize, meter_.processed);
}

TEST_F(BlockReaderReadMany, UsesTheMirrorOfTheOneBlockThatIsBad) {
  std::vector<BlockPointer> pointers;
  for (uint64_t block = 1; block <= 4; ++block) {
    PutBoth(block * kNodeSize, MakeLeaf(block * kNodeSize, {}));
    pointers.push_back(Leaf(block * kNodeSize));
  }
  device_.Put(2 * kNodeSize, Bytes(kNodeSize, 0xEE));
  int seen = 0;
  EXPECT_TRUE(
      reader_.ReadMany(pointers, [&](const TreeBlockView&) { return ++seen, Status(); }).Ok());
  EXPECT_EQ(4, seen);
}

TEST_F(BlockReaderReadMany, SplitsLongRuns) {
  std::vector<BlockPointer> pointers;
  const uint64_t count = kFlashShape.mostBytes / kNodeSize + 10;
  for (uint64_t block = 0; block < count; ++block) {
    PutBoth(block * kNodeSize, MakeLeaf(block * kNodeSize, {}));
    pointers.push_back(Leaf(block * kNodeSize));
  }
  uint64_t seen = 0;
  EXPECT_TRUE(
      reader_.ReadMany(pointers, [&](const TreeBlockView&) { return ++seen, Status(); }).Ok());
  EXPECT_EQ(count, seen);
  EXPECT_EQ(2, device_.Reads());
}

TEST_F(BlockReaderReadMany, EndsAtTheVisitorsFailure) {
  PutBoth(kNodeSize, MakeLeaf(kNodeSize, {}));
  const Status status = reader_.ReadMany(
      {Leaf(kNodeSize)}, [](const TreeBlockView&) { return Status::Failed("enough"); });
  EXPECT_EQ("enough", status.Text());
}

// Logical addresses 0 to 4 MiB over three devices, in any profile; each device's part begins at 0.
class BlockReaderDevices : public testing::Test {
 protected:
  static constexpr uint8_t kSeedFsid[kUuidSize] = {9, 9, 9};

  BlockReaderDevices() {
    for (uint64_t devid = 1; devid <= 3; ++devid)
      memory_.push_back(&AddMemoryDevice(&devices_, devid, 4 * kMiB));
  }

  void UseProfile(uint64_t profile, uint64_t stripeCount) {
    std::vector<Place> stripes;
    for (uint64_t devid = 1; devid <= stripeCount; ++devid) stripes.push_back({devid, 0});
    const Bytes chunk = MakeChunkOn(4 * kMiB, kChunkMetadata | profile, stripes);
    ASSERT_EQ("", chunks_.Add(ChunkKey(0), View(chunk)).Text());
    reader_.UseChunks(chunks_);
  }

  // Puts an empty leaf of file system `fsid` (16 bytes; null: none) wherever the chunk has it.
  void Put(uint64_t bytenr, const uint8_t* fsid = nullptr) {
    Bytes block = MakeLeaf(bytenr, {});
    if (fsid != nullptr) memcpy(HeaderOf(&block).fsid, fsid, kUuidSize);
    Seal(&block);
    for (const Place& place : chunks_.Find(bytenr, kNodeSize))
      memory_[place.devid - 1]->Put(place.offset, block);
  }

  Status Read(uint64_t bytenr) {
    TreeBlockPtr block;
    return reader_.Read({bytenr, kGeneration, 0, {}}, &block);
  }

  DeviceSet devices_;
  std::vector<MemoryDevice*> memory_;
  ReadMeter meter_;
  ChunkMap chunks_;
  BlockReader reader_{devices_, Format(), meter_};
};

TEST_F(BlockReaderDevices, ReadsStripedNeighboursOnEachDeviceTogether) {
  UseProfile(kRaid0, 3);
  std::vector<BlockPointer> pointers;
  for (uint64_t bytenr = 0; bytenr < 18 * 65536; bytenr += kNodeSize) {
    Put(bytenr);
    pointers.push_back({bytenr, kGeneration, 0, {}});
  }
  std::vector<uint64_t> visited;
  const auto note = [&](const TreeBlockView& block) {
    visited.push_back(block.Header().bytenr.Get());
    return Status();
  };
  ASSERT_EQ("", reader_.ReadMany(pointers, note).Text());
  std::sort(visited.begin(), visited.end());
  ASSERT_EQ(pointers.size(), visited.size());
  for (size_t i = 0; i < pointers.size(); ++i) EXPECT_EQ(pointers[i].bytenr, visited[i]);
  for (const MemoryDevice* memory : memory_)
    EXPECT_EQ(6 * 65536 / kFlashShape.mostBytes, static_cast<size_t>(memory->Reads()));
  EXPECT_EQ(18u * 65536, meter_.processed);
}

TEST_F(BlockReaderDevices, UsesTheMirrorOfAMissingDevice) {
  UseProfile(kRaid1c3, 3);
  std::vector<BlockPointer> pointers;
  for (uint64_t bytenr = kMiB; bytenr < kMiB + 4 * kNodeSize; bytenr += kNodeSize) {
    Put(bytenr);
    pointers.push_back({bytenr, kGeneration, 0, {}});
  }
  devices_.AddMissing(1, "");
  EXPECT_EQ("", Read(kMiB).Text());
  EXPECT_EQ(1, memory_[1]->Reads());
  EXPECT_EQ("", reader_.ReadMany(pointers, kIgnore).Text());
  EXPECT_EQ(2, memory_[1]->Reads());  // in one request there, too
  EXPECT_EQ(0, memory_[2]->Reads());
}

TEST_F(BlockReaderDevices, NamesTheMissingDevice) {
  const struct {
    const char* name;
    uint64_t profile;
    uint64_t stripes;
    uint64_t bytenr;
    std::vector<uint64_t> missing;
    uint64_t named;
  } kCases[] = {
      {"single", 0, 1, 4096, {1}, 1},        {"raid0", kRaid0, 3, 65536, {2}, 2},
      {"raid1", kRaid1, 2, 4096, {1, 2}, 1}, {"raid5, second row", kRaid5, 3, 3 * 65536, {3}, 3},
      {"raid6", kRaid6, 3, 65536, {2}, 2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    chunks_ = ChunkMap();
    UseProfile(c.profile, c.stripes);
    DeviceSet devices;
    for (uint64_t devid = 1; devid <= 3; ++devid) (void)AddMemoryDevice(&devices, devid, kMiB);
    for (const uint64_t devid : c.missing) devices.AddMissing(devid, "");
    BlockReader reader(devices, Format(), meter_);
    reader.UseChunks(chunks_);
    TreeBlockPtr block;
    const BlockPointer pointer = {c.bytenr, kGeneration, 0, {}};
    for (const Status& read : {reader.Read(pointer, &block), reader.ReadMany({pointer}, kIgnore)}) {
      EXPECT_EQ(Status::kNoDevice, read.GetKind());
      EXPECT_EQ("device " + std::to_string(c.named) + " is missing and tree block " +
                    std::to_string(c.bytenr) +
                    " lies nowhere else; attach the device or replace it (btrfs replace), then try "
                    "again",
                read.Text());
    }
  }
}

TEST_F(BlockReaderDevices, SaysWhyADeviceCannotBeUsed) {
  UseProfile(0, 1);
  devices_.AddMissing(1, "cannot open device /dev/sdx: No such file or directory");
  EXPECT_EQ(
      "device 1 cannot be used (cannot open device /dev/sdx: No such file or directory) and tree "
      "block 0 lies nowhere else; attach the device or replace it (btrfs replace), then try again",
      Read(0).Text());
}

TEST_F(BlockReaderDevices, ReadsParityNeverAsACopy) {
  UseProfile(kRaid5, 3);
  Put(0);
  Bytes spoilt = MakeLeaf(0, {});
  spoilt.back() ^= 1;
  memory_[0]->Put(0, spoilt);
  memory_[1]->Put(0, MakeLeaf(0, {}));
  memory_[2]->Put(0, MakeLeaf(0, {}));
  EXPECT_EQ("tree block 0 (level 0, generation 77) cannot be used: its checksum is wrong",
            Read(0).Text());
}

// A missing copy and a bad one: the bad one may be a block that was used again, so it can be tried
// from a newer superblock.
TEST_F(BlockReaderDevices, ABadCopyBesideAMissingOneIsABadBlock) {
  UseProfile(kRaid1, 2);
  devices_.AddMissing(1, "");
  EXPECT_EQ(Status::kBadBlock, Read(kMiB).GetKind());
}

TEST_F(BlockReaderDevices, HoldsTheBlocksOfASeedAgainstTheSeedsFsid) {
  UseProfile(kRaid0, 3);
  auto seed = std::make_unique<MemoryDevice>(4 * kMiB);
  memory_[1] = seed.get();
  Device device{std::move(seed), {}, {}};
  memcpy(device.blockFsid, kSeedFsid, kUuidSize);
  devices_.Add(2, std::move(device));

  Put(65536, kSeedFsid);
  Put(2 * 65536);
  EXPECT_EQ("", Read(65536).Text());
  EXPECT_EQ("", Read(2 * 65536).Text());

  Put(65536 + kNodeSize);  // on the seed, but not the seed's
  Put(2 * 65536 + kNodeSize, kSeedFsid);
  for (const uint64_t piece : {1, 2})
    EXPECT_EQ("tree block " + std::to_string(piece * 65536 + kNodeSize) +
                  " (level 0, generation 77) cannot be used: it belongs to another file system",
              Read(piece * 65536 + kNodeSize).Text());
}

TEST(BlockReaderCache, StaysWithinItsBound) {
  const uint64_t blocks = 2 * BlockReader::kCacheBytes / kNodeSize;
  DeviceSet devices;
  MemoryDevice& device = AddMemoryDevice(&devices, 1, blocks * kNodeSize);
  ReadMeter meter;
  BlockReader reader(devices, Format(), meter);
  ChunkMap chunks;
  const Bytes chunk = MakeChunkOn(blocks * kNodeSize, kChunkMetadata, {{1, 0}});
  ASSERT_TRUE(chunks.Add(ChunkKey(0), View(chunk)).Ok());
  reader.UseChunks(chunks);

  std::vector<std::weak_ptr<const TreeBlock>> handed;
  for (uint64_t block = 0; block < blocks; ++block) {
    device.Put(block * kNodeSize, MakeLeaf(block * kNodeSize, {}));
    TreeBlockPtr read;
    ASSERT_TRUE(reader.Read({block * kNodeSize, kGeneration, 0, {}}, &read).Ok());
    handed.push_back(read);
  }
  uint64_t alive = 0;
  for (const auto& block : handed) alive += block.expired() ? 0 : 1;
  EXPECT_EQ(BlockReader::kCacheBytes / kNodeSize, alive);
  EXPECT_FALSE(handed.back().expired());  // the last used stay
}

// A tree of two levels: leaves at 1, 2, 3 of which the second key range has a gap.
class TreeCursorTest : public BlockReaderTest {
 protected:
  TreeCursorTest() {
    PutBoth(1 * kNodeSize, MakeLeaf(kNodeSize, {{{10, 1, 0}, kData}, {{11, 1, 0}, kData}}));
    PutBoth(2 * kNodeSize, MakeLeaf(2 * kNodeSize, {{{20, 1, 0}, kData}, {{21, 1, 0}, kData}}));
    PutBoth(3 * kNodeSize, MakeLeaf(3 * kNodeSize, {{{30, 1, 0}, kData}}));
    PutBoth(4 * kNodeSize, MakeNode(4 * kNodeSize, 1,
                                    {{{10, 1, 0}, kNodeSize},
                                     {{20, 1, 0}, 2 * kNodeSize},
                                     {{30, 1, 0}, 3 * kNodeSize}}));
  }

  BlockPointer root_{4 * kNodeSize, kGeneration, 1, {}};
};

TEST_F(TreeCursorTest, SeekFindsTheFirstItemNotBelow) {
  const struct {
    const char* name;
    uint64_t wanted;
    uint64_t found;  // 0: past the last
  } kCases[] = {
      {"before all", 1, 10},          {"the first", 10, 10},       {"inside a leaf", 11, 11},
      {"between two leaves", 15, 20}, {"first of a leaf", 20, 20}, {"past a leaf", 22, 30},
      {"the last", 30, 30},           {"past all", 31, 0},
  };
  TreeCursor kept(reader_, root_);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TreeCursor fresh(reader_, root_);
    for (TreeCursor* cursor : {&fresh, &kept}) {
      ASSERT_TRUE(cursor->Seek({c.wanted, 0, 0}).Ok());
      EXPECT_EQ(c.found, cursor->AtItem() ? cursor->ItemKey().objectid : 0);
    }
  }
  ASSERT_TRUE(kept.Seek({10, 1, 0}).Ok());  // and back again
  EXPECT_EQ(10u, kept.ItemKey().objectid);
}

TEST_F(TreeCursorTest, NextVisitsEveryItemOnce) {
  TreeCursor cursor(reader_, root_);
  ASSERT_TRUE(cursor.Seek(Key()).Ok());
  std::vector<uint64_t> seen;
  while (cursor.AtItem()) {
    seen.push_back(cursor.ItemKey().objectid);
    ASSERT_TRUE(cursor.Next().Ok());
  }
  EXPECT_EQ((std::vector<uint64_t>{10, 11, 20, 21, 30}), seen);
}

TEST_F(TreeCursorTest, AnEmptyTreeHasNoItem) {
  PutBoth(5 * kNodeSize, MakeLeaf(5 * kNodeSize, {}));
  TreeCursor cursor(reader_, {5 * kNodeSize, kGeneration, 0, {}});
  ASSERT_TRUE(cursor.Seek(Key()).Ok());
  EXPECT_FALSE(cursor.AtItem());
}

TEST_F(TreeCursorTest, AFailedBlockIsNoPosition) {
  PutBoth(2 * kNodeSize, Bytes(kNodeSize));
  TreeCursor cursor(reader_, root_);
  EXPECT_EQ(Status::kBadBlock, cursor.Seek({20, 0, 0}).GetKind());
  EXPECT_FALSE(cursor.AtItem());
  ASSERT_TRUE(cursor.Seek({30, 1, 0}).Ok());
  EXPECT_EQ(30u, cursor.ItemKey().objectid);
}

// A node that points to itself would be walked for ever if levels were not held against the parent.
TEST_F(TreeCursorTest, ALoopIsABadBlock) {
  PutBoth(6 * kNodeSize, MakeNode(6 * kNodeSize, 2, {{{10, 1, 0}, 6 * kNodeSize}}));
  TreeCursor cursor(reader_, {6 * kNodeSize, kGeneration, 2, {}});
  EXPECT_EQ("tree block 24576 (level 1, generation 77) cannot be used: its level is 2",
            cursor.Seek({10, 0, 0}).Text());
}
