#include "platform/linux/file_system.h"

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cstring>

namespace ZorvPlatform {

namespace {

struct FsInfo {
  btrfs_ioctl_fs_info_args args{};

  bool Run(int fd) { return ioctl(fd, BTRFS_IOC_FS_INFO, &args) == 0; }
};

// 1, 0, or -1 with errno.
int OnBtrfs(int fd) {
  struct statfs fs;
  if (fstatfs(fd, &fs) != 0) return -1;
  // f_type is signed on some machines, the magic never is.
  return static_cast<uint32_t>(fs.f_type) == BTRFS_SUPER_MAGIC ? 1 : 0;
}

}  // namespace

bool GetFileSystem(int fd, FileSystem* fileSystem) {
  const int onBtrfs = OnBtrfs(fd);
  if (onBtrfs < 0) return false;

  FileSystem found;
  found.btrfs = onBtrfs == 1;
  if (found.btrfs) {
    FsInfo info;
    if (!info.Run(fd)) return false;
    memcpy(found.fsid.data(), info.args.fsid, found.fsid.size());
  } else {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    found.device = st.st_dev;
  }
  *fileSystem = found;
  return true;
}

int IsSubvolume(int fd) {
  // First: FUSE answers nothing else to those whom it keeps out.
  const int onBtrfs = OnBtrfs(fd);
  if (onBtrfs <= 0) return onBtrfs;
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  return S_ISDIR(st.st_mode) && st.st_ino == BTRFS_FIRST_FREE_OBJECTID ? 1 : 0;
}

}  // namespace ZorvPlatform
