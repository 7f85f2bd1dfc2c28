// Snapshots of a share: the subvolumes in its snapshot directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/file_system.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/selector.h"
#include "platform/linux/share.h"
#include "platform/linux/snap_name.h"
#include "platform/linux/sz_list.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/snapshot";

struct Snapshot {
  std::string name;
  bool timed;
  SnapName read;
};

bool Before(const Snapshot& a, const Snapshot& b) {
  if (a.timed != b.timed) return a.timed;
  if (a.timed && a.read.time != b.read.time) return a.read.time < b.read.time;
  if (a.timed && a.read.number != b.read.number) return a.read.number < b.read.number;
  return a.name < b.name;
}

// Whether the entry is a subvolume; a link to one is none.  It is not opened: what somebody has
// mounted there could refuse it.  1, 0, or -1 with errno.
int IsSnapshot(DIR* dir, const DirEntry& entry) {
  if (entry.type != DT_DIR && entry.type != DT_UNKNOWN) return 0;
  const UniqueFd fd(
      openat(dirfd(dir), entry.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.Valid()) return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : -1;
  return IsSubvolume(fd.Get());
}

// The entries of the share's snapshot directory; none when it has no such directory.  A share that
// is itself gone, or whose volume is, is an error and not a share without snapshots.
bool ReadSnapDir(const ZORVSHARE* share, Dir* dir, std::vector<DirEntry>* entries) {
  const UniqueFd root(open(ShareOf(share).path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.Valid()) return false;
  UniqueFd fd(openat(root.Get(), kVolumeSnapDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.Valid()) return errno == ENOENT;
  dir->reset(fdopendir(fd.Get()));
  if (*dir == nullptr) return false;
  (void)fd.Release();
  return ReadDir(dir->get(), entries);
}

// Adds what passes the selectors.  0, or -1 with the error record set.
int ReadSnapshots(const ZORVSHARE* share, const ZORVSHARESNAPSELECTOR* selectors,
                  std::vector<Snapshot>* snapshots) {
  Dir dir;
  std::vector<DirEntry> entries;
  if (!ReadSnapDir(share, &dir, &entries)) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  for (const DirEntry& entry : entries) {
    const int isSnapshot = IsSnapshot(dir.get(), entry);
    if (isSnapshot < 0) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
    if (isSnapshot == 0) continue;
    const int selected = PassesAll(selectors, entry.name.c_str());
    if (selected < 0) return -1;
    if (selected == 0) continue;
    Snapshot snapshot{entry.name, false, {}};
    snapshot.timed = ReadSnapName(entry.name.c_str(), &snapshot.read);
    snapshots->push_back(std::move(snapshot));
  }
  return 0;
}

int ListSnapshots(const ZORVSHARE* share, PLATSZLIST* list,
                  const ZORVSHARESNAPSELECTOR* selectors) {
  std::vector<Snapshot> snapshots;
  if (ReadSnapshots(share, selectors, &snapshots) < 0) return -1;
  std::sort(snapshots.begin(), snapshots.end(), Before);

  std::vector<std::string> names;
  for (Snapshot& snapshot : snapshots) names.push_back(std::move(snapshot.name));
  return AppendAll(PLATFORM_HERE, list, names);
}

int GetOrCreateSnapDir(const ZORVSHARE* share, char* dir, size_t size, bool create) {
  const std::string& path = ShareOf(share).snapDir;
  if (path.size() >= size) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  if (create && mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  }
  memcpy(dir, path.c_str(), path.size() + 1);
  return 1;
}

}  // namespace

int ZORVShareSnapList(const struct _tag_ZORVSHARE* share, PLATSZLIST** names,
                      const ZORVSHARESNAPSELECTOR* selectors) {
  if (share == nullptr || names == nullptr || *names == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return ListSnapshots(share, *names, selectors); });
}

int ZORVShareSnapGetOrCreateSnapDir(const struct _tag_ZORVSHARE* share, char* dir, int size,
                                    int flags) {
  if (share == nullptr || dir == nullptr || size < 1 ||
      (flags != ZORV_SNAP_DIR_GET && flags != ZORV_SNAP_DIR_CREATE)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    return GetOrCreateSnapDir(share, dir, static_cast<size_t>(size), flags == ZORV_SNAP_DIR_CREATE);
  });
}

int ZORVShareSnapTimeGet(const char* snapName, time_t* time) {
  SnapName name;
  if (snapName == nullptr || time == nullptr || !ReadSnapName(snapName, &name)) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  *time = name.time;
  return 0;
}
