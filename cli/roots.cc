#include "cli/roots.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include <optional>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "cli/failure.h"
#include "cli/text.h"
#include "cli/untrusted.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

constexpr mode_t kRootOnly = 0700;
constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

// The directories above the roots.
constexpr const char* kAbove[] = {"/", "/run", "/run/lock", "/usr", "/usr/local"};

constexpr const char* kVolatileRoots[] = {kRunDir, kLockDir};

constexpr const char* kFixedDirs[] = {
    kTaskStatusDir,    kTaskResultDir,          kTaskStatusLockDir,  kTaskResultLockDir,
    kShareTaskLockDir, kShareTaskStatusLockDir, kShareTaskStatusDir, kShareTaskResultDir};

Failure CannotBe(const std::string& path, const char* done) {
  return Failure(kSystemFailure, fmt::format("{} cannot be {} ({})", path, done, strerror(errno)),
                 "see to the directory and to the file system that holds it");
}

// An open directory. Nothing: it is not there.
std::optional<UniqueFd> OpenDirectory(const std::string& path, int links) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | links));
  if (fd.Valid()) return fd;
  if (errno == ENOENT) return std::nullopt;
  const int error = errno;
  struct stat other;
  if (lstat(path.c_str(), &other) == 0 && !S_ISDIR(other.st_mode))
    throw Untrusted(path, IsA(other), kLookAndRemove);
  errno = error;
  throw CannotBe(path, "opened");
}

struct stat StatusOf(const UniqueFd& fd, const std::string& path) {
  struct stat status;
  if (fstat(fd.Get(), &status) != 0) throw CannotBe(path, "looked at");
  return status;
}

// A directory above a root: whoever may exchange entries of it could put another root in place.
// Writable by its group is the system's decision: that group is trusted with /usr/local.
void RequireSafeAbove(const std::string& path) {
  const std::optional<UniqueFd> fd = OpenDirectory(path, /*links=*/0);
  if (!fd) {
    errno = ENOENT;
    throw CannotBe(path, "opened");
  }
  const struct stat status = StatusOf(*fd, path);
  RequireOwnedByRoot(path, status);
  if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0)
    throw Untrusted(path, "can be changed by everybody", "set its mode: chmod o-w " + path);
}

void RequireRootOnly(const UniqueFd& fd, const std::string& path) {
  const struct stat status = StatusOf(fd, path);
  RequireOwnedByRoot(path, status);
  if ((status.st_mode & kOthersMayWrite) != 0)
    throw Untrusted(path,
                    fmt::format("can be written by others (mode {:04o})", status.st_mode & 07777),
                    fmt::format("look at what is in it, then: chmod go-w {}", ShellWord(path)));
}

UniqueFd MakeOrOpen(const std::string& path) {
  std::optional<UniqueFd> fd = OpenDirectory(path, O_NOFOLLOW);
  if (fd) return std::move(*fd);
  if (mkdir(path.c_str(), kRootOnly) != 0 && errno != EEXIST) throw CannotBe(path, "made");
  fd = OpenDirectory(path, O_NOFOLLOW);
  if (fd) return std::move(*fd);
  errno = ENOENT;
  throw CannotBe(path, "opened");
}

// A caller of the library that came first has left it open to all.
void CloseToOthers(const UniqueFd& fd, const std::string& path) {
  const struct stat status = StatusOf(fd, path);
  if ((status.st_mode & 07777 & ~kRootOnly) == 0) return;
  if (fchmod(fd.Get(), kRootOnly) != 0) throw CannotBe(path, "closed to others");
  syslog(LOG_NOTICE, "%s is accessible to root alone now, its mode was %04o", path.c_str(),
         static_cast<unsigned>(status.st_mode & 07777));
}

}  // namespace

void RequireSafeRoots() {
  for (const char* path : kAbove) RequireSafeAbove(path);
  for (const char* path : kVolatileRoots) {
    const UniqueFd fd = MakeOrOpen(path);
    RequireRootOnly(fd, path);
    CloseToOthers(fd, path);
  }
  RequireRootOnly(MakeOrOpen(kPersistentDir), kPersistentDir);
  for (const char* path : kFixedDirs) RequireRootOnly(MakeOrOpen(path), path);
}

void RequireSafeDirectory(const std::string& path) {
  if (const std::optional<UniqueFd> fd = OpenDirectory(path, O_NOFOLLOW))
    RequireRootOnly(*fd, path);
}

}  // namespace ZorvSnapUsage
