// The devices of a file system: which superblock counts when they differ, what is said of the
// missing.
#include "engine/io/device_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>

#include "base/unique_fd.h"
#include "tests/engine/blocks.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

constexpr uint64_t kPrimary = 64 << 10;
constexpr uint64_t kSecond = 64 << 20;
constexpr size_t kDeviceSize = kSecond + kSuperblockSize;

class DeviceSetTest : public testing::Test {
 protected:
  // A device whose superblock is of `generation`; 0: it has none.
  MemoryDevice& Add(uint64_t devid, uint64_t generation) {
    auto memory = std::make_unique<MemoryDevice>(kDeviceSize);
    MemoryDevice& source = *memory;
    Device device{std::move(memory), {}, {}};
    device.uuid[0] = static_cast<uint8_t>(devid);
    if (generation != 0) {
      Superblock superblock{};
      superblock.magic.Set(kSuperblockMagic);
      superblock.generation.Set(generation);
      superblock.device.totalBytes.Set(kDeviceSize + 1);
      memcpy(superblock.device.uuid, device.uuid, kUuidSize);
      for (const uint64_t offset : {kPrimary, kSecond}) {
        superblock.bytenr.Set(offset);
        Bytes bytes = BytesOf(superblock);
        Seal(&bytes);
        source.Put(offset, bytes);
      }
    }
    devices_.Add(devid, std::move(device));
    return source;
  }

  DeviceSet devices_;
  Superblock found_{};
};

using DeviceSetReadNewestSuperblock = DeviceSetTest;
using DeviceSetFind = DeviceSetTest;
using DeviceSetFindDamage = DeviceSetTest;

}  // namespace

// Two devices of the machine that are always there stand for a disk and its successor.
TEST(DeviceSetSameAs, MindsNumbersAndDevicesNotTheirDescriptors) {
  const auto setOf = [](const std::vector<std::pair<uint64_t, const char*>>& paths) {
    DeviceSet set;
    for (const auto& [devid, path] : paths) {
      struct Node : MemoryDevice {
        explicit Node(const char* path) : MemoryDevice(4096), fd(open(path, O_RDONLY)) {}
        int Descriptor() const override { return fd.Get(); }
        UniqueFd fd;
      };
      set.Add(devid, Device{std::make_unique<Node>(path), {}, {}});
    }
    return set;
  };
  const DeviceSet both = setOf({{1, "/dev/null"}, {2, "/dev/zero"}});
  EXPECT_TRUE(both.SameAs(setOf({{1, "/dev/null"}, {2, "/dev/zero"}})));
  EXPECT_FALSE(both.SameAs(setOf({{1, "/dev/null"}, {2, "/dev/null"}})));
  EXPECT_FALSE(both.SameAs(setOf({{1, "/dev/null"}, {3, "/dev/zero"}})));
  EXPECT_FALSE(both.SameAs(setOf({{1, "/dev/null"}})));
  EXPECT_FALSE(setOf({}).SameAs(both));
}

TEST_F(DeviceSetReadNewestSuperblock, TakesTheNewestOfAllDevices) {
  Add(1, 10);
  Add(3, 12);
  Add(4, 11);
  ASSERT_TRUE(devices_.ReadNewestSuperblock(&found_).Ok());
  EXPECT_EQ(12u, found_.generation.Get());
  EXPECT_EQ(3, found_.device.uuid[0]);
}

TEST_F(DeviceSetReadNewestSuperblock, LeavesOutDevicesThatHaveNoneOrAreMissing) {
  Add(1, 0);
  MemoryDevice& unreadable = Add(2, 12);
  for (const uint64_t offset : {kPrimary, kSecond}) unreadable.Break(offset);
  Add(3, 10);
  devices_.AddMissing(4, "cannot open device /dev/sdx: No such device");
  ASSERT_TRUE(devices_.ReadNewestSuperblock(&found_).Ok());
  EXPECT_EQ(10u, found_.generation.Get());
}

TEST_F(DeviceSetReadNewestSuperblock, FailsWithTheReasonWhenThereIsNone) {
  EXPECT_EQ("every device of the file system is missing",
            devices_.ReadNewestSuperblock(&found_).Text());
  devices_.AddMissing(1, "");
  EXPECT_EQ("every device of the file system is missing",
            devices_.ReadNewestSuperblock(&found_).Text());
  Add(2, 0);
  EXPECT_EQ("no valid btrfs superblock on the device",
            devices_.ReadNewestSuperblock(&found_).Text());
  devices_.AddMissing(3, "cannot open device /dev/sdx: No such device");
  EXPECT_EQ("cannot open device /dev/sdx: No such device",
            devices_.ReadNewestSuperblock(&found_).Text());
}

TEST_F(DeviceSetFind, KnowsWhichAreThereAndWhyOthersAreNot) {
  Add(2, 10);
  devices_.AddMissing(3, "");
  devices_.AddMissing(4, "the device ends there");
  ASSERT_NE(nullptr, devices_.Find(2));
  EXPECT_EQ(2, devices_.Find(2)->uuid[0]);
  for (const uint64_t devid : {1, 3, 4}) EXPECT_EQ(nullptr, devices_.Find(devid));
  EXPECT_EQ("is missing", devices_.WhyMissing(1));
  EXPECT_EQ("is missing", devices_.WhyMissing(3));
  EXPECT_EQ("cannot be used (the device ends there)", devices_.WhyMissing(4));
}

TEST_F(DeviceSetFind, FollowsWhatChanges) {
  Add(1, 10);
  devices_.AddMissing(1, "");
  EXPECT_EQ(nullptr, devices_.Find(1));
  Add(1, 11);
  ASSERT_TRUE(devices_.ReadNewestSuperblock(&found_).Ok());
  EXPECT_EQ(11u, found_.generation.Get());
}

TEST_F(DeviceSetFindDamage, NamesDevicesThatCannotBeUsedAndDamagedSuperblocks) {
  Add(1, 10);
  devices_.AddMissing(2, "");  // the kernel knows that, and so does its user
  devices_.AddMissing(3, "cannot open device /dev/sdx: No such device");
  Add(4, 10).Put(kSecond, Bytes(kSuperblockSize, 0xFF));
  EXPECT_EQ(
      (std::vector<std::string>{
          "device 3 cannot be used (cannot open device /dev/sdx: No such device); other copies are "
          "read where there are any",
          "device 4: the superblock at 67108864 is damaged; another copy is read; run btrfs scrub"}),
      devices_.FindDamage());
}
