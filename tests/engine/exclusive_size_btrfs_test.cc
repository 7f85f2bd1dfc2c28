// The engine's numbers against the kernel's own, byte for byte, on generated file systems.
//
// The kernel's are those of a quota rescan on a copy of the same image.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "base/unique_fd.h"
#include "tests/engine/busy_volume.h"
#include "tests/engine/history.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

// Makes `target` share bytes of `source`.
void Reflink(const std::string& source, const std::string& target, size_t from = 0,
             size_t length = 0, size_t to = 0) {
  const std::string base = std::string(kMount) + "/";
  const UniqueFd in(open((base + source).c_str(), O_RDONLY));
  const UniqueFd out(open((base + target).c_str(), O_WRONLY | O_CREAT, 0644));
  file_clone_range range{in.Get(), from, length, to};
  ASSERT_EQ(0, ioctl(out.Get(), FICLONERANGE, &range)) << source << " to " << target;
}

struct Format {
  const char* name;
  std::vector<std::string> mkfs;
};

void PrintTo(const Format& format, std::ostream* out) { *out << format.name; }

class ExclusiveSizeFormat : public testing::TestWithParam<Format> {};

const Format kFormats[] = {
    {"Nodes4kSingle", {"-n", "4096", "-m", "single"}},
    {"Nodes4kDup", {"-n", "4096", "-m", "dup"}},
    {"Nodes16kSingle", {"-n", "16384", "-m", "single"}},
    {"Nodes16kDup", {"-n", "16384", "-m", "dup"}},
    {"Nodes64k", {"-n", "65536"}},
    {"DataDup", {"-d", "dup"}},
    {"MixedGroups", {"--mixed"}},
    {"MixedGroupsDup", {"--mixed", "-m", "dup", "-d", "dup"}},
    {"NoSkinnyMetadata", {"-O", "^skinny-metadata"}},
    {"NoSkinnyMetadata4k", {"-O", "^skinny-metadata", "-n", "4096"}},
    {"WithHoleExtents", {"-O", "^no-holes"}},
    {"Xxhash", {"--csum", "xxhash"}},
    {"Sha256", {"--csum", "sha256"}},
    {"Blake2b", {"--csum", "blake2"}},
    {"SpaceCacheOne", {"-R", "^free-space-tree"}},
};

}  // namespace

TEST_P(ExclusiveSizeFormat, EqualsTheKernelAfterAHistory) {
  BtrfsVolume volume(kMount, Options(256, GetParam().mkfs));
  MakeHistory(volume, 400, 6);
  ExpectKernelNumbers(volume, 8);
}

INSTANTIATE_TEST_SUITE_P(Mkfs, ExclusiveSizeFormat, testing::ValuesIn(kFormats),
                         [](const auto& test) { return std::string(test.param.name); });

namespace {

// What users do, in a random order that its seed repeats.
class RandomHistory {
 public:
  RandomHistory(const BtrfsVolume& volume, unsigned seed) : volume_(volume), random_(seed) {
    subvolumes_ = {"first"};
    volume_.Subvolume("first");
  }

  void Step() {
    const std::string file = Any() + "/" + std::to_string(Below(40));
    const bool exists = std::filesystem::exists(volume_.Path(file));
    const std::string path = volume_.Path(file);
    const unsigned kind = Below(100);
    if (kind < 45)
      Write(file, std::vector<size_t>{90, 5000, 60000, 250000}[Below(4)], random_(),
            Below(40) * 4096);
    else if (kind < 60 && exists)
      (void)ZorvTest::Run(
          {"cp", "--reflink=always", path, volume_.Path(Any() + "/" + std::to_string(Below(40)))});
    else if (kind < 66 && exists)
      (void)ZorvTest::Run({"fallocate", "-p", "-o", Offset(), "-l", "40960", path});
    else if (kind < 72)
      (void)ZorvTest::Run({"fallocate", "-o", Offset(), "-l", "400000", path});
    else if (kind < 76 && exists)
      std::filesystem::resize_file(path, Below(300000));
    else if (kind < 80 && exists)
      std::filesystem::remove(path);
    else if (kind < 82 && exists)
      (void)ZorvTest::Run({kStockBtrfs, "filesystem", "defragment", path});
    else if (kind < 92 && subvolumes_.size() < 20)
      TakeSnapshot();
    else if (kind < 97 && subvolumes_.size() > 2)
      DeleteOne();
    else
      MustRun({"sync", "-f", kMount});
  }

 private:
  unsigned Below(unsigned end) { return static_cast<unsigned>(random_() % end); }
  std::string Any() { return subvolumes_[Below(static_cast<unsigned>(subvolumes_.size()))]; }
  std::string Offset() { return std::to_string(Below(50) * 4096); }

  void TakeSnapshot() {
    const std::string name = "n" + std::to_string(++taken_);
    volume_.Snapshot(Any(), name, /*readOnly=*/false);
    subvolumes_.push_back(name);
  }

  void DeleteOne() {
    const size_t which = Below(static_cast<unsigned>(subvolumes_.size()));
    volume_.DeleteSubvolume(subvolumes_[which]);
    subvolumes_.erase(subvolumes_.begin() + static_cast<long>(which));
  }

  const BtrfsVolume& volume_;
  std::mt19937 random_;
  std::vector<std::string> subvolumes_;
  int taken_ = 0;
};

class ExclusiveSizeRandom : public testing::TestWithParam<unsigned> {};

}  // namespace

TEST_P(ExclusiveSizeRandom, EqualsTheKernel) {
  BtrfsVolume volume(kMount, Options(512, {"-n", GetParam() % 2 == 0 ? "4096" : "16384"}));
  RandomHistory history(volume, GetParam());
  for (int step = 0; step < 400; ++step) history.Step();
  ExpectKernelNumbers(volume, 3);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ExclusiveSizeRandom, testing::Range(1u, 7u));

TEST(ExclusiveSize, EqualsTheKernelOnAnEmptyFileSystem) {
  BtrfsVolume volume(kMount, Options());
  ExpectKernelNumbers(volume, 1);
}

TEST(ExclusiveSize, EqualsTheKernelOnTreesOfThreeLevels) {
  BtrfsVolume volume(kMount, Options(512, {"-n", "4096"}));
  volume.Subvolume("live");
  Shell("cd live; for d in $(seq 1 40); do mkdir d$d; (cd d$d; touch f{1..200}); done");
  for (int n = 1; n <= 4; ++n) {
    volume.Snapshot("live", "snap" + std::to_string(n));
    Shell("cd live/d" + std::to_string(n * 9) +
          "; rm f1*; for f in f2*; do echo changed > $f; done");
  }
  const std::string tree = MustRun(
      {kStockBtrfs, "inspect-internal", "dump-tree", "-t", "256", "--bfs", volume.Device()});
  EXPECT_NE(std::string::npos, tree.find(" level 2 "));
  ExpectKernelNumbers(volume, 6);
}

TEST(ExclusiveSize, EqualsTheKernelWithReflinksInsideASnapshot) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  Write("live/a", 1 << 20, 1);
  Write("live/gone", 1 << 20, 2);
  for (int n = 0; n < 30; ++n) {
    Reflink("live/a", "live/copy" + std::to_string(n));
    Reflink("live/gone", "live/gone" + std::to_string(n), 65536, 131072, 8192);
  }
  MustRun({"sync", "-f", kMount});
  volume.Snapshot("live", "snap1");
  Shell("rm live/gone live/gone?");
  volume.Snapshot("live", "snap2");
  Shell("rm live/gone*");
  ExpectKernelNumbers(volume, 4);
}

TEST(ExclusiveSize, EqualsTheKernelWithReflinksBetweenSubvolumes) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("one");
  volume.Subvolume("two");
  for (unsigned n = 0; n < 20; ++n) {
    const std::string name = std::to_string(n);
    Write("one/" + name, 200000, n);
    Reflink("one/" + name, "two/" + name, 0, n % 2 == 0 ? 0 : 65536);
  }
  volume.Snapshot("one", "snap");
  Shell("rm one/3 one/4 two/5 two/6; rm one/7 two/7");
  ExpectKernelNumbers(volume, 4);
}

TEST(ExclusiveSize, EqualsTheKernelWithPartlyOverwrittenExtents) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  for (unsigned n = 0; n < 10; ++n) Write("live/" + std::to_string(n), 1 << 20, n);
  MustRun({"sync", "-f", kMount});
  for (unsigned round = 1; round <= 4; ++round) {
    volume.Snapshot("live", "snap" + std::to_string(round));
    for (unsigned n = 0; n < 10; ++n) {
      Write("live/" + std::to_string(n), 8192, round * 100 + n, round * 65536);
      MustRun({"sync", "-f", kMount});
      Write("live/" + std::to_string(n), 4096, round * 200 + n, round * 65536 + 4096);
    }
  }
  Shell("truncate -s 300000 live/3; fallocate -p -o 100000 -l 200000 live/4");
  ExpectKernelNumbers(volume, 6);
}

TEST(ExclusiveSize, EqualsTheKernelWithPreallocation) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  Shell("for n in $(seq 1 20); do fallocate -l 3M live/$n; done");
  for (unsigned n = 1; n <= 10; ++n) Write("live/" + std::to_string(n), 65536, n, n * 8192);
  volume.Snapshot("live", "snap1");
  for (unsigned n = 5; n <= 15; ++n) Write("live/" + std::to_string(n), 65536, n, 1 << 20);
  Shell("rm live/19 live/20; fallocate -n -o 3M -l 2M live/18");
  volume.Snapshot("live", "snap2");
  Shell("rm live/1 live/18");
  ExpectKernelNumbers(volume, 4);
}

TEST(ExclusiveSize, EqualsTheKernelWithZstdCompression) {
  BtrfsVolume volume(kMount, Options(256, {}, "compress-force=zstd"));
  volume.Subvolume("live");
  Shell("for n in $(seq 1 40); do seq $n $((n * 5000)) > live/$n; done");
  Write("live/random", 1 << 20, 1);
  for (int round = 1; round <= 3; ++round) {
    volume.Snapshot("live", "snap" + std::to_string(round));
    Shell("for n in $(seq " + std::to_string(round) +
          " 3 40); do seq 1 3000 | dd of=live/$n bs=1k seek=20 conv=notrunc status=none; done");
  }
  ExpectKernelNumbers(volume, 5);
}

TEST(ExclusiveSize, EqualsTheKernelWithInlineFiles) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  for (int round = 1; round <= 4; ++round) {
    Shell("for n in $(seq " + std::to_string(round) + " 3 3000); do echo round " +
          std::to_string(round) + " $n > live/$n; done");
    volume.Snapshot("live", "snap" + std::to_string(round));
  }
  ExpectKernelNumbers(volume, 6);
}

TEST(ExclusiveSize, EqualsTheKernelWithHardLinks) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  WriteFiles("live", 1, 50, 1);
  Shell(
      "mkdir live/links; for n in $(seq 1 50); do ln live/$n live/links/$n;"
      " for k in 1 2 3 4 5; do ln live/$n live/links/$n.$k; done; done");
  volume.Snapshot("live", "snap1");
  Shell("rm live/?; rm live/links/1*; rm live/links/2?.3");
  volume.Snapshot("live", "snap2");
  Shell("rm -r live/links");
  ExpectKernelNumbers(volume, 4);
}

TEST(ExclusiveSize, EqualsTheKernelWithNestedSubvolumes) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  volume.Subvolume("live/inner");
  volume.Subvolume("live/inner/deep");
  for (const char* dir : {"live", "live/inner", "live/inner/deep"}) WriteFiles(dir, 1, 40, 3);
  volume.Snapshot("live", "snap1");
  volume.Snapshot("live/inner", "live/innersnap");
  WriteFiles("live/inner", 10, 20, 4);
  volume.Snapshot("live", "snap2");
  ExpectKernelNumbers(volume, 7);
}

TEST(ExclusiveSize, EqualsTheKernelWithDeletedSnapshotsInTheHistory) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  WriteFiles("live", 1, 200, 1);
  for (unsigned n = 1; n <= 12; ++n) {
    volume.Snapshot("live", "snap" + std::to_string(n));
    WriteFiles("live", n * 11, n * 11 + 12, n + 5);
  }
  for (const char* gone : {"snap1", "snap4", "snap5", "snap6", "snap9", "snap12"})
    volume.DeleteSubvolume(gone);
  ExpectKernelNumbers(volume, 8);
}

TEST(ExclusiveSize, EqualsTheKernelWhenTheOriginalIsDeleted) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 200, 4);
  volume.DeleteSubvolume("live");
  ExpectKernelNumbers(volume, 5);
}

TEST(ExclusiveSize, EqualsTheKernelWithSendAndReceive) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  WriteFiles("live", 1, 150, 1);
  std::filesystem::create_directories(volume.Path("received"));
  volume.Snapshot("live", "snap1");
  Shell("/usr/bin/btrfs -q send snap1 | /usr/bin/btrfs -q receive received");
  for (unsigned n = 2; n <= 5; ++n) {
    WriteFiles("live", n * 9, n * 9 + 15, n);
    const std::string name = "snap" + std::to_string(n);
    volume.Snapshot("live", name);
    Shell("/usr/bin/btrfs -q send -p snap" + std::to_string(n - 1) + " " + name +
          " | /usr/bin/btrfs -q receive received");
  }
  volume.DeleteSubvolume("received/snap2");
  ExpectKernelNumbers(volume, 11);
}

TEST(ExclusiveSize, EqualsTheKernelWithSnapshotsOfSnapshotsWrittenTo) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  WriteFiles("live", 1, 120, 1);
  std::string source = "live";
  for (unsigned n = 1; n <= 6; ++n) {
    const std::string name = "gen" + std::to_string(n);
    volume.Snapshot(source, name, /*readOnly=*/false);
    WriteFiles(name, n * 10, n * 10 + 10, n + 20);
    Write(source + "/own", 50000, n + 40);
    source = name;
  }
  volume.DeleteSubvolume("gen3");
  ExpectKernelNumbers(volume, 7);
}

TEST(ExclusiveSize, EqualsTheKernelAfterABalance) {
  BtrfsVolume volume(kMount, Options(512, {}));
  MakeHistory(volume, 300, 5);
  MustRun({kStockBtrfs, "balance", "start", "--full-balance", kMount});
  ExpectKernelNumbers(volume, 7);
}

// Each extent then carries an item that looks like a reference and is none.
TEST(ExclusiveSize, EqualsTheKernelWithSimpleQuotas) {
  BtrfsVolume volume(kMount, Options());
  ZorvTest::EnableSimpleQuotas(kMount);
  MakeHistory(volume, 200, 4);
  ExpectKernelNumbers(volume, 6);
}

TEST(ExclusiveSize, EqualsTheKernelWithAChangedMetadataUuid) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 100, 3);
  volume.Unmount();
  MustRun({"btrfstune", "-m", volume.Image()});
  volume.Mount();
  ExpectKernelNumbers(volume, 5);
}

TEST(ExclusiveSize, EqualsTheKernelOnAReadOnlyMount) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 100, 3);
  MustRun({"sync", "-f", kMount});
  const Sizes kernel = volume.KernelExclusive();
  MustRun({"mount", "-o", "remount,ro", kMount});
  std::vector<unsigned long long> ids;
  for (const auto& [id, bytes] : kernel) ids.push_back(id);
  EXPECT_EQ(kernel, EngineSizes("-vm", kMount, ids));
}

// By one of its subvolumes, read-only, by a directory of it elsewhere, and below another mount.
TEST(ExclusiveSize, IsTheSameHoweverTheFileSystemIsMounted) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 200, 4);
  MustRun({"sync", "-f", kMount});
  const Sizes kernel = volume.KernelExclusive();
  std::vector<unsigned long long> ids;
  for (const auto& [id, bytes] : kernel) ids.push_back(id);
  const std::string device = volume.Device();
  std::filesystem::create_directories("/tmp/elsewhere");
  const std::vector<std::vector<std::string>> kMounts = {
      {"mount", "-o", "subvol=live", device, "/tmp/elsewhere"},
      {"mount", "-o", "ro,subvol=snap1", device, "/tmp/elsewhere"},
      {"mount", "--bind", volume.Path("live"), "/tmp/elsewhere"},
  };
  for (const bool below : {false, true})
    for (const std::vector<std::string>& mount : kMounts) {
      SCOPED_TRACE(testing::PrintToString(mount) + (below ? " below another" : ""));
      if (below) MustRun({"mount", "-t", "tmpfs", "none", "/tmp/elsewhere"});
      MustRun(mount);
      EXPECT_EQ(kernel, EngineSizes("-vm --verify", "/tmp/elsewhere", ids));
      EXPECT_EQ(kernel, EngineSizes("-vm", kMount, ids));
      MustRun({"umount", "/tmp/elsewhere"});
      if (below) MustRun({"umount", "/tmp/elsewhere"});
    }
}

// Two file systems with one identity, mounted both; what was written since belongs to one of them.
TEST(ExclusiveSize, IsThatOfTheFileSystemThatIsMeantBesideItsCopy) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 200, 4);
  MustRun({"sync", "-f", kMount});
  const Sizes before = volume.KernelExclusive();
  std::vector<unsigned long long> ids;
  for (const auto& [id, bytes] : before) ids.push_back(id);
  std::filesystem::create_directories("/tmp/copy");
  volume.Unmount();
  volume.SaveImages("/tmp/images");
  volume.Mount();
  const CommandResult mounted =
      ZorvTest::Run({"mount", "-o", "loop", "/tmp/images/device1", "/tmp/copy"});
  if (mounted.status != 0) {
    // Before Linux 6.7 one of the two can be mounted; the other is a device that looks the same.
    EXPECT_NE(std::string::npos, mounted.err.find("File exists")) << mounted.err;
  } else {
    EXPECT_EQ(before, EngineSizes("-vm --verify", "/tmp/copy", ids));
  }
  WriteFiles("live", 1, 60, 5);
  MustRun({"sync", "-f", kMount});
  const Sizes now = EngineSizes("-vm --verify", kMount, ids);
  EXPECT_NE(before, now);
  if (mounted.status == 0) {
    EXPECT_EQ(before, EngineSizes("-vm --verify", "/tmp/copy", ids));
    MustRun({"umount", "/tmp/copy"});
  }
  EXPECT_EQ(volume.KernelExclusive(), now);
}

// Without -m there is no number of the kernel's to hold against, but there is what deletion frees.
TEST(ExclusiveSize, DataAloneIsWhatDeletionFrees) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 300, 6);
  const auto dataUsed = [&] {
    MustRun({kStockBtrfs, "subvolume", "sync", kMount});
    MustRun({"sync", "-f", kMount});
    MustRun({"sync", "-f", kMount});
    const std::string text = MustRun({kStockBtrfs, "filesystem", "df", "--raw", kMount});
    unsigned long long total = 0, used = 0;
    EXPECT_EQ(2, sscanf(text.c_str(), "Data, single: total=%llu, used=%llu", &total, &used));
    return used;
  };
  for (const char* name : {"snap2", "written", "snap6", "snap1"}) {
    SCOPED_TRACE(name);
    const unsigned long long id = SubvolumeID(volume.Path(name));
    const unsigned long long before = dataUsed();
    const unsigned long long size = EngineSizes("-v", kMount, {id}).at(id);
    EXPECT_GT(size, 0u);
    volume.DeleteSubvolume(name);
    EXPECT_EQ(before - dataUsed(), size);
  }
}

TEST(ExclusiveSize, TreeBlocksAreCountedOnlyWhenAskedFor) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("one");
  Write("one/file", 1 << 20, 1);
  MustRun({"sync", "-f", kMount});
  const unsigned long long id = SubvolumeID(volume.Path("one"));
  EXPECT_EQ((Sizes{{id, 1 << 20}}), EngineSizes("-v", kMount, {id}));
  EXPECT_EQ((Sizes{{id, (1 << 20) + 16384}}), EngineSizes("-vm", kMount, {id}));
}

TEST(ExclusiveSize, PathsAndIdsGiveTheSameNumbers) {
  BtrfsVolume volume(kMount, Options());
  MakeHistory(volume, 100, 4);
  MustRun({"sync", "-f", kMount});
  std::vector<std::string> args = {"-vm"};
  std::vector<unsigned long long> ids;
  for (const char* name : {"snap4", "live", "snap1", "written"}) {
    args.push_back(volume.Path(name));
    ids.push_back(SubvolumeID(volume.Path(name)));
  }
  const EngineRun run = RunEngine(args);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(run.sizes, EngineSizes("-vm", kMount, ids));

  std::vector<std::string> order;  // that of the arguments
  for (const std::string& line : run.lines)
    if (line.rfind("subvol(", 0) == 0) order.push_back(line.substr(7, line.find(')') - 7));
  std::vector<std::string> expected;
  for (const unsigned long long id : ids) expected.push_back(std::to_string(id));
  EXPECT_EQ(expected, order);
}

// What lies only in memory is committed first, so it is counted.
TEST(ExclusiveSize, CountsASnapshotMadeJustNow) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  Write("live/file", 300000, 1);
  volume.Snapshot("live", "snap");
  Shell("rm live/file");
  const unsigned long long id = SubvolumeID(volume.Path("snap"));
  EXPECT_EQ((Sizes{{id, 303104}}), EngineSizes("-v", kMount, {id}));
}

// The first copy of a leaf is spoilt on the device; the second serves.
TEST(ExclusiveSize, SurvivesADamagedCopyOfABlock) {
  BtrfsVolume volume(kMount, Options(256, {"-m", "dup"}));
  MakeHistory(volume, 100, 3);
  MustRun({"sync", "-f", kMount});
  const Sizes kernel = volume.KernelExclusive();
  const std::string tree =
      MustRun({kStockBtrfs, "inspect-internal", "dump-tree", "-t",
               std::to_string(SubvolumeID(volume.Path("live"))), "--bfs", volume.Device()});
  unsigned long long bytenr = 0;
  ASSERT_EQ(1, sscanf(tree.c_str() + tree.find("node "), "node %llu", &bytenr));
  const std::string places =
      MustRun({"btrfs-map-logical", "-l", std::to_string(bytenr), volume.Image()});
  unsigned long long physical = 0;
  ASSERT_EQ(1, sscanf(places.c_str() + places.find("physical "), "physical %llu", &physical));

  const unsigned long long id = SubvolumeID(volume.Path("live"));
  WriteRandom(volume.Image(), 512, 5, physical + 4096);
  EngineRun run = RunEngine({"-vm", "-r", kMount, std::to_string(id)});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ((Sizes{{id, kernel.at(id)}}), run.sizes);
  EXPECT_EQ("NOTE: the copy of tree block " + std::to_string(bytenr) + " on device 1 at " +
                std::to_string(physical) +
                " cannot be used (its checksum is wrong); another copy was read; run btrfs scrub\n",
            run.err);

  ASSERT_EQ(1, sscanf(places.c_str() + places.rfind("physical "), "physical %llu", &physical));
  WriteRandom(volume.Image(), 512, 5, physical + 4096);
  run = RunEngine({"-vm", "-r", kMount, std::to_string(id)});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(0u, run.err.find("ERROR: tree block " + std::to_string(bytenr) + " (level "));
  EXPECT_NE(std::string::npos,
            run.err.find(") cannot be used: its checksum is wrong; run btrfs scrub\n"));
}

namespace {

// A process that keeps a subvolume changing, with a commit after each change, until it is told.
class Writer {
 public:
  explicit Writer(const std::string& dir) : pid_(fork()) {
    if (pid_ != 0) return;
    for (unsigned round = 0;; ++round) {
      for (unsigned n = 0; n < 20; ++n)
        Write(dir + "/" + std::to_string((round * 13 + n) % 400), 9000, round);
      const UniqueFd fd(open(kMount, O_RDONLY));
      (void)syncfs(fd.Get());
    }
  }
  ~Writer() {
    kill(pid_, SIGKILL);
    (void)WaitForExit(pid_);
  }

 private:
  pid_t pid_;
};

}  // namespace

class ExclusiveSizeBusy : public testing::Test {
 protected:
  ExclusiveSizeBusy() {
    MakeHistory(volume_, 800, 6);
    volume_.Subvolume("busy");
    WriteFiles("busy", 0, 400, 7);
    MustRun({"sync", "-f", kMount});
    args_ = {"-vm"};
    for (const char* name : {"snap1", "snap2", "snap4", "snap5", "snap6", "live", "written"})
      args_.push_back(volume_.Path(name));
    quiet_ = RunEngine(args_);
    EXPECT_EQ(7u, quiet_.sizes.size()) << quiet_.err;
  }

  // With little room for tree blocks, and no wish to use fresh room first, what a commit has freed
  // is soon used again.
  BtrfsVolume volume_{kMount, Options(200, {"-n", "4096", "-m", "single"}, "nossd")};
  std::vector<std::string> args_;
  EngineRun quiet_;
};

// Commits come all the time beside the run; what the snapshots own does not change by it.
TEST_F(ExclusiveSizeBusy, StaysExactWhileOthersAreWrittenTo) {
  const Writer writer("busy");
  const unsigned long long enough = GenerationOf(quiet_) + 60;
  unsigned long long generation = 0;
  for (int round = 0; round < 30 || generation <= enough; ++round) {
    ASSERT_LT(round, 1000) << "the writer does not commit";
    const EngineRun run = RunEngine(args_);
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(quiet_.sizes, run.sizes) << round;
    generation = GenerationOf(run);
  }
}

// The worker, whose reading is slowed, is held in the middle of it until blocks that it still wants
// have been used again by many commits.
TEST_F(ExclusiveSizeBusy, StaysExactWhenCommitsOvertakeIt) {
  constexpr int kEnough = 5;
  constexpr unsigned kCommits = 100;
  const KernelView kernel;
  const SlowDisk slow = SlowDisk::Reading(volume_.Device(), 1 << 20);
  args_.insert(args_.end(), {"--method=scan", "--stats"});
  RandomMoment moment(300'000);
  int held = 0;
  int overtaken = 0;  // such a run takes a further pass
  for (int round = 0; overtaken < kEnough; ++round) {
    ASSERT_LT(round, 200) << held << " were held, " << overtaken << " of them overtaken";
    const useconds_t delay = moment.Next();
    EngineProcess engine(EngineProcess::Whole{slow.Command(EngineCommand(args_))});
    const bool stopped = engine.StopWorker(delay);
    moment.WasMet(stopped);
    if (stopped) {
      ++held;
      const Writer writer("busy");
      const unsigned long long later = kernel.Generation() + kCommits;
      ASSERT_TRUE(WaitUntil([&] { return kernel.Generation() >= later; }, 100))
          << "the writer does not commit";
      engine.ContinueWorker();
    }
    const EngineRun run = engine.Finish();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(quiet_.sizes, run.sizes) << "held after " << delay;
    if (stopped && NumberOf(run, "passes") > 1) ++overtaken;
  }
}

// While the live subvolume leaves its snapshot, what the snapshot alone holds only grows.
TEST(ExclusiveSize, GrowsAsTheLiveSubvolumeMovesAway) {
  BtrfsVolume volume(kMount, Options(512, {}));
  volume.Subvolume("busy");
  WriteFiles("busy", 0, 400, 7);
  volume.Snapshot("busy", "snap");
  const unsigned long long id = SubvolumeID(volume.Path("snap"));
  unsigned long long last = EngineSizes("-vm", kMount, {id}).at(id);
  const unsigned long long first = last;
  {
    const Writer writer("busy");
    for (int run = 0; run < 15 || last == first; ++run) {
      ASSERT_LT(run, 1000) << "the writer does not commit";
      const unsigned long long now = EngineSizes("-vm", kMount, {id}).at(id);
      EXPECT_GE(now, last);
      last = now;
    }
  }
  ExpectKernelNumbers(volume, 3);
  EXPECT_GT(last, first);
}
