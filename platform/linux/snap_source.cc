// The snapshots of a share, in the three ways in which sources keep them.
#include "platform/linux/snap_source.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/file_system.h"
#include "platform/linux/name_format.h"
#include "platform/linux/safe_path.h"
#include "platform/linux/snapper_info.h"
#include "platform/linux/volume.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/snap_source";

constexpr int kOpenPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int FailSystemCall() { return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL); }

int FailOpening(const Share& share) {
  return FailSaying(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL,
                    share.snapDir + ", the snapshots of share " + share.nameText +
                        ", cannot be opened: " + strerror(errno));
}

// ---- The directory -----------------------------------------------------------------------------

bool OnOneFileSystem(int a, int b) {
  const UniqueFd openA(openat(a, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd openB(openat(b, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileSystem ofA, ofB;
  return openA.Valid() && openB.Valid() && GetFileSystem(openA.Get(), &ofA) &&
         GetFileSystem(openB.Get(), &ofB) && ofA == ofB;
}

// Whether the snapshot directory is what its source has made of it: what snapper says of snapshots
// is believed, and snapper itself uses no directory that is not root's.  0, or -1 with the error
// record set.
int RequireItsSources(const Share& share, int root, int directory) {
  struct stat st;
  if (fstat(directory, &st) != 0) return FailOpening(share);
  if (share.layout == Layout::kSnapper && (st.st_uid != 0 || (st.st_mode & S_IWOTH) != 0)) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                      share.snapDir + ", the snapshots of share " + share.nameText +
                          ", can be changed by others than root");
  }
  if (OnOneFileSystem(root, directory)) return 0;
  return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                    share.snapDir + ", the snapshots of share " + share.nameText +
                        ", is on another file system than " + share.path +
                        "; mount what belongs there");
}

int OpenConfiguredSnapDir(const Share& share, UniqueFd* directory) {
  const UniqueFd root = OpenSafely(AT_FDCWD, share.path);
  if (!root.Valid() || IsSubvolume(root.Get()) != 1) {
    return FailSaying(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL,
                      share.path + ", share " + share.nameText + ", is gone");
  }
  const UniqueFd place = OpenSafely(AT_FDCWD, share.snapDir);
  if (!place.Valid()) return errno == ENOENT ? 0 : FailOpening(share);
  if (RequireItsSources(share, root.Get(), place.Get()) < 0) return -1;
  directory->Reset(openat(place.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory->Valid() ? 1 : FailOpening(share);
}

int OpenSnapDirOnVolume(const Share& share, UniqueFd* directory) {
  const UniqueFd root(open(share.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.Valid()) return FailSystemCall();
  directory->Reset(openat(root.Get(), kVolumeSnapDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory->Valid()) return 1;
  return errno == ENOENT ? 0 : FailSystemCall();
}

// ---- What is in it -----------------------------------------------------------------------------

// Opens an entry that is a subvolume; a link to one is none.  It is opened as a place alone: what
// somebody has mounted there could refuse more.  1, 0, or -1 with errno.
int OpenSubvolume(int directory, const char* name, UniqueFd* subvolume) {
  subvolume->Reset(openat(directory, name, kOpenPlace));
  if (!subvolume->Valid()) {
    return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : -1;
  }
  return IsSubvolume(subvolume->Get());
}

// The ID of the subvolume whose root is the open directory.  0: errno says why.
uint64_t SubvolumeIDOf(int directory) {
  const UniqueFd fd(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  btrfs_ioctl_ino_lookup_args lookup = {};
  lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;
  if (!fd.Valid() || ioctl(fd.Get(), BTRFS_IOC_INO_LOOKUP, &lookup) < 0) return 0;
  return lookup.treeid;
}

Snapshot Named(std::string name, std::string target) {
  Snapshot snapshot;
  snapshot.name = std::move(name);
  snapshot.target = std::move(target);
  snapshot.timed = ReadSnapName(snapshot.name.c_str(), &snapshot.read);
  return snapshot;
}

bool AddSubvolume(const Share&, DIR* dir, const DirEntry& entry, const std::string& path,
                  std::vector<Snapshot>* snapshots) {
  UniqueFd subvolume;
  const int found = OpenSubvolume(dirfd(dir), entry.name.c_str(), &subvolume);
  if (found == 1) snapshots->push_back(Named(entry.name, path + "/" + entry.name));
  return found >= 0;
}

bool AddFormatted(const Share& share, DIR* dir, const DirEntry& entry, const std::string& path,
                  std::vector<Snapshot>* snapshots) {
  time_t time = 0;
  if (!ReadFormattedName(entry.name, share.format, share.localTime, &time)) return true;
  UniqueFd subvolume;
  const int found = OpenSubvolume(dirfd(dir), entry.name.c_str(), &subvolume);
  if (found <= 0) return found == 0;
  const uint64_t id = SubvolumeIDOf(subvolume.Get());
  if (id == 0) return errno == ENOENT;  // deleted meanwhile
  snapshots->push_back(Named(MakeSnapName(time, id), path + "/" + entry.name));
  return true;
}

// A snapshot whose information cannot be read is one all the same: by its number alone.
bool AddOfSnapper(const Share&, DIR* dir, const DirEntry& entry, const std::string& path,
                  std::vector<Snapshot>* snapshots) {
  const uint64_t number = ReadSnapNumber(entry.name.c_str());
  if (number == 0) return true;
  const UniqueFd place(openat(dirfd(dir), entry.name.c_str(), kOpenPlace));
  if (!place.Valid()) return errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  UniqueFd subvolume;
  const int found = OpenSubvolume(place.Get(), kSnapperSubvolume, &subvolume);
  if (found <= 0) return found == 0;
  SnapperInfo info;
  std::string why;
  const bool told = ReadSnapperInfoIn(place.Get(), number, &info, &why);
  snapshots->push_back(Named(told ? MakeSnapName(info.time, number) : entry.name,
                             path + "/" + entry.name + "/" + kSnapperSubvolume));
  return true;
}

// Hands the share's directory of snapshots, each entry that may be a folder, and the directory's
// path to `visit`, until that is false: errno says why.  0, or -1 with the error record set.
template <typename Visit>
int ForEachFolder(const Share& share, const Visit& visit) {
  UniqueFd fd;
  const int there = OpenSnapDir(share, &fd);
  if (there <= 0) return there;
  const std::string path = RealPathOf(fd.Get());
  const Dir dir(fdopendir(fd.Get()));
  if (dir == nullptr) return FailSystemCall();
  (void)fd.Release();
  std::vector<DirEntry> entries;
  if (!ReadDir(dir.get(), &entries)) return FailSystemCall();

  for (const DirEntry& entry : entries) {
    if (entry.type != DT_DIR && entry.type != DT_UNKNOWN) continue;
    if (!visit(dir.get(), entry, path)) return FailSystemCall();
  }
  return 0;
}

using Add = bool (*)(const Share&, DIR*, const DirEntry&, const std::string&,
                     std::vector<Snapshot>*);

Add AdderOf(Layout layout) {
  switch (layout) {
    case Layout::kFormat:
      return AddFormatted;
    case Layout::kSnapper:
      return AddOfSnapper;
    case Layout::kNames:
      break;
  }
  return AddSubvolume;
}

}  // namespace

int OpenSnapDir(const Share& share, UniqueFd* directory) {
  return share.source == ZORV_SHARE_SOURCE_VOLUME ? OpenSnapDirOnVolume(share, directory)
                                                  : OpenConfiguredSnapDir(share, directory);
}

int CountUnfit(const Share& share) {
  int unfit = 0;
  if (share.layout != Layout::kFormat) return 0;
  const int told = ForEachFolder(share, [&](DIR* dir, const DirEntry& entry, const std::string&) {
    time_t time = 0;
    if (ReadFormattedName(entry.name, share.format, share.localTime, &time)) return true;
    UniqueFd subvolume;
    const int found = OpenSubvolume(dirfd(dir), entry.name.c_str(), &subvolume);
    unfit += found == 1 ? 1 : 0;
    return found >= 0;
  });
  return told < 0 ? -1 : unfit;
}

int ReadSnapshots(const Share& share, std::vector<Snapshot>* snapshots) {
  const Add add = AdderOf(share.layout);
  return ForEachFolder(share, [&](DIR* dir, const DirEntry& entry, const std::string& path) {
    return add(share, dir, entry, path, snapshots);
  });
}

}  // namespace ZorvPlatform
