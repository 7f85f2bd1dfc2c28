// Keeps copies of this program from one another while they look at a share and change its record.
#ifndef CLI_LAUNCH_LOCK_H_
#define CLI_LAUNCH_LOCK_H_

namespace ZorvSnapUsage {

// Held by every copy of this program, of whatever share: from the look at a share to its claim,
// else a calculation that began and was done in between would lose its results to the claim; and
// from the look at a share to the removal of its record, else one that began in between would lose
// all. A lock of fcntl(2), which the calculation's process does not inherit. Waits for it; gives up
// when there can be none.
class LaunchLock {
 public:
  LaunchLock();
  ~LaunchLock();
  LaunchLock(const LaunchLock&) = delete;
  LaunchLock& operator=(const LaunchLock&) = delete;

 private:
  const int fd_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_LAUNCH_LOCK_H_
