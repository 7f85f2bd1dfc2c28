#include "base/durable.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "base/paths.h"
#include "base/unique_fd.h"

namespace ZorvBtrfsUsage {
namespace {

// Some file systems cannot be asked for it (FUSE, network); what they hold is as safe as they are.
bool CannotBeAsked(int error) { return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP; }

bool Succeeded(int code) { return code == 0 || CannotBeAsked(errno); }

// Whether the file system keeps bytes that have been written out whenever it keeps a name that came
// later: ext4. btrfs does not when somebody syncs the directory, an overlay has no bytes of its own
// to write out, and of others nothing is known: there only a sync of the file helps.
bool WritingOutKeepsOrder(const UniqueFd& fd) {
  struct statfs fs;
  return fstatfs(fd.Get(), &fs) == 0 && fs.f_type == EXT4_SUPER_MAGIC;
}

bool Sync(const UniqueFd& fd) { return fd.Valid() && Succeeded(fsync(fd.Get())); }

}  // namespace

bool IsPersistent(const std::string& path) {
  constexpr size_t kLength = sizeof kPersistentDir - 1;
  return path.compare(0, kLength, kPersistentDir) == 0 &&
         (path.size() == kLength || path[kLength] == '/');
}

bool BringToDisk(const char* name, Durability durability) {
  const UniqueFd fd(open(name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.Valid()) return false;
  if (durability == Durability::kSynced || !WritingOutKeepsOrder(fd)) return Sync(fd);
  // A name goes to the disk by the journal, the bytes by themselves, maybe half a minute later: a
  // file system could bring the name alone over a power cut, to an empty file. Bytes that have been
  // written out come first, and the journal's next flush is theirs as well.
  return Succeeded(
      sync_file_range(fd.Get(), 0, 0, SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER));
}

bool SyncDirectoryOf(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  return Sync(UniqueFd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

}  // namespace ZorvBtrfsUsage
