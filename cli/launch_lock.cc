#include "cli/launch_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>

#include <memory>
#include <optional>

#include "cli/failure.h"
#include "cli/lock_wait.h"
#include "cli/plain_files.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kPath[] = "/run/zorv-snapusage.lock";

int Open() {
  (void)RequirePlainFile(kPath);
  return open(kPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
}

// What is waited for where a lock of the library is held.
std::string Held(const std::string& path) {
  return fmt::format("the lock {}, which another process holds", Quoted(path));
}

// As long as it takes, as far as LockWait lets it.
void WaitForLocksOf(const std::string& share) {
  LockWait wait;
  while (const std::optional<HeldLock> held = HeldLockOf(share))
    wait.Pause(Held(held->path), held->holder);
}

// Nobody, when it has just been given back.
pid_t HolderOf(const UniqueFd& fd) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  if (fcntl(fd.Get(), F_GETLK, &whole) != 0 || whole.l_type == F_UNLCK) return 0;
  return whole.l_pid;
}

}  // namespace

LaunchLock::LaunchLock() : fd_(Open()) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  LockWait wait;
  while (fcntl(fd_.Get(), F_SETLK, &whole) != 0) {
    if (errno != EAGAIN && errno != EACCES && errno != EINTR)
      throw Failure(kSystemFailure, fmt::format("{} cannot be locked ({})", kPath, strerror(errno)),
                    "see to /run");
    wait.Pause("another launch or removal", HolderOf(fd_));
  }
}

std::unique_ptr<LaunchLock> LockLaunchesFor(const std::string& share) {
  for (;;) {
    WaitForLocksOf(share);
    auto lock = std::make_unique<LaunchLock>();
    if (!HeldLockOf(share)) return lock;
  }
}

}  // namespace ZorvSnapUsage
