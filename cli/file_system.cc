#include "cli/file_system.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <fstream>

#include "base/unique_fd.h"

namespace ZorvSnapUsage {
namespace {

// 8-4-4-4-12 digits.
std::string IdText(const unsigned char* bytes) {
  std::string text;
  for (int i = 0; i < BTRFS_FSID_SIZE; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02x}", static_cast<unsigned>(bytes[i]));
  }
  return text;
}

}  // namespace

std::optional<FileSystemState> StateOfFileSystem(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct statfs system;
  if (!fd.Valid() || fstatfs(fd.Get(), &system) != 0 || system.f_type != BTRFS_SUPER_MAGIC)
    return std::nullopt;
  btrfs_ioctl_fs_info_args info{};
  info.flags = BTRFS_FS_INFO_FLAG_GENERATION;
  if (ioctl(fd.Get(), BTRFS_IOC_FS_INFO, &info) != 0 ||
      (info.flags & BTRFS_FS_INFO_FLAG_GENERATION) == 0)
    return std::nullopt;
  return FileSystemState{IdText(info.fsid), info.generation};
}

bool IsOnlyReadFrom(const std::string& path) {
  struct statx status;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0)
    return false;
  const std::string begin = std::to_string(status.stx_mnt_id) + " ";
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);)
    // The options of the file system end the line; those of the mount alone come before them.
    if (line.starts_with(begin)) return (line.substr(line.rfind(' ') + 1) + ",").starts_with("ro,");
  return false;
}

bool HasSubvolume(const std::string& path, unsigned long long subvolumeID) {
  struct btrfs_util_subvolume_info info {};
  return btrfs_util_subvolume_info(path.c_str(), subvolumeID, &info) == BTRFS_UTIL_OK &&
         info.parent_id != 0;  // one that is deleted has no place any more
}

bool IsMounted(const std::string& path) {
  struct statx status {};
  return statx(AT_FDCWD, path.c_str(), 0, 0, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

std::optional<time_t> CreationTime(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  btrfs_ioctl_get_subvol_info_args info{};
  // It may succeed with 1, too.
  if (!fd.Valid() || ioctl(fd.Get(), BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0 || info.otime.sec == 0)
    return std::nullopt;
  return static_cast<time_t>(info.otime.sec);
}

}  // namespace ZorvSnapUsage
