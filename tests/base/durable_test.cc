// What is persistent, and how it is brought to the disk.
#include "base/durable.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"
#include "tests/support/ext4_volume.h"
#include "tests/support/sync_calls.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

using Events = std::vector<std::string>;

constexpr char kFile[] = "/tmp/durable/file";

class DurableTest : public testing::Test {
 protected:
  DurableTest() { WriteFile(kFile, "bytes"); }

  const Ext4Volume volume_{"/tmp/durable"};
};

}  // namespace

TEST_F(DurableTest, OnlyThePersistentDirectoryIsPersistent) {
  const struct {
    const char* path;
    bool persistent;
  } kCases[] = {
      {"/usr/local/zorvbtrfssnapusage", true},
      {"/usr/local/zorvbtrfssnapusage/share_snap_cal_map", true},
      {"/usr/local/zorvbtrfssnapusage/share_task_status/photos", true},
      {"/usr/local/zorvbtrfssnapusage2", false},
      {"/usr/local", false},
      {"/run/zorvbtrfssnapusage/task_status/id", false},
      {"/run/lock/zorvbtrfssnapusage", false},
      {"", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(c.persistent, IsPersistent(c.path));
  }
}

TEST_F(DurableTest, SyncedIsSynced) {
  SyncCalls calls;
  EXPECT_TRUE(BringToDisk(kFile, Durability::kSynced));
  EXPECT_EQ(Events({"sync /tmp/durable/file"}), calls.Events());
}

TEST_F(DurableTest, OrderedIsWrittenOutAndNotSynced) {
  SyncCalls calls;
  EXPECT_TRUE(BringToDisk(kFile, Durability::kOrdered));
  EXPECT_EQ(Events({"write out /tmp/durable/file"}), calls.Events());
}

// There a file that was written out and not synced was found empty after a power cut.
TEST_F(DurableTest, OrderedOnBtrfsIsASync) {
  const BtrfsVolume volume("/volume1");
  WriteFile("/volume1/file", "bytes");
  SyncCalls calls;
  EXPECT_TRUE(BringToDisk("/volume1/file", Durability::kOrdered));
  EXPECT_EQ(Events({"sync /volume1/file"}), calls.Events());
}

// What an overlay writes out are pages of its own, which it has none of; the bytes are the file
// system's below, and were not there after a power cut.
TEST_F(DurableTest, OrderedOnAnOverlayIsASync) {
  for (const char* directory : {"/tmp/durable/upper", "/tmp/durable/work", "/tmp/overlay"})
    std::filesystem::create_directory(directory);
  ASSERT_EQ(0,
            mount("overlay", "/tmp/overlay", "overlay", 0,
                  "lowerdir=/tmp/overlay,upperdir=/tmp/durable/upper,workdir=/tmp/durable/work"));
  WriteFile("/tmp/overlay/file", "bytes");
  SyncCalls calls;
  EXPECT_TRUE(BringToDisk("/tmp/overlay/file", Durability::kOrdered));
  EXPECT_EQ(Events({"sync /tmp/overlay/file"}), calls.Events());
  EXPECT_EQ(0, umount2("/tmp/overlay", MNT_DETACH));
}

// Of any other file system it is not known what it does with bytes that were written out.
TEST_F(DurableTest, OrderedIsASyncWhereTheOrderIsNotKnown) {
  WriteFile("/tmp/file", "bytes");
  SyncCalls calls;
  EXPECT_TRUE(BringToDisk("/tmp/file", Durability::kOrdered));
  EXPECT_EQ(Events({"sync /tmp/file"}), calls.Events());
}

TEST_F(DurableTest, WhatTheDiskRefusesFails) {
  SyncCalls calls;
  for (const int error : {EIO, ENOSPC, EDQUOT}) {
    SCOPED_TRACE(error);
    calls.Fail(kFile, error);
    EXPECT_FALSE(BringToDisk(kFile, Durability::kSynced));
    EXPECT_EQ(error, errno);
    EXPECT_FALSE(BringToDisk(kFile, Durability::kOrdered));
    EXPECT_EQ(error, errno);
    calls.Fail("/tmp/durable", error);
    EXPECT_FALSE(SyncDirectoryOf(kFile));
    EXPECT_EQ(error, errno);
  }
  EXPECT_FALSE(BringToDisk("/tmp/durable/missing", Durability::kSynced));
  EXPECT_FALSE(SyncDirectoryOf("/tmp/durable/missing/file"));
}

TEST_F(DurableTest, AFileSystemThatCannotBeAskedIsNoFailure) {
  SyncCalls calls;
  for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
    SCOPED_TRACE(error);
    calls.Fail(kFile, error);
    EXPECT_TRUE(BringToDisk(kFile, Durability::kSynced));
    EXPECT_TRUE(BringToDisk(kFile, Durability::kOrdered));
    calls.Fail("/tmp/durable", error);
    EXPECT_TRUE(SyncDirectoryOf(kFile));
  }
}

TEST_F(DurableTest, TheDirectoryIsTheOneThatHoldsTheEntry) {
  SyncCalls calls;
  EXPECT_TRUE(SyncDirectoryOf(kFile));
  EXPECT_EQ(Events({"sync /tmp/durable"}), calls.Events());
}
