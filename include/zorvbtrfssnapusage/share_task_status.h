// The status file of a share, which outlives its tasks and a reboot.
#ifndef ZORVBTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_
#define ZORVBTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_

#include <string>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/task_status.h"

namespace ZorvBtrfsUsage {

// A share's record in /usr/local/zorvbtrfssnapusage/share_task_status/<share>: the last known state
// of its calculation. The operations of TaskStatus apply, on the share's file.
class ZORV_EXPORT ShareTaskStatus : public TaskStatus {
 public:
  // An object bound to no share.
  ShareTaskStatus();

  // Removes no file and drops no lock.
  ~ShareTaskStatus() override;

  // Binds to a share and makes the directories. With `create`, a share without a state becomes
  // "ready"; an existing state is kept. False: empty name (platform error 0x0D00), directory or
  // write failed.
  bool Init(const std::string& shareName, bool create) override;

  // Removes the share's status and lock file. True also when there are none; false: empty name.
  static bool CleanShareStatus(const std::string& shareName);

  // Whether the share has a status file.
  static bool CheckShareStatusFile(const std::string& shareName);

 protected:
  std::string shareName;  // empty until Init
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_
