// Every fixed path of the library; no other file holds one.
#ifndef BASE_PATHS_H_
#define BASE_PATHS_H_

#include <string>

namespace ZorvBtrfsUsage {

// Volatile: status and results of tasks.
inline constexpr char kRunDir[] = "/run/zorvbtrfssnapusage";
inline constexpr char kTaskStatusDir[] = "/run/zorvbtrfssnapusage/task_status";
inline constexpr char kTaskResultDir[] = "/run/zorvbtrfssnapusage/task_result";

// Volatile: lock files.
inline constexpr char kLockDir[] = "/run/lock/zorvbtrfssnapusage";
inline constexpr char kTaskStatusLockDir[] = "/run/lock/zorvbtrfssnapusage/task_status";
inline constexpr char kTaskResultLockDir[] = "/run/lock/zorvbtrfssnapusage/snap_cal_result";
inline constexpr char kShareTaskLockDir[] = "/run/lock/zorvbtrfssnapusage/share_task";
inline constexpr char kShareTaskStatusLockDir[] = "/run/lock/zorvbtrfssnapusage/share_task_status";
inline constexpr char kShareMapLock[] = "/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock";
inline constexpr char kReminderLock[] = "/run/lock/zorvbtrfssnapusage/reminder_record.lock";

// Persistent: what outlives a reboot.
inline constexpr char kPersistentDir[] = "/usr/local/zorvbtrfssnapusage";
inline constexpr char kShareMap[] = "/usr/local/zorvbtrfssnapusage/share_snap_cal_map";
inline constexpr char kShareTaskStatusDir[] = "/usr/local/zorvbtrfssnapusage/share_task_status";
inline constexpr char kShareTaskResultDir[] = "/usr/local/zorvbtrfssnapusage/share_task_result";
inline constexpr char kReminderRecord[] = "/usr/local/zorvbtrfssnapusage/reminder_record";

// Programs.
inline constexpr char kBtrfsProgram[] = "/sbin/btrfs";
inline constexpr char kUuidgenProgram[] = "/usr/bin/uuidgen";

// <dir>/<name>; names are used as they are.
inline std::string PathIn(const char* dir, const std::string& name) {
  return std::string(dir) + "/" + name;
}

inline std::string TaskStatusPath(const std::string& taskID) {  // <run>/task_status/<taskID>
  return PathIn(kTaskStatusDir, taskID);
}
inline std::string TaskStatusLock(const std::string& taskID) {  // <lock>/task_status/<taskID>.lock
  return PathIn(kTaskStatusLockDir, taskID) + ".lock";
}
inline std::string ShareStatusPath(
    const std::string& share) {  // <persistent>/share_task_status/<share>
  return PathIn(kShareTaskStatusDir, share);
}
inline std::string ShareStatusLock(
    const std::string& share) {  // <lock>/share_task_status/<share>: no suffix
  return PathIn(kShareTaskStatusLockDir, share);
}
inline std::string ShareResultDir(
    const std::string& share) {  // <persistent>/share_task_result/<share>
  return PathIn(kShareTaskResultDir, share);
}

}  // namespace ZorvBtrfsUsage

#endif  // BASE_PATHS_H_
