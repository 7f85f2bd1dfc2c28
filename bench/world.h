// The world that measurements run in: the private world of the tests, with the library's persistent
// files and the images of volumes on a disk, and a reader at /dev/log as on every real system.
#ifndef BENCH_WORLD_H_
#define BENCH_WORLD_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/sz_list.h"
#include "tests/support/btrfs_volume.h"

namespace ZorvBench {

// Runs `body` in it and returns its exit status; needs root. A folder of its own below `disk`,
// which must not lie in memory, holds /usr/local and /tmp meanwhile. An exception of `body` is
// printed and is 1; 125: the world could not be made, the reason is on standard error.
int RunInWorld(const std::string& disk, const std::function<int()>& body);

// Puts a program at /sbin/btrfs.
void InstallEngine(const std::string& program);

// Throws unless `done`.
void MustBe(bool done, const char* what);

// ---- The share-to-task map ----------------------------------------------------------------------

// The shares of a map, and the tasks that serve them.
std::string ShareOf(int number);
std::string TaskOf(int number);

// Makes the map hold that many shares, each with 30 snapshots and a task that is a moment old.
void PutMap(int shares);

// ---- Calculations -------------------------------------------------------------------------------

// A share with snapshots on /volume1.
class SnapshotShare {
 public:
  // `files` files of 1 to 16 KiB, of which one in a hundred is rewritten before each snapshot but
  // the first.
  SnapshotShare(const std::string& name, int files, int snapshots);

  const std::string& Name() const { return name_; }
  const std::vector<std::string>& Paths() const { return paths_; }

 private:
  void WriteFileOf(int file, int day) const;

  const std::string name_;
  ZorvTest::BtrfsVolume volume_;
  std::vector<std::string> paths_;
};

// The paths as the library takes them.
ZorvBtrfsUsage::SzList ListOf(const std::vector<std::string>& texts);

// Creates the share's task and launches it over all of its snapshots. Throws when either fails.
void Launch(const SnapshotShare& share);

// Waits for the calculator that was launched last. Throws when it has not ended well.
void AwaitCalculator();

}  // namespace ZorvBench

#endif  // BENCH_WORLD_H_
