// File systems over several devices, of every profile and with every change of devices, against the
// kernel's own numbers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/engine/history.h"

using namespace ZorvTest;

namespace {

BtrfsOptions OnDevices(const std::vector<int>& devicesMiB, const std::vector<std::string>& mkfs) {
  BtrfsOptions options = Options(0, mkfs);
  options.devicesMiB = devicesMiB;
  return options;
}

// Options of mkfs for data and metadata of one profile, with small nodes: more of them, in more
// places.
std::vector<std::string> Profile(const std::string& profile) {
  return {"-n", "4096", "-d", profile, "-m", profile};
}

void Stock(std::vector<std::string> argv) {
  argv.insert(argv.begin(), kStockBtrfs);
  MustRun(argv);
}

std::vector<unsigned long long> AllSubvolumes(const BtrfsVolume& volume) {
  std::vector<unsigned long long> ids = {5};
  for (const auto& entry : std::filesystem::directory_iterator(volume.MountPoint()))
    ids.push_back(SubvolumeID(entry.path()));
  return ids;
}

EngineRun RunOn(const std::vector<unsigned long long>& ids) {
  std::vector<std::string> args = {"-vm", "-r", kMount};
  for (const unsigned long long id : ids) args.push_back(std::to_string(id));
  return RunEngine(args);
}

// Makes a mounted seed writable by a further device.
void AddDeviceToSeed(BtrfsVolume& volume) {
  Stock({"device", "add", volume.AddDevice(256), kMount});
  MustRun({"mount", "-o", "remount,rw", kMount});
}

struct Layout {
  const char* name;
  std::vector<int> devicesMiB;
  std::vector<std::string> mkfs;
};

void PrintTo(const Layout& layout, std::ostream* out) { *out << layout.name; }

class DevicesLayout : public testing::TestWithParam<Layout> {};

const Layout kLayouts[] = {
    {"Raid0", {256, 256}, Profile("raid0")},
    {"Raid0OnFive", {256, 256, 256, 256, 256}, Profile("raid0")},
    {"Raid0OnOne", {256}, Profile("raid0")},
    {"Raid1", {256, 256}, Profile("raid1")},
    {"Raid1c3", {256, 256, 256}, Profile("raid1c3")},
    {"Raid1c4", {256, 256, 256, 256}, Profile("raid1c4")},
    {"Raid10", {256, 256, 256, 256}, Profile("raid10")},
    {"Raid10OnSix", {256, 256, 256, 256, 256, 256}, Profile("raid10")},
    {"Raid5", {256, 256, 256}, Profile("raid5")},
    {"Raid5OnTwo", {256, 256}, Profile("raid5")},
    {"Raid6", {256, 256, 256, 256}, Profile("raid6")},
    {"Raid6OnThree", {256, 256, 256}, Profile("raid6")},
    {"SingleOnThree", {256, 256, 256}, Profile("single")},
    {"UnequalSizes", {128, 300, 200}, Profile("raid1")},
    {"DupOnTwo", {256, 256}, {"-m", "dup", "-d", "single"}},
    {"Raid5Nodes16k", {256, 256, 256}, {"-n", "16384", "-d", "raid5", "-m", "raid5"}},
    {"Raid6Nodes64k", {256, 256, 256, 256}, {"-n", "65536", "-d", "raid6", "-m", "raid6"}},
    {"Raid10Nodes64k", {256, 256, 256, 256}, {"-n", "65536", "-d", "raid10", "-m", "raid10"}},
    {"DataRaid5MetadataRaid1c3", {256, 256, 256}, {"-d", "raid5", "-m", "raid1c3"}},
    {"MixedGroupsRaid1", {256, 256}, {"--mixed", "-d", "raid1", "-m", "raid1"}},
    {"MixedGroupsRaid0", {256, 256}, {"--mixed", "-d", "raid0", "-m", "raid0"}},
};

}  // namespace

TEST_P(DevicesLayout, EqualsTheKernelAfterAHistory) {
  BtrfsVolume volume(kMount, OnDevices(GetParam().devicesMiB, GetParam().mkfs));
  MakeHistory(volume, 300, 6);
  ExpectKernelNumbers(volume, 8);
}

INSTANTIATE_TEST_SUITE_P(Mkfs, DevicesLayout, testing::ValuesIn(kLayouts),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Devices, EqualsTheKernelWhenOneIsAddedAndOneRemoved) {
  BtrfsVolume volume(kMount, OnDevices({256, 256, 256}, Profile("raid1")));
  MakeHistory(volume, 200, 4);
  Stock({"device", "add", volume.AddDevice(256), kMount});
  Stock({"device", "remove", volume.Devices()[1], kMount});
  volume.RemoveDevice(1);
  const std::string devices = MustRun({kStockBtrfs, "filesystem", "show", kMount});
  EXPECT_EQ(std::string::npos, devices.find("devid    2 ")) << devices;
  EXPECT_NE(std::string::npos, devices.find("devid    4 ")) << devices;
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelWhenTheFirstIsRemoved) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("single")));
  MakeHistory(volume, 200, 4);
  Stock({"device", "remove", volume.Devices()[0], kMount});
  volume.RemoveDevice(0);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelWhenOneIsReplaced) {
  BtrfsVolume volume(kMount, OnDevices({256, 256, 256}, Profile("raid5")));
  MakeHistory(volume, 200, 4);
  Stock({"replace", "start", "-B", "-f", "2", volume.AddDevice(300), kMount});
  volume.RemoveDevice(1);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, StaysExactWhileOneIsBeingReplaced) {
  BtrfsVolume volume(kMount, OnDevices({512, 512}, Profile("raid0")));
  MakeHistory(volume, 200, 4);
  for (unsigned n = 0; n < 40; ++n)
    WriteRandom(volume.Path("live/big" + std::to_string(n)), 1 << 22, n);
  const std::vector<unsigned long long> ids = AllSubvolumes(volume);
  MustRun({"sync", "-f", kMount});
  const Sizes kernel = volume.KernelExclusive();
  // The kernel throttles the copying until the engine has run often enough.
  constexpr int kRuns = 10;
  std::string uuid = MustRun({"findmnt", "-n", "-o", "UUID", "--mountpoint", kMount});
  uuid.pop_back();
  const std::string bytesPerSecond = "/sys/fs/btrfs/" + uuid + "/devinfo/1/scrub_speed_max";
  WriteFile(bytesPerSecond, "4194304");
  Stock({"replace", "start", "-f", "1", volume.AddDevice(600), kMount});
  const auto isRunning = [] {
    const std::string status = MustRun({kStockBtrfs, "replace", "status", "-1", kMount});
    return status.find("% done") != std::string::npos;
  };
  ASSERT_TRUE(WaitUntil(isRunning));
  int runs = 0;
  while (isRunning()) {
    const EngineRun run = RunOn(ids);
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(kernel, run.sizes);
    if (++runs == kRuns) WriteFile(bytesPerSecond, "0");
  }
  EXPECT_GE(runs, kRuns);
  volume.RemoveDevice(0);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelWhenOneOfAMirrorIsMissing) {
  for (const size_t lost : {0, 1}) {
    SCOPED_TRACE(lost);
    BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid1")));
    MakeHistory(volume, 200, 4);
    MountWithout(volume, lost);
    ExpectKernelNumbers(volume, 6);
    WriteFiles("live", 1, 50, 77);  // into chunks that the missing device has no part of
    ExpectKernelNumbers(volume, 6);
  }
}

TEST(Devices, EqualsTheKernelWhenOneOfRaid10IsMissing) {
  BtrfsVolume volume(kMount, OnDevices({256, 256, 256, 256}, Profile("raid10")));
  MakeHistory(volume, 200, 4);
  MountWithout(volume, 2);
  ExpectKernelNumbers(volume, 6);
}

// A device that was away while the file system was written to is there again with old content.  The
// kernel's rescan takes old blocks of the right level for current ones then, and its numbers vary
// from one rescan to the next; so it is asked after a scrub, which renews them.
TEST(Devices, EqualsTheKernelWhenOneOfAMirrorIsOutOfDate) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid1")));
  MakeHistory(volume, 100, 2);
  volume.Unmount();
  volume.Attach();
  MustRun({"mount", "-o", "degraded", volume.Devices()[1], kMount});
  for (const char* name : {"late1", "late2"}) {
    WriteFiles("live", 1, 30, 5);
    volume.Snapshot("live", name);
  }
  volume.Unmount();
  volume.Mount();
  MustRun({"sync", "-f", kMount});
  const EngineRun outOfDate = RunOn(AllSubvolumes(volume));
  EXPECT_EQ(0, outOfDate.status) << outOfDate.err;
  EXPECT_EQ(0u, outOfDate.err.rfind("NOTE: the copy of tree block ", 0)) << outOfDate.err;
  EXPECT_NE(std::string::npos, outOfDate.err.find(" on device 1 at ")) << outOfDate.err;
  EXPECT_NE(std::string::npos, outOfDate.err.find(" another copy was read; run btrfs scrub\n"))
      << outOfDate.err;
  EXPECT_EQ(1, std::ranges::count(outOfDate.err, '\n')) << "said once: " << outOfDate.err;
  Stock({"scrub", "start", "-B", kMount});
  EXPECT_EQ(volume.KernelExclusive(), outOfDate.sizes);
}

// With a device missing the kernel rebuilds from parity; the engine says that it does not.  Which
// blocks a run needs, and on which device they lie, is the kernel's choice: each is lost in turn.
TEST(Devices, SaysWhichOneIsMissingWhereParityWouldBeNeeded) {
  for (const char* profile : {"raid5", "raid6"}) {
    int refused = 0;
    for (unsigned lost = 0; lost < 4; ++lost) {
      SCOPED_TRACE(profile + (" without device " + std::to_string(lost + 1)));
      BtrfsVolume volume(kMount, OnDevices({256, 256, 256, 256}, Profile(profile)));
      MakeHistory(volume, 400, 4);
      MustRun({"sync", "-f", kMount});
      const std::vector<unsigned long long> ids = AllSubvolumes(volume);
      const Sizes healthy = RunOn(ids).sizes;
      EXPECT_EQ(6u, healthy.size());
      MountWithout(volume, lost);

      const EngineRun run = RunOn(ids);
      if (run.status == 0) {
        EXPECT_EQ(healthy, run.sizes);
        continue;
      }
      ++refused;
      const size_t number = run.err.find("tree block ") + 11;
      const std::string before =
          "device " + std::to_string(lost + 1) + " is missing and tree block ";
      const std::string after =
          " lies nowhere else; attach the device or replace it (btrfs replace), then try again";
      ExpectFailure(run,
                    before + run.err.substr(number, run.err.find(' ', number) - number) + after,
                    "device # is missing and tree block #" + after);
    }
    EXPECT_GT(refused, 0) << profile;
  }
}

TEST(Devices, EqualsTheKernelOnASproutOfASeed) {
  BtrfsVolume volume(kMount, OnDevices({256}, {"-n", "4096"}));
  MakeHistory(volume, 400, 4);
  volume.Unmount();
  MustRun({"btrfstune", "-S", "1", volume.Image()});
  volume.Mount();
  const Sizes onSeed = RunOn(AllSubvolumes(volume)).sizes;  // mounted by itself, read-only
  EXPECT_EQ(6u, onSeed.size());
  AddDeviceToSeed(volume);
  ExpectKernelNumbers(volume, 6);

  WriteFiles("live", 1, 30, 9);
  volume.Snapshot("live", "late");
  ExpectKernelNumbers(volume, 7);
}

TEST(Devices, EqualsTheKernelOnASproutWhoseSeedIsRemoved) {
  BtrfsVolume volume(kMount, OnDevices({256}, {"-n", "4096"}));
  MakeHistory(volume, 200, 4);
  volume.Unmount();
  MustRun({"btrfstune", "-S", "1", volume.Image()});
  volume.Mount();
  AddDeviceToSeed(volume);
  Stock({"device", "remove", volume.Devices()[0], kMount});
  volume.RemoveDevice(0);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelOnASproutOfAMirroredSeed) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid1")));
  MakeHistory(volume, 200, 4);
  volume.Unmount();
  volume.Attach();
  Stock({"device", "scan", volume.Devices()[0], volume.Devices()[1]});
  MustRun({"btrfstune", "-S", "1", volume.Devices()[0]});
  volume.Mount();
  AddDeviceToSeed(volume);
  WriteFiles("live", 1, 10, 9);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelOnASproutOfASprout) {
  BtrfsVolume volume(kMount, OnDevices({256}, {"-n", "4096"}));
  MakeHistory(volume, 300, 4);
  for (unsigned round = 1; round <= 2; ++round) {
    volume.Unmount();
    volume.Attach();
    MustRun({"btrfstune", "-f", "-S", "1", volume.Devices().back()});
    volume.Mount();
    AddDeviceToSeed(volume);
    WriteFiles("live", round * 50, round * 50 + 10, round + 20);
    volume.Snapshot("live", "round" + std::to_string(round));
  }
  ExpectKernelNumbers(volume, 8);
}

TEST(Devices, EqualsTheKernelWithAChangedMetadataUuid) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid1")));
  MakeHistory(volume, 200, 4);
  volume.Unmount();
  volume.Attach();
  Stock({"device", "scan", volume.Devices()[0], volume.Devices()[1]});
  MustRun({"btrfstune", "-m", volume.Devices()[0]});
  volume.Mount();
  WriteFiles("live", 1, 30, 9);
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelAfterAConversionByBalance) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, {"-n", "4096", "-m", "dup", "-d", "single"}));
  MakeHistory(volume, 200, 4);
  Stock({"balance", "start", "-mconvert=raid1", "-dconvert=raid1", kMount});
  ExpectKernelNumbers(volume, 6);
}

TEST(Devices, EqualsTheKernelWithTwoProfilesAtOnce) {
  BtrfsVolume volume(kMount,
                     OnDevices({512, 512, 512}, {"-n", "4096", "-m", "raid1", "-d", "single"}));
  MakeHistory(volume, 200, 4);
  for (unsigned n = 0; n < 50; ++n)
    WriteRandom(volume.Path("live/big" + std::to_string(n)), 4 << 20, n);
  Stock({"balance", "start", "-dconvert=raid5,limit=1", "-f", "-mconvert=raid0,limit=1", kMount});
  const std::string usage = MustRun({kStockBtrfs, "filesystem", "df", kMount});
  for (const char* profile : {"Data, single", "Data, RAID5"})
    EXPECT_NE(std::string::npos, usage.find(profile)) << usage;
  ExpectKernelNumbers(volume, 6);
}

// The kernel keeps the path by which it was told of a device; the node may be elsewhere by now.
TEST(Devices, AreFoundWhenTheKernelsPathLeadsNowhere) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid0")));
  MakeHistory(volume, 100, 2);
  MustRun({"sync", "-f", kMount});
  const Sizes kernel = volume.KernelExclusive();
  const std::vector<unsigned long long> ids = AllSubvolumes(volume);
  const std::string node = volume.Devices()[1];
  struct stat device;
  ASSERT_EQ(0, stat(node.c_str(), &device));
  const std::string elsewhere = "/dev/block/" + std::to_string(major(device.st_rdev)) + ":" +
                                std::to_string(minor(device.st_rdev));
  std::filesystem::create_directories("/dev/block");
  std::filesystem::rename(node, elsewhere);
  EXPECT_EQ(kernel, RunOn(ids).sizes);

  // A path that leads to another device by now is no better.
  std::filesystem::create_symlink(volume.Devices()[0], node);
  EXPECT_EQ(kernel, RunOn(ids).sizes);

  std::filesystem::remove(node);
  std::filesystem::rename(elsewhere, node + ".hidden");
  const EngineRun run = RunOn(ids);
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(0u, run.err.find("ERROR: device 2 cannot be used (cannot open device " + node +
                             ": No such file or directory) and tree block "))
      << run.err;
  std::filesystem::rename(node + ".hidden", node);
}

TEST(Devices, AreFoundByTheirNamesWhenTheKernelWasToldAnother) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("raid0")));
  MakeHistory(volume, 100, 2);
  const std::vector<unsigned long long> ids = AllSubvolumes(volume);
  const Sizes kernel = volume.KernelExclusive();
  volume.Unmount();
  volume.Attach();
  const std::string alias = "/tmp/a-disk";
  struct stat device;
  ASSERT_EQ(0, stat(volume.Devices()[0].c_str(), &device));
  ASSERT_EQ(0, mknod(alias.c_str(), S_IFBLK | 0600, device.st_rdev));
  MustRun({"mount", "-o", "device=" + alias, volume.Devices()[1], kMount});
  std::filesystem::remove(alias);
  const std::string devices = MustRun({kStockBtrfs, "device", "stats", kMount});
  EXPECT_NE(std::string::npos, devices.find(alias)) << devices;
  EXPECT_EQ(kernel, RunOn(ids).sizes);
}

// The superblock of a removed device is wiped; that was taken for damage, with the advice to scrub.
TEST(Devices, ThatAreRemovedMeanwhileAreNotDamaged) {
  BtrfsVolume volume(kMount, OnDevices({256, 256}, Profile("single")));
  MakeHistory(volume, 200, 4);
  std::vector<std::string> args = {"-vm", "-r", kMount};
  for (const unsigned long long id : AllSubvolumes(volume)) args.push_back(std::to_string(id));
  const std::string leaving = volume.AddDevice(256);
  RandomMoment moment;
  int met = 0;
  for (int round = 0; met < 12; ++round) {
    ASSERT_LT(round, 500);
    Stock({"device", "add", "-f", leaving, kMount});
    EngineProcess engine(args);
    const bool stopped = engine.StopWorker(moment.Next());
    moment.WasMet(stopped);
    met += stopped;
    Stock({"device", "remove", leaving, kMount});
    if (stopped) engine.ContinueWorker();
    const EngineRun run = engine.Finish();
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("", run.err);
  }
}
