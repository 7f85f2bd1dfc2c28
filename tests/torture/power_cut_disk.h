// A disk that can lose its power at any moment, with a file system in use on it.
#ifndef TESTS_TORTURE_POWER_CUT_DISK_H_
#define TESTS_TORTURE_POWER_CUT_DISK_H_

#include <functional>
#include <string>

namespace ZorvTest {

// How a file system comes to be on the disk.
struct DiskOptions {
  std::string type;     // of mkfs and mount
  int sizeMiB;          // of the disk
  std::string options;  // of the mount
  // Whether what is in use is the upper layer of an overlay, as in a container.
  bool overlay = false;
};

// A moment in time of a disk: between two readings of the monotonic clock, in nanoseconds.
struct Cut {
  std::string image;
  long long begin;
  long long end;
};

long long Nanoseconds();

// A file system of this program's own that can clone files, on an image in the build directory:
// what the sandbox writes elsewhere lies in memory. At most one at a time.
class CloneStore {
 public:
  CloneStore();
  ~CloneStore();
  CloneStore(const CloneStore&) = delete;
  CloneStore& operator=(const CloneStore&) = delete;

  // The path of a file in it.
  std::string Path(const std::string& name) const;
};

// A disk is one file of the store under a loop device; a file system is on it, mounted at a place.
// What the file system has not sent to its device is in memory, and a clone of the file does not
// have it: a clone is what a machine finds that lost its power.
class PowerCutDisk {
 public:
  PowerCutDisk(const CloneStore& store, const std::string& mountPoint, const DiskOptions& options);
  ~PowerCutDisk();
  PowerCutDisk(const PowerCutDisk&) = delete;
  PowerCutDisk& operator=(const PowerCutDisk&) = delete;

  // Takes the power away, for a clone.
  Cut TakeCut();

  // The end of the work on the disk; clones can be looked at from here on, one at a time.
  void Unmount();

  // Mounts a clone in place of the disk, which repairs it as after a power cut, lets `look` see it,
  // and throws the clone away.
  void LookAt(const Cut& cut, const std::function<void()>& look);

 private:
  void Mount(const std::string& image);
  void MountOverlay();
  const std::string& OwnMountPoint() const;

  const CloneStore& store_;
  const std::string mountPoint_;
  const DiskOptions options_;
  const std::string image_;
  bool mounted_ = false;
  int cuts_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_POWER_CUT_DISK_H_
