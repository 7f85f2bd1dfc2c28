#include "cli/roots.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "cli/failure.h"
#include "cli/text.h"
#include "cli/untrusted.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

constexpr mode_t kRootOnly = 0700;
constexpr mode_t kRootWrites = 0755;
constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

// What the roots lie in.
constexpr char kAboveRun[] = "/run";
constexpr char kAboveLocks[] = "/run/lock";
constexpr char kAbovePersistent[] = "/usr/local";
constexpr char kAboveCache[] = "/var/cache";

// As many as the kernel follows in one path.
constexpr int kMostLinks = 40;

constexpr const char* kVolatileRoots[] = {kRunDir, kLockDir};

constexpr const char* kFixedDirs[] = {
    kTaskStatusDir,    kTaskResultDir,          kTaskStatusLockDir,  kTaskResultLockDir,
    kShareTaskLockDir, kShareTaskStatusLockDir, kShareTaskStatusDir, kShareTaskResultDir};

Failure CannotBe(const std::string& path, const char* done) {
  return SystemFailure(fmt::format("{} cannot be {} ({})", path, done, strerror(errno)),
                       "see to the directory and to the file system that holds it");
}

// An open directory, no link. Nothing: it is not there.
std::optional<UniqueFd> OpenDirectory(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
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

// Writable by its group is the system's decision: that group is trusted with /usr/local.
void RequireNobodyExchangesIn(const fs::path& directory, const struct stat& status) {
  if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0)
    throw Untrusted(directory, "can be changed by everybody",
                    "set its mode: chmod o-w " + ShellWord(directory));
}

// What a link says, as a path from the root on.
fs::path LedTo(const fs::path& link) {
  std::error_code error;
  const fs::path target = fs::read_symlink(link, error);
  if (!error) return link.parent_path() / target;
  errno = error.value();
  throw CannotBe(link, "read");
}

// The directory that a root lies in, from "/" on: whoever may exchange an entry on the way could
// put another root in place. Links are followed one by one, so that each directory that a link
// stands in or leads through is looked at as well.
void RequireSafeWay(const fs::path& path, int linksLeft = kMostLinks) {
  fs::path way;
  for (auto step = path.begin(); step != path.end(); ++step) {
    // What stands before ".." has been looked at, and is no link.
    if (*step == "..")
      way = way.parent_path();
    else if (!step->empty() && *step != ".")
      way /= *step;
    struct stat status;
    if (lstat(way.c_str(), &status) != 0) throw CannotBe(way, "opened");
    RequireOwnedByRoot(way, status);
    if (S_ISLNK(status.st_mode)) {
      errno = ELOOP;
      if (linksLeft == 0) throw CannotBe(path, "opened");
      fs::path rest = LedTo(way);
      while (++step != path.end()) rest /= *step;
      return RequireSafeWay(rest, linksLeft - 1);
    }
    if (!S_ISDIR(status.st_mode)) throw Untrusted(way, IsA(status), kLookAndRemove);
    RequireNobodyExchangesIn(way, status);
  }
}

// A machine without systemd, or a container, may have none. Not open to everybody, as some systems
// have it: who else needs that says so at boot.
void MakeAboveLocks() {
  if (mkdir(kAboveLocks, kRootWrites) == 0)
    syslog(LOG_NOTICE, "%s was missing and has been made, mode %04o", kAboveLocks, kRootWrites);
  else if (errno != EEXIST)
    throw CannotBe(kAboveLocks, "made");
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
  std::optional<UniqueFd> fd = OpenDirectory(path);
  if (fd) return std::move(*fd);
  if (mkdir(path.c_str(), kRootOnly) != 0 && errno != EEXIST) throw CannotBe(path, "made");
  fd = OpenDirectory(path);
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
  RequireSafeWay(kAboveRun);
  MakeAboveLocks();
  for (const char* above : {kAboveLocks, kAbovePersistent}) RequireSafeWay(above);
  for (const char* path : kVolatileRoots) {
    const UniqueFd fd = MakeOrOpen(path);
    RequireRootOnly(fd, path);
    CloseToOthers(fd, path);
  }
  RequireRootOnly(MakeOrOpen(kPersistentDir), kPersistentDir);
  for (const char* path : kFixedDirs) RequireRootOnly(MakeOrOpen(path), path);
}

void RequireSafeDirectory(const std::string& path) {
  if (const std::optional<UniqueFd> fd = OpenDirectory(path)) RequireRootOnly(*fd, path);
}

void RequireSafeCache() {
  if (access(kAboveCache, F_OK) != 0) return;  // nothing is kept, then
  RequireSafeWay(kAboveCache);
  RequireSafeDirectory(kCacheRoot);
}

bool MakeSafeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kRootOnly) != 0 && errno != EEXIST) return false;
  RequireSafeDirectory(path);
  return true;
}

}  // namespace ZorvSnapUsage
