// Memory that goes to files beyond its limit, and arrays in it.
#include "engine/io/array_memory.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <vector>

using namespace ZorvEngine;

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kMiB = 1 << 20;
constexpr char kSmallDisk[] = "/tmp/array-memory";

// Mappings of this process whose line says `text`.
int Mappings(const std::string& text) {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);)
    count += line.find(text) != std::string::npos ? 1 : 0;
  return count;
}

// A disk of 256 KiB at kSmallDisk.
class ArrayMemoryTest : public testing::Test {
 protected:
  ArrayMemoryTest() {
    (void)mkdir(kSmallDisk, 0755);
    EXPECT_EQ(0, mount("tmpfs", kSmallDisk, "tmpfs", 0, "size=256k"));
  }
  ~ArrayMemoryTest() override { EXPECT_EQ(0, umount(kSmallDisk)); }
};

using BigArrayTest = ArrayMemoryTest;

}  // namespace

TEST_F(ArrayMemoryTest, IsTheProcessesUpToItsLimit) {
  ArrayMemory memory(4 * kPage, kSmallDisk);
  void* const first = memory.Allocate(3 * kPage);
  void* const second = memory.Allocate(kPage);
  EXPECT_EQ(0u, memory.SpilledBytes());
  EXPECT_EQ(0, Mappings(kSmallDisk));
  void* const third = memory.Allocate(1);
  EXPECT_EQ(1u, memory.SpilledBytes());
  EXPECT_EQ(1, Mappings(kSmallDisk));
  memory.Free(first, 3 * kPage);
  void* const fourth = memory.Allocate(3 * kPage);  // what was given back counts no more
  EXPECT_EQ(1u, memory.SpilledBytes());
  memory.Free(third, 1);
  EXPECT_EQ(0u, memory.SpilledBytes());
  EXPECT_EQ(0, Mappings(kSmallDisk));
  memory.Free(second, kPage);
  memory.Free(fourth, 3 * kPage);
}

TEST_F(ArrayMemoryTest, IsZerosOnAPageWhereverItLies) {
  for (const size_t limit : {size_t{0}, kMiB}) {
    ArrayMemory memory(limit, kSmallDisk);
    for (int round = 0; round < 2; ++round) {
      auto* const bytes = static_cast<uint8_t*>(memory.Allocate(3 * kPage));
      EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(bytes) % kPage);
      EXPECT_EQ(3 * kPage, static_cast<size_t>(std::count(bytes, bytes + 3 * kPage, 0)));
      std::fill(bytes, bytes + 3 * kPage, 0xFF);
      memory.Free(bytes, 3 * kPage);
    }
  }
}

// In memory, from memory into a file when the limit is passed, and from file to file.
TEST_F(ArrayMemoryTest, KeepsWhatItEnlarges) {
  ArrayMemory memory(8 * kPage, kSmallDisk);
  size_t size = kPage;
  auto* bytes = static_cast<uint8_t*>(memory.Allocate(size));
  for (const size_t spilled : {size_t{0}, size_t{0}, size_t{0}, 16 * kPage, 32 * kPage}) {
    std::fill(bytes, bytes + size, 0xFF);
    bytes = static_cast<uint8_t*>(memory.Enlarge(bytes, size, 2 * size));
    EXPECT_EQ(size, static_cast<size_t>(std::count(bytes, bytes + 2 * size, 0xFF)));
    EXPECT_EQ(size, static_cast<size_t>(std::count(bytes + size, bytes + 2 * size, 0)));
    size *= 2;
    EXPECT_EQ(spilled, memory.SpilledBytes());
  }
  EXPECT_THROW((void)memory.Enlarge(bytes, size, kMiB), NoArrayMemory);
  EXPECT_EQ(size / 2, static_cast<size_t>(std::count(bytes, bytes + size, 0xFF)));
  EXPECT_EQ(size, memory.SpilledBytes());
  memory.Free(bytes, size);
  // All eight pages are the process's again.
  memory.Free(memory.Allocate(8 * kPage), 8 * kPage);
  EXPECT_EQ(0, Mappings(kSmallDisk));
}

TEST_F(ArrayMemoryTest, SaysThatTheDiskIsFullAndLeavesNothingBehind) {
  ArrayMemory memory(0, kSmallDisk);
  void* const some = memory.Allocate(128 << 10);
  try {
    (void)memory.Allocate(kMiB);
    FAIL() << "there is no room for that";
  } catch (const NoArrayMemory& error) {
    EXPECT_STREQ(
        "there is no room for 1024 KiB more in /tmp/array-memory (No space left on device); make "
        "room there, allow more memory, or ask for fewer subvolumes",
        error.what());
  }
  EXPECT_EQ(128u << 10, memory.SpilledBytes());
  EXPECT_EQ(1, Mappings(kSmallDisk));
  memory.Free(some, 128 << 10);
  EXPECT_EQ(0, Mappings(kSmallDisk));
  // The room of the file that was too large is there again.
  memory.Free(memory.Allocate(200 << 10), 200 << 10);
}

TEST_F(ArrayMemoryTest, SaysThatThereIsNoSuchDirectory) {
  ArrayMemory memory(0, "/nowhere");
  EXPECT_THROW((void)memory.Allocate(1), NoArrayMemory);
}

TEST_F(BigArrayTest, KeepsItsValuesWhileItGrowsIntoAFile) {
  ArrayMemory memory(100 << 10, "/tmp");
  BigArray<uint64_t> array(memory);
  for (uint64_t i = 0; i < 100'000; ++i) array.Add(i * i);
  EXPECT_GT(memory.SpilledBytes(), 0u);
  ASSERT_EQ(100'000u, array.Size());
  for (uint64_t i = 0; i < 100'000; ++i) ASSERT_EQ(i * i, array[i]);
  array.GrowTo(300'000);
  EXPECT_EQ(0u, array[299'999]);
  EXPECT_EQ(99'999ull * 99'999, array[99'999]);
  array.GrowTo(5);
  EXPECT_EQ(300'000u, array.Size());
  array.Clear();
  EXPECT_EQ(0u, array.Size());
  EXPECT_EQ(0u, memory.SpilledBytes());
}

TEST_F(BigArrayTest, IsAsItWasWhenThereIsNoRoomForMore) {
  ArrayMemory memory(0, kSmallDisk);
  {
    BigArray<uint64_t> array(memory);
    uint64_t added = 0;
    EXPECT_THROW(for (;; ++added) array.Add(added), NoArrayMemory);
    EXPECT_EQ(added, array.Size());
    for (uint64_t i = 0; i < added; ++i) ASSERT_EQ(i, array[i]);
    EXPECT_THROW(array.GrowTo(kMiB), NoArrayMemory);
    EXPECT_EQ(added, array.Size());
  }
  EXPECT_EQ(0u, memory.SpilledBytes());
  EXPECT_EQ(0, Mappings(kSmallDisk));
}

TEST_F(BigArrayTest, GivesItsMemoryToOneOwner) {
  ArrayMemory memory(0, "/tmp");
  BigArray<int> first(memory);
  first.Add(7);
  BigArray<int> second(std::move(first));
  EXPECT_EQ(7, second[0]);
  BigArray<int> third(memory);
  third.Add(8);
  third = std::move(second);
  EXPECT_EQ(7, third[0]);
  third.Clear();
}
