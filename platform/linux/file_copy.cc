// The file copy: a whole new file beside the destination, then one rename.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "zorvplatform/share.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/file_copy";

constexpr mode_t kPermissionBits = 0777;
constexpr size_t kChunkBytes = size_t{128} * 1024;

// A new file beside `destination`, removed again unless it takes that place.
class TempFile {
 public:
  explicit TempFile(const std::string& destination)
      : destination_(destination), directory_(destination, 0, destination.rfind('/') + 1) {}
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    const int saved = errno;
    if (fd_.Valid()) (void)unlink(path_.c_str());
    errno = saved;
  }

  // The umask applies.  The name tells a reader of the directory what it is, and is short, because
  // that of the destination may already be as long as names can be.
  bool Create(mode_t mode) {
    for (unsigned int n = 0;; ++n) {
      path_ = directory_ + ".zorvcopy." + std::to_string(getpid()) + "." + std::to_string(n);
      fd_.Reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
      if (fd_.Valid()) return true;
      if (errno != EEXIST) return false;
    }
  }

  int Fd() const { return fd_.Get(); }

  bool TakePlace() {
    if (rename(path_.c_str(), destination_.c_str()) != 0) return false;
    fd_.Reset();
    SyncDirectory();
    return true;
  }

 private:
  // So that a power cut does not take the copy away. The copy is there for every reader by now;
  // that a file system cannot be asked for it is no failure of the copy.
  void SyncDirectory() const {
    const char* const name = directory_.empty() ? "." : directory_.c_str();
    const UniqueFd fd(open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.Valid()) (void)fsync(fd.Get());
  }

  const std::string destination_;
  const std::string directory_;  // with its slash; "" is the working directory
  std::string path_;
  UniqueFd fd_;
};

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool CopyBytes(int from, int to) {
  std::vector<char> chunk(kChunkBytes);
  for (;;) {
    const ssize_t got = read(from, chunk.data(), chunk.size());
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || !WriteAll(to, chunk.data(), static_cast<size_t>(got))) return false;
  }
}

// What a destination that exists keeps: its owner, group and permission bits.
bool KeepAttributes(int fd, const struct stat& old) {
  return fchown(fd, old.st_uid, old.st_gid) == 0 && fchmod(fd, old.st_mode & 07777) == 0;
}

bool OpenSource(const char* path, UniqueFd* fd, struct stat* st) {
  // Not blocking: opening a named pipe would wait for somebody who writes.
  fd->Reset(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd->Valid() || fstat(fd->Get(), st) != 0) return false;
  if (S_ISREG(st->st_mode)) return true;
  errno = S_ISDIR(st->st_mode) ? EISDIR : EINVAL;
  return false;
}

bool Copy(const char* source, const char* destination) {
  UniqueFd from;
  struct stat sourceStat;
  if (!OpenSource(source, &from, &sourceStat)) return false;

  struct stat old;
  const bool replaces = lstat(destination, &old) == 0 && S_ISREG(old.st_mode);

  TempFile temp(destination);
  if (!temp.Create(sourceStat.st_mode & kPermissionBits)) return false;
  if (!CopyBytes(from.Get(), temp.Fd())) return false;
  if (replaces && !KeepAttributes(temp.Fd(), old)) return false;
  return fsync(temp.Fd()) == 0 && temp.TakePlace();
}

}  // namespace

int ZORVFileCopy(const char* source, const char* destination, int flags) {
  if (source == nullptr || destination == nullptr || flags != 0) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    return Copy(source, destination) ? 0 : Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  });
}
