// A lock file held for one scope.
//
// A record lock belongs to the process, and closing any descriptor of the file drops it: never open
// a lock file a second time while it is held.
#ifndef INTL_UTILS_SCOPED_FILE_LOCK_H_
#define INTL_UTILS_SCOPED_FILE_LOCK_H_

#include <string>

#include "base/log.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBtrfsUsage {

// Waits for the lock, logs when it is not to be had, and drops it at the end of the scope. Callers
// ask Held(): some carry on without.
class ScopedFileLock {
 public:
  enum Mode { kShared = 0, kExclusive = 1 };

  ScopedFileLock(LogSite site, const std::string& path, Mode mode) : site_(site) {
    held_ = Utils::GeneralFileLock(path, mode == kExclusive, fd_);
    if (!held_)
      ZLOG_AT(site_, LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", path.c_str(),
              mode);
  }
  ~ScopedFileLock() {
    // Also after a failed lock: it may have left an open descriptor behind.
    if (!Utils::GeneralFileUnlock(fd_)) ZLOG_AT(site_, LOG_ERR, "Failed to unlock fd(%d)", fd_);
  }
  ScopedFileLock(const ScopedFileLock&) = delete;
  ScopedFileLock& operator=(const ScopedFileLock&) = delete;

  bool Held() const { return held_; }

 private:
  LogSite site_;
  int fd_ = -1;
  bool held_ = false;
};

}  // namespace ZorvBtrfsUsage

#endif  // INTL_UTILS_SCOPED_FILE_LOCK_H_
