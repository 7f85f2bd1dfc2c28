// Shares: the subvolumes directly below the volumes.
#include "platform/linux/share.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <set>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/directory.h"
#include "platform/linux/error.h"
#include "platform/linux/file_system.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/sz_list.h"
#include "platform/linux/volume.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/share";

// Names that begin otherwise are the system's own directories.
bool ValidName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos && name[0] != '.' && name[0] != '@' &&
         name[0] != '#';
}

enum class Found { kShare, kNone, kError };

// Whether `name` is a share on the volume; for kError errno says why it cannot be told.  A link is
// no share, and neither is what another file system has mounted there, which anybody may do who
// owns a directory here (FUSE); it is not opened, which that one could refuse.
Found Look(const Volume& volume, const std::string& name) {
  const UniqueFd place(
      openat(volume.root.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!place.Valid()) {
    const bool none =
        errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return none ? Found::kNone : Found::kError;
  }
  const int subvolume = IsSubvolume(place.Get());
  if (subvolume <= 0) return subvolume == 0 ? Found::kNone : Found::kError;
  const UniqueFd fd(openat(place.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileSystem fileSystem;
  if (!fd.Valid() || !GetFileSystem(fd.Get(), &fileSystem)) return Found::kError;
  return fileSystem == volume.fileSystem ? Found::kShare : Found::kNone;
}

// Adds the names of the volume's shares.  False: it is not there or cannot be read to its end;
// errno says why.
bool AddSharesOf(const Volume& volume, std::set<std::string>* names) {
  if (!volume.root.Valid()) {
    errno = volume.error;
    return false;
  }
  UniqueFd fd(openat(volume.root.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Dir dir(fd.Valid() ? fdopendir(fd.Get()) : nullptr);
  if (dir == nullptr) return false;
  (void)fd.Release();
  std::vector<DirEntry> entries;
  if (!ReadDir(dir.get(), &entries)) return false;

  for (const DirEntry& entry : entries) {
    if (!ValidName(entry.name)) continue;
    if (entry.type != DT_DIR && entry.type != DT_UNKNOWN) continue;
    const Found found = Look(volume, entry.name);
    if (found == Found::kError) return false;
    if (found == Found::kShare) names->insert(entry.name);
  }
  return true;
}

int EnumShares(PLATSZLIST* list) {
  std::vector<Volume> volumes;
  if (!ReadVolumes(&volumes)) return Fail(PLATFORM_HERE, PLATC_ERR_RETRY);

  std::set<std::string> names;
  for (const Volume& volume : volumes) {
    if (!AddSharesOf(volume, &names)) return Fail(PLATFORM_HERE, PLATC_ERR_RETRY);
  }
  if (AppendAll(PLATFORM_HERE, list, {names.begin(), names.end()}) < 0) return -1;
  return static_cast<int>(names.size());
}

bool ForTheMoment(int error) { return error == EAGAIN || error == EBUSY || error == EINTR; }

ZORVSHARE* NewShare(const Volume& volume, const std::string& name) {
  auto share = std::make_unique<Share>();
  share->nameText = name;
  share->name = share->nameText.data();
  share->source = ZORV_SHARE_SOURCE_VOLUME;
  share->volume = VolumePath(volume.number);
  share->place = share->volume;
  share->path = share->volume + "/" + name;
  share->snapDir = share->path + "/" + kVolumeSnapDir;
  return share.release();
}

// The share on the first volume that has it; only when none has it do the volumes that could not be
// asked decide why not.
int FindShare(const std::string& name, ZORVSHARE** share) {
  if (!ValidName(name)) return Fail(PLATFORM_HERE, PLATC_ERR_NO_SUCH_SHARE);
  std::vector<Volume> volumes;
  if (!ReadVolumes(&volumes)) {
    return Fail(PLATFORM_HERE, ForTheMoment(errno) ? PLATC_ERR_RETRY : PLATC_ERR_SYSTEM_CALL);
  }

  int missingError = 0;
  int error = 0;
  for (const Volume& volume : volumes) {
    if (!volume.root.Valid()) {
      missingError = volume.error;
      continue;
    }
    const Found found = Look(volume, name);
    if (found == Found::kShare) {
      *share = NewShare(volume, name);
      return 0;
    }
    if (found == Found::kError && !ForTheMoment(error)) error = errno;
  }
  errno = missingError != 0 ? missingError : error;
  if (missingError != 0 || ForTheMoment(error)) return Fail(PLATFORM_HERE, PLATC_ERR_RETRY);
  return Fail(PLATFORM_HERE, error != 0 ? PLATC_ERR_SYSTEM_CALL : PLATC_ERR_NO_SUCH_SHARE);
}

}  // namespace

namespace ZorvPlatform {

const Share& ShareOf(const ZORVSHARE* share) { return static_cast<const Share&>(*share); }

}  // namespace ZorvPlatform

int ZORVShareGet(const char* name, struct _tag_ZORVSHARE** share) {
  if (name == nullptr || share == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return FindShare(name, share); });
}

void ZORVShareFree(struct _tag_ZORVSHARE* share) { delete static_cast<Share*>(share); }

int ZORVShareEnum(PLATSZLIST** names, int flags) {
  if (names == nullptr || *names == nullptr || flags != ZORV_SHARE_ENUM_ALL) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] { return EnumShares(*names); });
}

int ZORVShareInfoGet(const struct _tag_ZORVSHARE* share, ZORVSHAREINFO* info) {
  if (share == nullptr || info == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  const Share& known = ShareOf(share);
  *info = {known.source, known.place.c_str(), known.path.c_str(), known.volume.c_str(),
           known.snapDir.c_str()};
  return 0;
}
