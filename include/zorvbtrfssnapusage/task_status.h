// The status file of one calculation task, shared by all processes.
#ifndef ZORVBTRFSSNAPUSAGE_TASK_STATUS_H_
#define ZORVBTRFSSNAPUSAGE_TASK_STATUS_H_

#include <json/value.h>
#include <time.h>

#include <string>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/types.h"

namespace ZorvBtrfsUsage {

// A task's record in /run/zorvbtrfssnapusage/task_status/<taskID>: one flat JSON object whose
// values are strings. Each operation locks, reads, changes, writes and unlocks the file by itself;
// nothing is cached. Members return 0 (success), 1 (failure) or 7 (the object was never
// initialised) unless said otherwise, write outputs only on success, log their failures and never
// throw. A reader or writer that does not get the lock says so in the log and goes on without it.
// Not for use by two threads at once.
class ZORV_EXPORT TaskStatus {
 public:
  // An object bound to no task.
  TaskStatus();

  // Binds to the task, as Init(taskID, false) does; ask Valid().
  explicit TaskStatus(const std::string& taskID);

  // Removes no file and drops no lock.
  virtual ~TaskStatus();

  // Binds to a task and makes the directories. With `create`, a task without a state becomes
  // "ready"; an existing state is never reset. False: empty ID, directory or write failed.
  virtual bool Init(const std::string& taskID, bool create);

  // Whether the object is bound.
  bool Valid() const;

  // The ID that log lines show: that of Init, or of the last Import.
  const std::string& TaskID() const { return taskID; }

  // Where a task's status file and its lock file are.
  static std::string GetFilePath(const std::string& taskID);
  static std::string GetFileLockPath(const std::string& taskID);

  // Whether the task has a status file.
  static bool CheckFile(const std::string& taskID);

  // Removes status and lock file when the status file exists. Always true.
  static bool CleanFile(const std::string& taskID);

  // State word or key to its enumeration value. 0, or 8 (no such name, `out` as it was).
  static int CnvStatusStrToEnumIdx(const std::string& status, CAL_TASK_STATUS& out);
  static int CnvAttrsStrToEnumIdx(const std::string& attr, TASKSTATUS_ATTR& out);

  // Takes the record lock (fcntl(2)) and waits for it; the object holds it until UnlockFile. Every
  // other member takes and drops the same lock, so none of them is called in between.
  bool LockFile(bool exclusive);

  // Drops the lock. False only for an object bound to no task.
  bool UnlockFile();

  // The whole object; null when there is no file. 1: the file holds JSON that is no object.
  int GetJsonVal(Json::Value& out);

  // Writes one member: a text, a number in decimal, the time text of now. All other members of the
  // file stay. 1 also when the file holds JSON that is no object: it is left as it is. 7 only from
  // the first; the two others say 1.
  int SetStatusAttr(const TASKSTATUS_ATTR& attr, const std::string& value);
  int SetStatusIntAttr(const TASKSTATUS_ATTR& attr, const int& value);
  int SetStatusNowTimeAttr(const TASKSTATUS_ATTR& attr);

  // Reads one member: as text, as a number (the beginning of the text, as sscanf(3) reads "%d"), as
  // seconds since the epoch. 7 only from the first; the two others say 1.
  int GetStatusAttr(const TASKSTATUS_ATTR& attr, std::string& out);
  int GetStatusIntAttr(const TASKSTATUS_ATTR& attr, int& out);
  int GetStatusTimeAttr(const TASKSTATUS_ATTR& attr, time_t& out);

  // Whether the member is there.
  bool CheckAttrExist(const TASKSTATUS_ATTR& attr);

  // The task's state; with `errorCode`, also its error code: -1 while it is unfinished. 0, or 1. A
  // finished task without an error code is a failure; `out` then holds the state all the same.
  int GetCalculatorStatus(CAL_TASK_STATUS& out);
  int GetCalculatorStatus(CAL_TASK_STATUS& out, int& errorCode);

  // Writes the state word. 0, or 1.
  int SetCalculatorStatus(const CAL_TASK_STATUS& status);

  // Copies the known members of another status file into this one and takes over the other's ID
  // for log lines; the paths stay. Needs the lock. False: nothing was written.
  bool Import(TaskStatus& other);

 protected:
  std::string taskID;          // for log lines; empty until Init
  std::string statusFilePath;  // the object is valid when this is not empty
  std::string lockFilePath;
  int lockFd;  // -1 when no lock is held
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_TASK_STATUS_H_
