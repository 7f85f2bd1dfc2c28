// The status file of a share: where it is, and how an object is bound to it. An operation that runs
// out of memory fails and throws nothing.
#include "zorvbtrfssnapusage/share_task_status.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <utility>

#include "base/durable.h"
#include "base/ensure_dirs.h"
#include "base/log.h"
#include "base/paths.h"

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "utils/share_task_status";

}  // namespace

ShareTaskStatus::ShareTaskStatus() = default;

ShareTaskStatus::~ShareTaskStatus() = default;

bool ShareTaskStatus::Init(const std::string& name, bool create) try {
  if (name.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return false;
  }
  // Kept: no early return for an object that is bound to this share already; the directories and
  // the state are looked after on every call.
  if (!EnsureDirs(ZLOG_HERE,
                  {kPersistentDir, kLockDir, kShareTaskStatusDir, kShareTaskStatusLockDir}))
    return false;

  // Kept: no task ID; log lines name a task only after an Import.
  std::string newName = name;
  std::string newStatusPath = ShareStatusPath(name);
  std::string newLockPath = ShareStatusLock(name);
  // From here nothing fails: the object is bound to one share, never to parts of two.
  shareName = std::move(newName);
  statusFilePath = std::move(newStatusPath);
  lockFilePath = std::move(newLockPath);

  if (!create || CheckAttrExist(TASKSTATUS_ATTR_STATUS)) return true;
  if (SetCalculatorStatus(CAL_TASK_STATUS_READY) == RESULT_OK) return true;
  ZLOG(LOG_ERR, "Failed to initialize status of ShareTaskStatus, share:[%s]", shareName.c_str());
  return false;
} catch (const std::exception&) {
  return false;
}

bool ShareTaskStatus::CleanShareStatus(const std::string& name) try {
  if (name.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return false;
  }
  for (const std::string& path : {ShareStatusPath(name), ShareStatusLock(name)}) {
    if (unlink(path.c_str()) == 0) {
      if (IsPersistent(path)) (void)SyncDirectoryOf(path);  // or a power cut brings it back
      continue;
    }
    if (errno == ENOENT) continue;
    ZLOG(LOG_ERR, "Failed to unlink file (%s) err:(%s) ", path.c_str(), strerror(errno));
  }
  return true;
} catch (const std::exception&) {
  return false;
}

bool ShareTaskStatus::CheckShareStatusFile(const std::string& name) try {
  if (name.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return false;
  }
  return PLATCFileExist(ShareStatusPath(name).c_str()) == 1;
} catch (const std::exception&) {
  return false;
}

}  // namespace ZorvBtrfsUsage
