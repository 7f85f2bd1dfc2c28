// Snapshot usage of a share: the entry point for callers.
#ifndef ZORVBTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_
#define ZORVBTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_

#include <time.h>
#include <zorvplatform/platc.h>

#include <string>
#include <vector>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/share_task_status.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_status.h"
#include "zorvbtrfssnapusage/types.h"

namespace ZorvBtrfsUsage {

// One calculation of one share: construct, CreateTask, one Launch; a second run takes a new object.
// Progress is read from the ShareTaskStatus of the share, results by the static readers below.
// Codes are those of ResultCode; failures are logged; nothing throws. 3 and its false also set the
// platform error 0x0D00. 1 stands for a lock, a file, a list, memory or the platform that failed.
//
// Which task belongs to which share stands in /usr/local/zorvbtrfssnapusage/share_snap_cal_map, one
// JSON object: share name to {"snap_list": {snapshot name: decimal subvolume ID}, "task_id": text,
// "time": seconds since the epoch, "volume_id": N of /volumeN}. Where that file has another shape,
// readers find nothing in it and writers fail with 1.
class ZORV_EXPORT ShareSnapUsageCal {
 public:
  // An object that works for no share.
  ShareSnapUsageCal();

  // Binds the calculator to an existing task; the share stays unset.
  explicit ShareSnapUsageCal(const std::string& id);

  // Stops nothing and removes no file.
  ~ShareSnapUsageCal();

  // Whether CreateTask has succeeded.
  bool Valid() const;

  // Claims the share and makes a task for it, in state "ready". 0 (also when the object is valid
  // already: nothing is done then), 1, 3 empty name, 4 share busy, 11 no calculator. A name that is
  // not UTF-8 ends in 1. What was done before a failure stays.
  int CreateTask(const std::string& shareName);

  // Starts the calculation over full paths of snapshots, all on one volume. 0; 1 no memory; 3 null
  // argument, bad list, or paths that are not on a btrfs volume; 7 no task, several volumes, a path
  // that is no subvolume, or the calculator did not start; 15 empty list. Paths stay the caller's.
  // The last component of a path (slashes at its end do not count) is the snapshot's name. Failures
  // other than of a null argument or memory show as "fail" with this code in the share's status.
  int Launch(PLATSZLIST** ppListSnapPath);

  // Starts it over the share's snapshots with times from *start to *end (seconds since the epoch);
  // both null: all from the epoch until now; equal: all, also those without a time; so does a time
  // that no calendar has. 3: one is null, or the end lies before the start. 7 no task; 1 the
  // snapshots could not be listed or the range not be recorded; else as Launch over their paths.
  int Launch(const time_t* start, const time_t* end);

  // Whether a new task may be made for the share: it has none, or its task is 120 seconds old or
  // finished. `taskID`: its task, when it has one, else empty. False also for an empty name and for
  // a status that cannot be read.
  static bool CheckAvail(const std::string& shareName, std::string& taskID);

  // Asks the share's task to stop, expired or not. 0 asked, or nothing to stop; 1; 3 empty name;
  // 8 the share has no task.
  static int Stop(const std::string& shareName);

  // The share's task in the share-to-task map. 0; 1; 3 empty name; 8 none (`taskID` is cleared).
  // `expired`: it was created 120 seconds ago or longer; written on 0 only. 1 after the task was
  // found (`taskID` is set): no clock, or its creation time is no unsigned 32-bit number.
  static int FindTaskID(const std::string& shareName, std::string& taskID, bool& expired);

  // As FindTaskID; an expired task gives 8 as well (`taskID` is set).
  static int FindValidTaskID(const std::string& shareName, std::string& taskID);

  // The share that a task serves, of several the one whose name sorts first. 0; 1; 3 empty ID;
  // 8 none (`shareName` as it was).
  static int FindShareNameByTaskID(const std::string& taskID, std::string& shareName);

  // Pushes the name of each share in the map onto *list, sorted. False: map not readable, or a push
  // failed (names before it stay).
  static bool GetShareTaskList(PLATSZLIST** list);

  // Progress callback: copies the task's status into its share's. 0, or 1.
  static _tag_progress_update_function_ret UpdateTaskStatus(TaskStatus& taskStatus, void* userData);

  // Post-action: copies the task's result files into its share's directory, in place of the earlier
  // ones. 0, or 1; after a copy that failed the directory holds a part of them.
  static int ExecCalPostAction(TaskStatus& taskStatus, void* userData);

  // The directory with a share's results: /usr/local/zorvbtrfssnapusage/share_task_result/<share>;
  // empty when there is no memory for the text.
  static std::string GetResultBasePath(const std::string& shareName);

  // One result vector of the share's current task, from its persistent copy or else from the task's
  // own file. 0; 1; 3 empty name; 8 (the share has no task). For `unsigned long long` only.
  template <typename T>
  static int GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& shareName,
                          std::vector<T>& out);

  // Running totals: out[i] is the sum of the exclusive bytes 0 to i, modulo 2^64. 0, or 1 (`out` as
  // it was), also when the share has no task.
  static int GetShareSnapAccumUsageVtr(const std::string& shareName,
                                       std::vector<unsigned long long>& out);

  // Pushes the snapshot name of each subvolume ID onto *ppListSnapName, in order. 0; 1; 3 null
  // argument or list; 8 an unknown ID (names before it stay pushed). No IDs: 0, the map is not
  // read.
  static int FindSnapNameBySubvolID(const std::string& shareName,
                                    const std::vector<unsigned long long>& subvolIDs,
                                    PLATSZLIST** ppListSnapName);

  // Deletes every file in the share's result directory, and the directory when `removeDir`.
  // False: empty name, no such directory, or a removal failed.
  static bool CleanTaskResultFile(const std::string& shareName, bool removeDir);

  // Removes results, status file and map entry of a share that has a map entry; entries of shares
  // that no longer exist go with it. Stops nothing. What cannot be removed is logged.
  static void CleanAll(const std::string& shareName);

  // CleanAll for every share in the map, as it is at the beginning. 0, or 1 (map not readable).
  static int CleanAllSResult();

  // The same for every share whose state is "process". 0, or 1 (map not readable).
  static int CleanNotDoneTask();

 private:
  std::string shareName;  // empty until CreateTask
  ShareTaskStatus shareStatus;
  SnapUsageCalculator calculator;
};

extern template ZORV_EXPORT int ShareSnapUsageCal::GetResultVtr<unsigned long long>(
    const TASK_RESULT_OPT&, const std::string&, std::vector<unsigned long long>&);

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_
