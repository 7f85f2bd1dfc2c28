// Which file system a descriptor is on, and whether it is the root of a btrfs subvolume.
#ifndef PLATFORM_LINUX_FILE_SYSTEM_H
#define PLATFORM_LINUX_FILE_SYSTEM_H

#include <sys/types.h>

#include <array>
#include <cstdint>

namespace ZorvPlatform {

// Identity of a file system, the same however it was reached.  btrfs gives each subvolume a device
// number of its own, so it is told by its fsid; any other by its device number.
struct FileSystem {
  bool btrfs = false;
  std::array<uint8_t, 16> fsid{};
  dev_t device = 0;

  bool operator==(const FileSystem& other) const {
    return btrfs == other.btrfs && fsid == other.fsid && device == other.device;
  }
};

// Of the file system that an open file or directory is on.  False: errno says why.
bool GetFileSystem(int fd, FileSystem* fileSystem);

// Whether a directory is the root of a btrfs subvolume: its inode number is 256, the first free
// object ID of a btrfs tree (linux/btrfs_tree.h).  The descriptor may be one of O_PATH.  1, 0, or
// -1 with errno.
int IsSubvolume(int fd);

}  // namespace ZorvPlatform

#endif
