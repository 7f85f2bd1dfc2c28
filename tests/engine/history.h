// Real file systems with a history of changes, and the engine's numbers held against the kernel's.
#ifndef TESTS_ENGINE_HISTORY_H_
#define TESTS_ENGINE_HISTORY_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/engine/engine_run.h"

namespace ZorvTest {

inline constexpr char kMount[] = "/volume1";

// Options for a volume whose commits come every second: the kernel's cleaning of deleted
// subvolumes, which tests wait for, begins with a commit.
inline BtrfsOptions Options(int sizeMiB = 256, const std::vector<std::string>& mkfs = {},
                            const std::string& mount = "") {
  return {sizeMiB, mkfs, mount.empty() ? "commit=1" : "commit=1," + mount};
}

inline void Shell(const std::string& script) { MustRun({"bash", "-ec", "cd /volume1\n" + script}); }

// Writes incompressible bytes into a file, without waiting for the disk.
inline void Write(const std::string& path, size_t bytes, unsigned seed, size_t offset = 0) {
  std::mt19937_64 random(seed);
  std::string data(bytes, '\0');
  for (char& byte : data) byte = static_cast<char>(random());
  const UniqueFd fd(open((std::string(kMount) + "/" + path).c_str(), O_WRONLY | O_CREAT, 0644));
  ASSERT_EQ(static_cast<ssize_t>(bytes),
            pwrite(fd.Get(), data.data(), bytes, static_cast<off_t>(offset)))
      << path;
}

// Files <dir>/<first> to <dir>/<last> of mixed sizes, the smallest inline.
inline void WriteFiles(const std::string& dir, unsigned first, unsigned last, unsigned seed) {
  for (unsigned n = first; n <= last; ++n)
    Write(dir + "/" + std::to_string(n), 100 + (n * 7919 + seed * 104729) % 60000, seed * 1000 + n);
}

// Holds the engine's numbers of every subvolume against the kernel's: in both ways of counting, all
// together and each alone.
inline void ExpectKernelNumbers(BtrfsVolume& volume, size_t atLeast) {
  MustRun({"sync", "-f", kMount});
  MustRun({kStockBtrfs, "subvolume", "sync", kMount});
  const Sizes kernel = volume.KernelExclusive();
  ASSERT_GE(kernel.size(), atLeast);
  std::vector<unsigned long long> ids;
  for (const auto& [id, bytes] : kernel) ids.push_back(id);
  EXPECT_EQ(kernel, EngineSizes("-vm --method scan", kMount, ids));
  EXPECT_EQ(kernel, EngineSizes("-vpm --method=walk", kMount, ids));
  EXPECT_EQ(kernel, EngineSizes("-vm --verify --table", kMount, ids));
  for (const auto& [id, bytes] : kernel)
    EXPECT_EQ((Sizes{{id, bytes}}), EngineSizes("-vm --verify", kMount, {id}));
}

// Takes a device away from a volume, which goes on without it.
inline void MountWithout(BtrfsVolume& volume, size_t index) {
  volume.Unmount();
  volume.RemoveDevice(index);
  volume.SetMountOptions("commit=1,degraded");
  volume.Mount();
}

// A live subvolume that changes between its snapshots, one of which is gone, one written to.
inline void MakeHistory(const BtrfsVolume& volume, unsigned files, unsigned snapshots) {
  volume.Subvolume("live");
  WriteFiles("live", 1, files, 1);
  for (unsigned n = 1; n <= snapshots; ++n) {
    volume.Snapshot("live", "snap" + std::to_string(n));
    WriteFiles("live", n * 7, n * 7 + files / 20, n + 1);
    Write("live/" + std::to_string(n), 20000, n + 50, 4096);
  }
  volume.DeleteSubvolume("snap" + std::to_string(snapshots / 2));
  volume.Snapshot("snap" + std::to_string(snapshots), "written", /*readOnly=*/false);
  WriteFiles("written", 1, files / 10, 99);
  MustRun({kStockBtrfs, "subvolume", "sync", kMount});  // until then its neighbours' numbers move
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_HISTORY_H_
