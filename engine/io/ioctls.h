// ioctls.h: the requests of btrfs that the engine makes, each an object with its arguments and
// results. Structures and numbers from <linux/btrfs.h>.
#ifndef ENGINE_IO_IOCTLS_H_
#define ENGINE_IO_IOCTLS_H_

#include <errno.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <string.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <string>

namespace ZorvEngine {

// The file system behind a descriptor: its id and the highest number of its devices.
struct FsInfo {
  btrfs_ioctl_fs_info_args args{};

  // 0 or -errno, as for all Run functions here.
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_FS_INFO, &args) < 0 ? -errno : 0; }
  const uint8_t* Fsid() const { return args.fsid; }
  uint64_t MaxDevid() const { return args.max_id; }
};

// One device of a file system; -ENODEV when there is none with this number.
struct DevInfo {
  btrfs_ioctl_dev_info_args args{};

  explicit DevInfo(uint64_t devid) { args.devid = devid; }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_DEV_INFO, &args) < 0 ? -errno : 0; }
  const uint8_t* Uuid() const { return args.uuid; }
  std::string Path() const {
    const char* path = reinterpret_cast<const char*>(args.path);
    return std::string(path, strnlen(path, sizeof args.path));
  }
};

// Starts a commit; the result is the generation that it will have, or the last one when nothing was
// to be written.
struct StartSync {
  __u64 generation = 0;

  int Run(int fd) { return ioctl(fd, BTRFS_IOC_START_SYNC, &generation) < 0 ? -errno : 0; }
  uint64_t Generation() const { return generation; }
};

// The subvolume that a descriptor lies in.
struct ContainingSubvolume {
  btrfs_ioctl_ino_lookup_args args{};

  ContainingSubvolume() { args.objectid = BTRFS_FIRST_FREE_OBJECTID; }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args) < 0 ? -errno : 0; }
  uint64_t RootId() const { return args.treeid; }
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_IOCTLS_H_
