// A real btrfs file system on a loop image, mounted in the private world of a test.
#ifndef TESTS_SUPPORT_BTRFS_VOLUME_H_
#define TESTS_SUPPORT_BTRFS_VOLUME_H_

#include <map>
#include <string>
#include <vector>

namespace ZorvTest {

// The stock program; /sbin/btrfs may be the engine.
inline constexpr char kStockBtrfs[] = "/usr/bin/btrfs";

struct BtrfsOptions {
  int sizeMiB = 256;              // of the sparse image, which lies in memory
  std::vector<std::string> mkfs;  // further arguments of mkfs.btrfs
  std::string mount;              // mount options, such as "compress-force=zstd"
};

// Makes and mounts a file system; unmounts it when it goes.
class BtrfsVolume {
 public:
  explicit BtrfsVolume(const std::string& mountPoint, const BtrfsOptions& options = {});
  ~BtrfsVolume();
  BtrfsVolume(const BtrfsVolume&) = delete;
  BtrfsVolume& operator=(const BtrfsVolume&) = delete;

  const std::string& MountPoint() const { return mountPoint_; }
  const std::string& Image() const { return image_; }

  // The loop device that is mounted, such as /dev/loop3.
  std::string Device() const;

  void Mount();
  void Unmount();

  // <mount point>/<path>
  std::string Path(const std::string& path) const { return mountPoint_ + "/" + path; }

  // Makes a subvolume or a snapshot below the mount point; returns its full path.
  std::string Subvolume(const std::string& path) const;
  std::string Snapshot(const std::string& source, const std::string& path,
                       bool readOnly = true) const;
  void DeleteSubvolume(const std::string& path) const;

  // The kernel's own exclusive bytes of every subvolume by its ID: quotas enabled and rescanned on
  // a copy of the image. The volume is unmounted meanwhile and mounted again.
  std::map<unsigned long long, unsigned long long> KernelExclusive();

 private:
  std::string mountPoint_;
  std::string image_;
  std::string options_;
};

// The subvolume ID of a subvolume's root, as the stock program says it.
unsigned long long SubvolumeID(const std::string& path);

// Writes `bytes` of incompressible content, the same for the same seed, at `offset` of a file.
void WriteRandom(const std::string& path, size_t bytes, unsigned seed, size_t offset = 0);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_BTRFS_VOLUME_H_
