#include "cli/plain_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <memory>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "cli/calculator_process.h"
#include "cli/failure.h"
#include "cli/roots.h"
#include "cli/text.h"
#include "cli/untrusted.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

Failure CannotBeLookedAt(const std::string& path) {
  return Failure(kSystemFailure,
                 fmt::format("{} cannot be looked at ({})", Quoted(path), strerror(errno)),
                 "see to the file system that holds it");
}

// The holder is in another pid namespace, and has no number in this one.
constexpr pid_t kElsewhere = -2;

// Who holds a lock that keeps a writer waiting: 0 nobody, kElsewhere, -1 who cannot be told.
pid_t HolderOf(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.Valid()) {
    if (errno == ENOENT || errno == ENAMETOOLONG) return 0;
    throw CannotBeLookedAt(path);
  }
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  if (fcntl(fd.Get(), F_GETLK, &lock) != 0) throw CannotBeLookedAt(path);
  if (lock.l_type == F_UNLCK) return 0;
  return lock.l_pid == 0 ? kElsewhere : lock.l_pid;
}

// A lock file: the library waits for its lock for as long as it takes, which is a moment where all
// holders are its own. One that was opened while others could is still open to them.
void RequirePlainLock(const std::string& path) {
  if (!RequirePlainFile(path)) return;
  constexpr int kLooks = 20;
  constexpr timespec kBetween = {0, 100'000'000};
  pid_t holder = 0;
  for (int look = 0; look < kLooks; ++look) {
    holder = HolderOf(path);
    if (holder == 0 || (holder > 0 && IsRootsProcess(holder))) return;
    (void)nanosleep(&kBetween, nullptr);
  }
  if (holder > 0)
    throw Untrusted(path, fmt::format("is locked by process {}, which is not root's", holder),
                    fmt::format("end that process: kill {}", holder));
  // Without its file the lock would keep nobody out any more, and the holder may be a calculation.
  if (holder == kElsewhere)
    throw Untrusted(path, "is locked by a process of another pid namespace",
                    "look for it outside this container, and wait for its end");
  throw Untrusted(path, "is locked by a process that cannot be told",
                  fmt::format("remove it: rm {}", ShellWord(path)));
}

// Under which the library lets the share be claimed.
std::string ShareTaskLock(const std::string& share) {
  return PathIn(kShareTaskLockDir, share) + ".lock";
}

struct CloseDir {
  void operator()(DIR* dir) const { (void)closedir(dir); }
};

}  // namespace

bool RequirePlainFile(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENAMETOOLONG) return false;  // too long is nobody's name
    throw CannotBeLookedAt(path);
  }
  if (!S_ISREG(status.st_mode)) throw Untrusted(path, IsA(status), kLookAndRemove);
  RequireOwnedByRoot(path, status);
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    throw Untrusted(path,
                    fmt::format("can be written by others (mode {:04o})", status.st_mode & 07777),
                    fmt::format("look at what is in it, then: chmod go-w {}", ShellWord(path)));
  if (status.st_nlink > 1) throw Untrusted(path, "has further names (hard links)", kLookAndRemove);
  return true;
}

void RequirePlainCommonFiles() {
  for (const char* file : {kShareMap, kReminderRecord}) (void)RequirePlainFile(file);
  for (const char* lock : {kShareMapLock, kReminderLock}) RequirePlainLock(lock);
}

std::optional<HeldLock> HeldLockOf(const std::string& share) {
  for (const std::string& lock :
       {std::string(kShareMapLock), ShareStatusLock(share), ShareTaskLock(share)})
    if (const pid_t holder = HolderOf(lock); holder != 0) return HeldLock{lock, holder};
  return std::nullopt;
}

void RequirePlainFilesOfShare(const std::string& share) {
  (void)RequirePlainFile(ShareStatusPath(share));
  RequirePlainLock(ShareStatusLock(share));
  RequirePlainLock(ShareTaskLock(share));
  RequireSafeDirectory(ShareResultDir(share));
  RequirePlainFilesIn(ShareResultDir(share));
}

void RequirePlainFilesIn(const std::string& directory) {
  const std::unique_ptr<DIR, CloseDir> dir(opendir(directory.c_str()));
  if (!dir) {
    if (errno == ENOENT) return;
    throw CannotBeLookedAt(directory);
  }
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") (void)RequirePlainFile(directory + "/" + name);
  }
}

void RequirePlainFilesOfTask(const std::string& taskID) {
  (void)RequirePlainFile(TaskStatusPath(taskID));
  (void)RequirePlainFile(TaskStatusLock(taskID));
  for (const char* directory : {kTaskResultDir, kTaskResultLockDir})
    for (const char* suffix : {".result", ".subvol_id"})
      (void)RequirePlainFile(PathIn(directory, taskID) + suffix);
}

}  // namespace ZorvSnapUsage
