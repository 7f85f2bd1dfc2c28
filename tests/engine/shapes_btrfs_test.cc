// Single shapes that file systems take, each made on purpose, against the kernel's numbers.
#include <endian.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "tests/engine/forecast_run.h"
#include "tests/engine/history.h"
#include "tests/engine/tree_shapes.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

using Ids = std::vector<unsigned long long>;

// The highest number of references that one data extent has.
uint64_t MostReferences() {
  uint64_t most = 0;
  ForEachItem(kMount, BTRFS_EXTENT_TREE_OBJECTID, [&](const TreeItem& item) {
    if (item.type != BTRFS_EXTENT_ITEM_KEY) return;
    uint64_t refs = 0;
    memcpy(&refs, item.data, sizeof refs);
    most = std::max(most, le64toh(refs));
  });
  return most;
}

// Snapshots <prefix>1 to <prefix><count> of "live"; returns their IDs.
Ids TakeSnapshots(const BtrfsVolume& volume, unsigned count) {
  Ids ids;
  for (unsigned n = 1; n <= count; ++n) {
    const std::string path = volume.Path("snap" + std::to_string(n));
    CreateSnapshot(volume.Path("live"), path, /*readOnly=*/true);
    ids.push_back(RootId(path));
  }
  return ids;
}

}  // namespace

TEST(ExclusiveSizeShape, AnExtentOfManyReferences) {
  BtrfsVolume volume(kMount, Options(1024));
  volume.Subvolume("live");
  const std::string file = volume.Path("live/file");
  WriteRandom(file, 4096, 1);
  for (uint64_t bytes = 4096; bytes < uint64_t{4096} << 17; bytes *= 2)
    CloneRange({file, 0, bytes}, file, bytes);
  TakeSnapshots(volume, 2);
  Write("live/file", 4096, 2, 40960);
  volume.Snapshot("live", "late");
  Commit(kMount);
  EXPECT_GT(MostReferences(), 100000u);
  ExpectKernelNumbers(volume, 5);
}

TEST(ExclusiveSizeShape, AnExtentThatFiveHundredSnapshotsShare) {
  BtrfsVolume volume(kMount, Options(1024, {"-n", "4096"}));
  volume.Subvolume("live");
  Write("live/everywhere", 1 << 20, 1);
  WriteFiles("live", 1, 50, 1);
  Ids ids = TakeSnapshots(volume, 500);
  CommitAndClean(kMount);
  const Sizes kernel = volume.KernelExclusive();
  Ids all;
  for (const auto& [id, bytes] : kernel) all.push_back(id);
  ASSERT_EQ(502u, all.size());
  EXPECT_EQ(kernel, EngineSizes("-vm --method scan", kMount, all));
  EXPECT_EQ(kernel, EngineSizes("-vm --method walk", kMount, all));

  // It is nobody's alone, and comes free with the last of those that have it.
  ids.push_back(RootId(volume.Path("live")));
  std::reverse(ids.begin(), ids.end());
  const EngineRun run = RunEngine({"--verify", "--forecast", Joined(ids), "-r", kMount});
  const std::vector<ForecastStep> steps = StepsOf(run);
  ASSERT_EQ(501u, steps.size()) << run.err;
  for (size_t n = 0; n < 500; ++n) EXPECT_EQ(0u, steps[n].data) << n;
  EXPECT_GT(steps[500].data, 1u << 20);
}

TEST(ExclusiveSizeShape, RootNodesThatAreLeaves) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("empty");
  volume.Subvolume("live");
  Write("live/file", 300000, 1);
  Write("live/inline", 500, 2);
  volume.Snapshot("live", "snap1");
  Write("live/file", 8192, 3, 4096);
  volume.Snapshot("live", "snap2");
  volume.Snapshot("empty", "snap3");
  CommitAndClean(kMount);
  EXPECT_EQ(6u, ReadExtentTree(kMount).fileTreeBlocks);  // one for each, nothing below
  ExpectKernelNumbers(volume, 6);
}

TEST(ExclusiveSizeShape, SnapshotsWrittenToBetweenTwoTimesReadOnly) {
  BtrfsVolume volume(kMount, Options(256, {"-n", "4096"}));
  volume.Subvolume("live");
  WriteFiles("live", 1, 100, 1);
  TakeSnapshots(volume, 5);
  for (unsigned n = 1; n <= 5; n += 2) {
    const std::string name = "snap" + std::to_string(n);
    SetReadOnly(volume.Path(name), false);
    WriteFiles(name, n * 10, n * 10 + 8, n + 30);
    SetReadOnly(volume.Path(name), true);
    Commit(kMount);
    CreateSnapshot(volume.Path(name), volume.Path("of-" + name), /*readOnly=*/true);
  }
  ExpectKernelNumbers(volume, 10);
}

TEST(ExclusiveSizeShape, FilesDeduplicatedInsideAndAcrossSnapshots) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  volume.Subvolume("other");
  constexpr size_t kBytes = 400 << 10;
  for (const char* name : {"live/one", "live/two", "other/three", "other/four"})
    Write(name, kBytes, 7);
  volume.Snapshot("live", "before");
  Commit(kMount);
  const std::string source = volume.Path("live/one");
  EXPECT_EQ(kBytes, DedupeRange({source, 0, kBytes}, volume.Path("live/two"), 0));
  EXPECT_EQ(kBytes / 2, DedupeRange({source, 0, kBytes / 2}, volume.Path("other/three"), 0));
  volume.Snapshot("live", "after");
  EXPECT_EQ(kBytes, DedupeRange({source, 0, kBytes}, volume.Path("other/four"), 0));
  ExpectKernelNumbers(volume, 5);
}

TEST(ExclusiveSizeShape, TheTopLevelAndWhatIsWrittenToAsArguments) {
  BtrfsVolume volume(kMount, Options());
  volume.Subvolume("live");
  WriteFiles("live", 1, 60, 1);
  WriteRandom(volume.Path("at-the-top"), 500000, 2);
  CreateSnapshot(kMount, volume.Path("of-the-top"), /*readOnly=*/false);
  WriteRandom(volume.Path("at-the-top"), 50000, 3);
  WriteRandom(volume.Path("of-the-top/more"), 70000, 4);
  volume.Snapshot("live", "snap");
  WriteFiles("live", 20, 25, 5);
  ExpectKernelNumbers(volume, 4);
  // By path as well, the mount point being the top level.
  const EngineRun run = RunEngine({"-vm", kMount, volume.Path("live")});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(EngineSizes("-vm", kMount, {5, RootId(volume.Path("live"))}), run.sizes);
}

// What a deleted subvolume shares is its own until the kernel has cleaned it up.
TEST(ExclusiveSizeShape, ASubvolumeThatIsBeingCleanedUp) {
  // Commits by themselves, with which cleaning begins, are far away; and while the file system is
  // read-only nothing is cleaned.
  BtrfsVolume volume(kMount, {256, {}, "commit=300"});
  volume.Subvolume("live");
  WriteFiles("live", 1, 100, 1);
  Ids ids = TakeSnapshots(volume, 3);
  for (unsigned n = 1; n <= 100; ++n) unlink(volume.Path("live/" + std::to_string(n)).c_str());
  const Ids others = {ids[0], ids[2]};
  const Sizes before = EngineSizes("-vm", kMount, others);
  DestroySubvolume(volume.Path("snap2"));
  MustRun({"mount", "-o", "remount,ro", kMount});

  std::vector<std::string> args = {"-vm", "-r", kMount};
  for (const unsigned long long id : others) args.push_back(std::to_string(id));
  for (const char* method : {"scan", "walk"}) {
    std::vector<std::string> with = args;
    with.insert(with.begin(), {"--method", method});
    const EngineRun run = RunEngine(with);
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(before, run.sizes) << method;
    EXPECT_NE(std::string::npos, run.err.find("NOTE: a subvolume is being deleted")) << run.err;
  }
  const std::string gone = std::to_string(ids[1]);
  ExpectFailure(RunEngine({"-vm", "-r", kMount, gone}),
                "subvolume " + gone + " is being deleted; wait with btrfs subvolume sync",
                "subvolume # is being deleted; wait with btrfs subvolume sync");

  MustRun({"mount", "-o", "remount,rw", kMount});
  CommitAndClean(kMount);
  EXPECT_EQ(volume.KernelExclusive(),
            EngineSizes("-vm", kMount, {5, ids[0], ids[2], RootId(volume.Path("live"))}));
}

TEST(ExclusiveSizeShape, TenThousandSubvolumes) {
  BtrfsVolume volume(kMount, Options(2048, {"-n", "4096"}));
  volume.Subvolume("live");
  WriteFiles("live", 1, 10, 1);
  Ids ids = TakeSnapshots(volume, 9998);
  ids.push_back(RootId(volume.Path("live")));
  ids.push_back(5);
  CommitAndClean(kMount);
  const Sizes kernel = volume.KernelExclusive();
  ASSERT_EQ(10000u, kernel.size());
  EXPECT_EQ(kernel, EngineSizes("-vm", kMount, ids));
}

// Twenty digits are the most that an ID of 64 bits has; zeros before them are no further digits.
TEST(ExclusiveSizeShape, IdsWithManyDigits) {
  BtrfsVolume volume(kMount, Options());
  const unsigned long long id = SubvolumeID(volume.Subvolume("one"));
  Write("one/file", 20000, 1);
  const Sizes sizes = EngineSizes("-vm", kMount, {id});
  const std::string padded = std::string(20 - std::to_string(id).size(), '0') + std::to_string(id);
  for (const std::string& text : {padded, "0" + padded, std::string(300, '0') + padded}) {
    const EngineRun run = RunEngine({"-vm", "-r", kMount, text});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(sizes, run.sizes) << text;
  }
  // The same one in two spellings counts once.
  const EngineRun run = RunEngine({"-vm", "-r", kMount, padded, std::to_string(id)});
  EXPECT_EQ(sizes, run.sizes);
  EXPECT_NE(std::string::npos, run.err.find("is given more than once")) << run.err;
}
