// Which superblock counts, and which features are refused.
#include "engine/io/superblock.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kPrimary = 64 << 10;
constexpr uint64_t kSecond = 64 << 20;
const uint8_t kDevice[kUuidSize] = {1, 2, 3};

Bytes MakeSuperblock(uint64_t offset, uint64_t generation,
                     const std::function<void(Superblock*)>& change = nullptr) {
  Superblock superblock{};
  superblock.magic.Set(kSuperblockMagic);
  superblock.bytenr.Set(offset);
  superblock.generation.Set(generation);
  memcpy(superblock.device.uuid, kDevice, kUuidSize);
  if (change) change(&superblock);
  Bytes bytes = BytesOf(superblock);
  Seal(&bytes);
  return bytes;
}

// A superblock that nothing is wrong with.
Superblock Readable() {
  Superblock superblock{};
  superblock.numDevices.Set(1);
  superblock.nodeSize.Set(16384);
  superblock.sectorSize.Set(4096);
  superblock.incompatFlags.Set(0x371);
  return superblock;
}

class SuperblockReadNewest : public testing::Test {
 protected:
  Status Read() { return ReadNewestSuperblock(device_, kDevice, &found_); }

  MemoryDevice device_{(64u << 20) + 4096};
  Superblock found_{};
};

class SuperblockCheckCopies : public testing::Test {
 protected:
  void SetSize(Superblock* superblock) const { superblock->device.totalBytes.Set(size_); }

  void PutBoth() {
    for (const uint64_t offset : {kPrimary, kSecond})
      device_.Put(offset, MakeSuperblock(offset, 10, [this](Superblock* s) { SetSize(s); }));
  }

  std::string Check() { return CheckSuperblockCopies(device_, kDevice).Text(); }

  uint64_t size_ = kSecond + kSuperblockSize + 1;
  MemoryDevice device_{(64u << 20) + 4096};
};

}  // namespace

TEST_F(SuperblockReadNewest, TakesTheNewerOfTwoCopies) {
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 10));
  device_.Put(kSecond, MakeSuperblock(kSecond, 11));
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(11u, found_.generation.Get());
}

TEST_F(SuperblockReadNewest, TakesAnOlderCopyWhenTheNewerIsTorn) {
  Bytes torn = MakeSuperblock(kPrimary, 12);
  torn[2000] ^= 1;
  device_.Put(kPrimary, torn);
  device_.Put(kSecond, MakeSuperblock(kSecond, 11));
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(11u, found_.generation.Get());
}

TEST_F(SuperblockReadNewest, TakesTheOtherCopyWhenOneCannotBeRead) {
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 12));
  device_.Put(kSecond, MakeSuperblock(kSecond, 11));
  device_.Break(kPrimary);
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(11u, found_.generation.Get());
}

TEST_F(SuperblockReadNewest, LeavesOutCopiesOfAnEarlierFileSystem) {
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 10));
  device_.Put(kSecond, MakeSuperblock(kSecond, 999, [](Superblock* s) { s->device.uuid[0] = 9; }));
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(10u, found_.generation.Get());
}

TEST_F(SuperblockReadNewest, LeavesOutACopyThatBelongsElsewhere) {
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 10));
  device_.Put(kSecond, MakeSuperblock(kPrimary, 999));
  ASSERT_TRUE(Read().Ok());
  EXPECT_EQ(10u, found_.generation.Get());
}

TEST_F(SuperblockReadNewest, SaysThatThereIsNone) {
  EXPECT_EQ("no valid btrfs superblock on the device", Read().Text());
}

TEST_F(SuperblockReadNewest, SaysThatTheDeviceIsAnothers) {
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 10, [](Superblock* s) { s->device.uuid[0] = 9; }));
  EXPECT_EQ("the device belongs to another file system than the one mounted", Read().Text());
}

TEST_F(SuperblockReadNewest, SaysThatItCannotBeRead) {
  device_.Break(kPrimary);
  EXPECT_EQ("Input/output error", Read().Text());
}

TEST_F(SuperblockReadNewest, NamesAChecksumTypeItCannotVerify) {
  device_.Put(kPrimary,
              MakeSuperblock(kPrimary, 10, [](Superblock* s) { s->checksumType.Set(9); }));
  EXPECT_EQ("the checksum type unknown cannot be verified by this engine", Read().Text());
}

TEST_F(SuperblockCheckCopies, FindsNothingWrongWithSoundOnes) {
  PutBoth();
  EXPECT_EQ("", Check());
}

TEST_F(SuperblockCheckCopies, NamesTheOneThatIsDamagedOrCannotBeRead) {
  PutBoth();
  Bytes spoilt = MakeSuperblock(kSecond, 10);
  spoilt[2000] ^= 1;
  device_.Put(kSecond, spoilt);
  EXPECT_EQ("the superblock at 67108864 is damaged", Check());
  PutBoth();
  device_.Break(kPrimary);
  EXPECT_EQ("the superblock at 65536 is damaged (Input/output error)", Check());
}

TEST_F(SuperblockCheckCopies, LeavesOutWhatLiesBeyondTheFileSystem) {
  size_ = kSecond + kSuperblockSize;
  device_.Put(kPrimary, MakeSuperblock(kPrimary, 10, [this](Superblock* s) { SetSize(s); }));
  EXPECT_EQ("", Check());
}

// A disk may take half a minute over each read that it refuses in the end.
TEST_F(SuperblockCheckCopies, AreNotAskedForAgainWhenTheDeviceRefuses) {
  PutBoth();
  for (const uint64_t offset : {kPrimary, kSecond}) device_.Break(offset);
  EXPECT_EQ("Input/output error", Check());
  EXPECT_EQ(2, device_.Reads());
}

TEST_F(SuperblockCheckCopies, SaysThatThereIsNone) {
  EXPECT_EQ("no valid btrfs superblock on the device", Check());
}

TEST(SuperblockCheckFeatures, AcceptsWhatCanBeRead) {
  for (const uint64_t bit : {0, 2, 6, 8, 9, 10, 14, 16}) {
    SCOPED_TRACE(bit);
    Superblock superblock = Readable();
    superblock.incompatFlags.Set(superblock.incompatFlags.Get() | 1ULL << bit);
    EXPECT_TRUE(CheckFeatures(superblock).Ok());
  }
}

TEST(SuperblockCheckFeatures, NamesWhatItRefuses) {
  const struct {
    const char* name;
    std::function<void(Superblock*)> change;
    const char* text;
  } kCases[] = {
      {"zoned", [](Superblock* s) { s->incompatFlags.Set(1 << 12); },
       "zoned file systems cannot be read by this engine"},
      {"extent tree v2", [](Superblock* s) { s->incompatFlags.Set(1 << 13); },
       "the feature extent-tree-v2 cannot be read by this engine"},
      {"bit 15", [](Superblock* s) { s->incompatFlags.Set(1 << 15); },
       "the file system has a feature that this engine does not know (bit 15); use a newer engine"},
      {"bit 63", [](Superblock* s) { s->incompatFlags.Set(1ULL << 63); },
       "the file system has a feature that this engine does not know (bit 63); use a newer engine"},
      {"node size", [](Superblock* s) { s->nodeSize.Set(12288); },
       "the superblock has impossible block sizes"},
      {"huge node size", [](Superblock* s) { s->nodeSize.Set(131072); },
       "the superblock has impossible block sizes"},
      {"sector size", [](Superblock* s) { s->sectorSize.Set(0); },
       "the superblock has impossible block sizes"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Superblock superblock = Readable();
    c.change(&superblock);
    EXPECT_EQ(c.text, CheckFeatures(superblock).Text());
  }
}

TEST(SuperblockTreeBlockFsid, IsTheMetadataUuidWhenThatFeatureIsOn) {
  Superblock superblock = Readable();
  EXPECT_EQ(superblock.fsid, TreeBlockFsid(superblock));
  superblock.incompatFlags.Set(1 << 10);
  EXPECT_EQ(superblock.metadataUuid, TreeBlockFsid(superblock));
}
