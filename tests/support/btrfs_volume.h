// A real btrfs file system on a loop image, mounted in the private world of a test.
#ifndef TESTS_SUPPORT_BTRFS_VOLUME_H_
#define TESTS_SUPPORT_BTRFS_VOLUME_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ZorvTest {

// The stock program; /sbin/btrfs may be the engine.
inline constexpr char kStockBtrfs[] = "/usr/bin/btrfs";

struct BtrfsOptions {
  int sizeMiB = 256;              // of the sparse image, which lies in memory
  std::vector<std::string> mkfs;  // further arguments of mkfs.btrfs
  std::string mount;              // mount options, such as "compress-force=zstd"
  // One size for each device, in place of sizeMiB: the images are loop devices of the volume's own,
  // so that others can join them.
  std::vector<int> devicesMiB = {};
};

// What the kernel counts as exclusive.
struct KernelSizes {
  std::map<unsigned long long, unsigned long long> exclusive;  // of each subvolume by its ID
  std::vector<unsigned long long> sets;                        // of each set that was asked for
};

// Makes and mounts a file system; unmounts it when it goes.
class BtrfsVolume {
 public:
  explicit BtrfsVolume(const std::string& mountPoint, const BtrfsOptions& options = {});
  ~BtrfsVolume();
  BtrfsVolume(const BtrfsVolume&) = delete;
  BtrfsVolume& operator=(const BtrfsVolume&) = delete;

  const std::string& MountPoint() const { return mountPoint_; }
  const std::string& Image() const { return images_[0]; }

  // The loop device that is mounted, such as /dev/loop3.
  std::string Device() const;

  void Mount();
  void Unmount();

  // The loop devices, in the order of the options and then of AddDevice; only with devicesMiB.
  const std::vector<std::string>& Devices() const { return loops_; }

  // Attaches the devices without mounting; Mount does it too.
  void Attach();

  // Makes a further device and attaches it; it is not part of the file system yet.
  std::string AddDevice(int sizeMiB);

  // Takes a device away, with its image.
  void RemoveDevice(size_t index);

  // Mount options from the next Mount on, the copies of KernelExclusive included.
  void SetMountOptions(const std::string& options) { options_ = options; }

  // <mount point>/<path>
  std::string Path(const std::string& path) const { return mountPoint_ + "/" + path; }

  // Makes a subvolume or a snapshot below the mount point; returns its full path.
  std::string Subvolume(const std::string& path) const;
  std::string Snapshot(const std::string& source, const std::string& path,
                       bool readOnly = true) const;
  void DeleteSubvolume(const std::string& path) const;

  // The kernel's own exclusive bytes of every subvolume by its ID: quotas enabled and rescanned on
  // copies of all images. The volume is unmounted meanwhile and mounted again.
  std::map<unsigned long long, unsigned long long> KernelExclusive();

  // As KernelExclusive, and the same for sets of subvolumes: what each holds together and nobody
  // else does.
  using IdSets = std::vector<std::vector<unsigned long long>>;
  KernelSizes KernelExclusiveOf(const IdSets& sets);

  // A copy of this volume, which is not mounted, to be mounted in its stead at the same place.
  std::unique_ptr<BtrfsVolume> Copy() const;

  // Copies the images of this volume, which is not mounted, into a directory as device1, device2,
  // ...
  void SaveImages(const std::string& directory) const;

 private:
  // A copy of an unmounted volume, not mounted yet.
  BtrfsVolume(const BtrfsVolume& original, const std::string& mountPoint);

  bool HasOwnLoops() const { return !loops_.empty(); }
  void Detach();

  const pid_t owner_ = getpid();
  std::string mountPoint_;
  std::vector<std::string> images_;
  std::vector<std::string> loops_;  // empty strings while detached
  std::string options_;
};

// The subvolume ID of a subvolume's root, as the stock program says it.
unsigned long long SubvolumeID(const std::string& path);

// Writes `bytes` of incompressible content, the same for the same seed, at `offset` of a file.
void WriteRandom(const std::string& path, size_t bytes, unsigned seed, size_t offset = 0);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_BTRFS_VOLUME_H_
