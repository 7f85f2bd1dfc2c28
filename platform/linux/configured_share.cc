#include "platform/linux/configured_share.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/error.h"
#include "platform/linux/file_system.h"
#include "platform/linux/safe_path.h"
#include "platform/linux/volume.h"
#include "zorvplatform/platc.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/configured_share";

// "/etc/samba/smb.conf: /srv/photos, the path of share photos,"
std::string Subject(const ConfiguredShare& share) {
  return share.place + ": " + share.path + ", the path of share " + share.name + ",";
}

// Says why the path could not be opened.
int FailOpening(const ConfiguredShare& share) {
  const int error = errno;
  const bool missing = error == ENOENT || error == ENOTDIR;
  const bool awaited = missing && MountIsAwaited(share.path);
  errno = error;
  if (awaited || ForTheMoment(error)) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_RETRY, Subject(share) + " is not mounted");
  }
  if (missing) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                      Subject(share) + " is not a directory that is there");
  }
  if (error == ELOOP) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                      Subject(share) + " leads through a link that is not root's");
  }
  return FailSaying(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL,
                    Subject(share) + " cannot be opened: " + strerror(error));
}

// Opens the root of the share's subvolume.  Invalid: the error record is set.
UniqueFd OpenSubvolume(const ConfiguredShare& share) {
  UniqueFd fd = OpenSafely(AT_FDCWD, share.path);
  if (!fd.Valid()) {
    (void)FailOpening(share);
    return UniqueFd();
  }
  const int subvolume = IsSubvolume(fd.Get());
  if (subvolume == 1) return fd;
  if (subvolume < 0) {
    (void)FailOpening(share);
  } else if (MountIsAwaited(share.path)) {
    errno = EAGAIN;
    (void)FailSaying(PLATFORM_HERE, PLATC_ERR_RETRY, Subject(share) + " is not mounted");
  } else {
    (void)FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                     Subject(share) + " is no btrfs subvolume");
  }
  return UniqueFd();
}

bool IsMountRoot(const std::string& path) {
  struct statx st;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_TYPE, &st) != 0) return false;
  return (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Where the file system of a path without links is mounted.
std::string MountPointOf(std::string path) {
  while (path != "/" && !IsMountRoot(path)) path.erase(std::max<size_t>(path.rfind('/'), 1));
  return path;
}

// The lowest number that no volume has.
int FreeNumber(const std::vector<Volume>& volumes) {
  int number = 1;
  for (const Volume& volume : volumes) number += volume.number == number ? 1 : 0;
  return number;
}

// Finds the volume on the file system of the open directory at `path`.  0, or -1 with the error
// record set.
int FindVolume(const ConfiguredShare& share, int fd, const std::string& path,
               std::string* volumePath) {
  const UniqueFd root(openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileSystem fileSystem;
  std::vector<Volume> volumes;
  if (!root.Valid() || !GetFileSystem(root.Get(), &fileSystem)) return FailOpening(share);
  if (!ReadVolumes(&volumes)) {
    return Fail(PLATFORM_HERE, CodeOfRefusal(errno));
  }
  const Volume* missing = nullptr;
  for (const Volume& volume : volumes) {
    if (!volume.root.Valid()) {
      missing = &volume;
    } else if (volume.fileSystem == fileSystem) {
      *volumePath = VolumePath(volume.number);
      return 0;
    }
  }
  if (missing != nullptr) {
    errno = missing->error;
    return FailSaying(PLATFORM_HERE, PLATC_ERR_RETRY,
                      Subject(share) + " lies on no volume that is there, and " +
                          VolumePath(missing->number) + " is not");
  }
  errno = ENOENT;
  return FailSaying(PLATFORM_HERE, PLATC_ERR_VOLUME_PATH,
                    Subject(share) +
                        " lies on a file system that is no volume; make it one: ln -s " +
                        MountPointOf(path) + " " + VolumePath(FreeNumber(volumes)));
}

}  // namespace

bool IsNoSubvolume(const ConfiguredShare& share) {
  const UniqueFd fd = OpenSafely(AT_FDCWD, share.path);
  const bool none = fd.Valid() ? IsSubvolume(fd.Get()) == 0 : errno == ENOTDIR;
  return none && !MountIsAwaited(share.path);
}

int Locate(const ConfiguredShare& share, Location* location) {
  const UniqueFd fd = OpenSubvolume(share);
  if (!fd.Valid()) return -1;
  struct stat st;
  Location found;
  found.path = RealPathOf(fd.Get());
  if (found.path.empty() || fstat(fd.Get(), &st) != 0) return FailOpening(share);
  found.subvolume = st.st_dev;
  if (FindVolume(share, fd.Get(), found.path, &found.volume) < 0) return -1;

  const UniqueFd snapDir = OpenSafely(fd.Get(), share.snapDir);
  if (snapDir.Valid()) found.snapDir = RealPathOf(snapDir.Get());
  if (found.snapDir.empty()) found.snapDir = PathBelow(found.path, share.snapDir);
  *location = std::move(found);
  return 0;
}

}  // namespace ZorvPlatform
