// Volumes: what stands at /volumeN, and on which of them a path lies.
//
//   fstab            the mount points that should be there
//   ReadVolumes      everything at /volumeN, opened, with what is missing
//   VolumeOfPath     the volume on the path's file system
#include "platform/linux/volume.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/read_file.h"
#include "zorvplatform/share.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/volume";

constexpr char kFstab[] = "/etc/fstab";
constexpr char kVolumeName[] = "volume";

struct MntentCloser {
  void operator()(FILE* file) const { (void)endmntent(file); }
};
struct Freer {
  void operator()(char* text) const { free(text); }
};
using Mntent = std::unique_ptr<FILE, MntentCloser>;
using CString = std::unique_ptr<char, Freer>;

// N of the name "volumeN", or 0.
int NumberOf(const std::string& name) {
  const size_t prefix = strlen(kVolumeName);
  if (name.compare(0, prefix, kVolumeName) != 0) return 0;
  const std::string digits = name.substr(prefix);
  if (digits.empty() || digits.size() > 9 || digits[0] == '0') return 0;
  if (digits.find_first_not_of("0123456789") != std::string::npos) return 0;
  return atoi(digits.c_str());
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// No fstab of a working system is larger.
constexpr size_t kMostFstabBytes = 1 << 20;

// The whole content of fstab.  False: errno says why.
bool ReadFstabText(std::string* text) {
  const UniqueFd fd(open(kFstab, O_RDONLY | O_NOCTTY | O_CLOEXEC));
  return fd.Valid() && ReadToEnd(fd.Get(), kMostFstabBytes, text);
}

// Where fstab mounts file systems, but the root.  No fstab: nowhere.  False: errno says why.
bool ReadFstab(std::vector<std::string>* mountPoints) {
  std::string text;
  if (!ReadFstabText(&text)) return errno == ENOENT;
  if (text.empty()) return true;
  // getmntent_r takes a line with a NUL in it for one that goes on, and leaves the next one out.
  std::replace(text.begin(), text.end(), '\0', '\n');
  const Mntent fstab(fmemopen(text.data(), text.size(), "r"));
  if (fstab == nullptr) return false;

  mntent entry;
  std::string buffer(text.size() + 2, '\0');  // room for any line: a longer one would be cut
  while (getmntent_r(fstab.get(), &entry, buffer.data(), static_cast<int>(buffer.size())) !=
         nullptr) {
    const std::string mountPoint = WithoutTrailingSlashes(entry.mnt_dir);
    if (mountPoint[0] == '/' && mountPoint != "/") mountPoints->push_back(mountPoint);
  }
  return ferror(fstab.get()) == 0;
}

// Whether a file system is mounted at `path`, links followed.
bool IsMountPoint(const std::string& path) {
  struct statx st;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_TYPE, &st) != 0) return false;
  return (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

std::string RealPath(const std::string& path) {
  const CString resolved(realpath(path.c_str(), nullptr));
  return resolved != nullptr ? resolved.get() : std::string();
}

bool LiesAtOrBelow(const std::string& path, const std::string& directory) {
  return path == directory || path.compare(0, directory.size() + 1, directory + "/") == 0;
}

// Whether fstab wants a mount at `target` or above it that is not made: then what stands there is
// the empty directory below the missing mount.
bool WaitsForMount(const std::string& target, const std::vector<std::string>& mountPoints) {
  return std::any_of(mountPoints.begin(), mountPoints.end(), [&](const std::string& mountPoint) {
    if (IsMountPoint(mountPoint)) return false;
    const std::string resolved = RealPath(mountPoint);
    return LiesAtOrBelow(target, resolved.empty() ? mountPoint : resolved);
  });
}

Volume Missing(int number, int error) {
  Volume volume;
  volume.number = number;
  volume.error = error;
  return volume;
}

Volume OpenVolume(int number, const std::vector<std::string>& mountPoints) {
  const std::string path = VolumePath(number);
  const std::string target = RealPath(path);
  if (target.empty()) return Missing(number, errno);
  if (WaitsForMount(target, mountPoints)) return Missing(number, EAGAIN);

  Volume volume;
  volume.number = number;
  volume.root.Reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!volume.root.Valid() || !GetFileSystem(volume.root.Get(), &volume.fileSystem)) {
    return Missing(number, errno);
  }
  return volume;
}

enum class Standing { kVolume, kNone, kUnknown };

// What stands at /volumeN: a link and a mount are volumes, an ordinary directory is none.
Standing StandingAt(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT ? Standing::kNone : Standing::kUnknown;
  }
  if (S_ISLNK(st.st_mode)) return Standing::kVolume;
  return S_ISDIR(st.st_mode) && IsMountPoint(path) ? Standing::kVolume : Standing::kNone;
}

// The numbers of all volumes that are there or that fstab names.
bool ReadNumbers(const std::vector<std::string>& mountPoints, std::set<int>* numbers) {
  const Dir root(opendir("/"));
  std::vector<DirEntry> entries;
  if (root == nullptr || !ReadDir(root.get(), &entries)) return false;

  for (const DirEntry& entry : entries) {
    const int number = NumberOf(entry.name);
    if (number == 0) continue;
    const Standing standing = StandingAt(VolumePath(number));
    if (standing == Standing::kUnknown) return false;
    if (standing == Standing::kVolume) numbers->insert(number);
  }
  for (const std::string& mountPoint : mountPoints) {
    const int number = NumberOf(mountPoint.substr(1));
    if (number != 0) numbers->insert(number);
  }
  return true;
}

// A descriptor on the file system of `path`.  Reading is asked of directories and regular files
// alone: opening anything else may wait, or do something.
UniqueFd OpenOnFileSystem(const char* path) {
  const CString resolved(realpath(path, nullptr));
  if (resolved == nullptr) return UniqueFd();
  struct stat st;
  if (stat(resolved.get(), &st) != 0) return UniqueFd();

  std::string openable = resolved.get();
  if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) openable.resize(openable.rfind('/') + 1);
  return UniqueFd(open(openable.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// The volume on which `path` lies, of several the one of lowest number.  0, or -1 with the error
// record set.
int VolumeOfPath(const char* path, ZORVMOUNTVOLINFO* info) {
  const UniqueFd fd = OpenOnFileSystem(path);
  FileSystem fileSystem;
  std::vector<Volume> volumes;
  if (!fd.Valid() || !GetFileSystem(fd.Get(), &fileSystem) || !ReadVolumes(&volumes)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_VOLUME_PATH);
  }
  const auto volume = std::find_if(volumes.begin(), volumes.end(), [&](const Volume& v) {
    return v.root.Valid() && v.fileSystem == fileSystem;
  });
  if (volume == volumes.end()) {
    errno = ENOENT;
    return Fail(PLATFORM_HERE, PLATC_ERR_VOLUME_PATH);
  }
  *info = {volume->number, fileSystem.btrfs ? ZORV_VOLUME_KIND_BTRFS : ZORV_VOLUME_KIND_OTHER};
  return 0;
}

}  // namespace

namespace ZorvPlatform {

std::string VolumePath(int number) {
  return std::string("/") + kVolumeName + std::to_string(number);
}

std::string WhyOutOfReach(const Volume& volume, int error) {
  const std::string path = VolumePath(volume.number);
  if (volume.root.Valid()) return path + " cannot be read: " + strerror(error);
  if (error == EAGAIN) return path + " is not there: /etc/fstab names its mount, which is not made";
  return path + " is not there: " + strerror(error);
}

bool ReadVolumes(std::vector<Volume>* volumes) {
  std::vector<std::string> mountPoints;
  std::set<int> numbers;
  if (!ReadFstab(&mountPoints) || !ReadNumbers(mountPoints, &numbers)) return false;
  for (const int number : numbers) volumes->push_back(OpenVolume(number, mountPoints));
  return true;
}

bool MountIsAwaited(const std::string& path) {
  std::vector<std::string> mountPoints;
  if (!ReadFstab(&mountPoints)) return true;
  const std::string target = RealPath(path);
  return WaitsForMount(target.empty() ? path : target, mountPoints);
}

}  // namespace ZorvPlatform

int VolumePathParseEx(const char* path, char* volumePath, int size) {
  if (path == nullptr || volumePath == nullptr || size < 1) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    ZORVMOUNTVOLINFO info;
    if (VolumeOfPath(path, &info) < 0) return -1;
    const std::string found = VolumePath(info.volumeNum);
    if (found.size() >= static_cast<size_t>(size)) {
      return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    }
    memcpy(volumePath, found.c_str(), found.size() + 1);
    return 0;
  });
}

int ZORVMountVolInfoGet(const char* volumePath, ZORVMOUNTVOLINFO* info) {
  if (volumePath == nullptr || info == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return VolumeOfPath(volumePath, info); });
}
