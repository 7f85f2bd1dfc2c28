// Keeps copies of this program from one another while they look at a share and change its record.
#ifndef CLI_LAUNCH_LOCK_H_
#define CLI_LAUNCH_LOCK_H_

#include <memory>
#include <string>

#include "base/unique_fd.h"

namespace ZorvSnapUsage {

// Held by every copy of this program, of whatever share: from the look at a share to its claim,
// else a calculation that began and was done in between would lose its results to the claim; and
// from the look at a share to the removal of its record, else one that began in between would lose
// all. A lock of fcntl(2), which the calculation's process does not inherit. Waits for it (see
// LockWait); gives up when there can be none.
class LaunchLock {
 public:
  LaunchLock();
  LaunchLock(const LaunchLock&) = delete;
  LaunchLock& operator=(const LaunchLock&) = delete;

 private:
  const UniqueFd fd_;
};

// The lock, at a moment when the library's locks that the share needs are free: the library waits
// for those for as long as it takes, and nobody else could launch anything meanwhile. They are
// waited for first, without the lock.
std::unique_ptr<LaunchLock> LockLaunchesFor(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_LAUNCH_LOCK_H_
