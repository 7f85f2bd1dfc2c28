// One calculation task, from its creation to its end.
#ifndef ZORVBTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_
#define ZORVBTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_

#include <stdio.h>
#include <zorvplatform/platc.h>

#include <string>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/task_status.h"
#include "zorvbtrfssnapusage/types.h"

namespace ZorvBtrfsUsage {

// A task ID with its status file, and what is done with them: create, run in a child process, stop
// from any process, clean up. Failures are logged; nothing throws.
class ZORV_EXPORT SnapUsageCalculator {
 public:
  // An object that holds no task.
  SnapUsageCalculator();

  // Stores the ID only; Init opens or creates the status file.
  explicit SnapUsageCalculator(const std::string& taskID);

  // Stops nothing and removes no file.
  ~SnapUsageCalculator();

  // A task ID that no status file bears. False: no UUID to be had.
  static bool GenTaskID(std::string& taskID);

  // Binds to a task and creates its status file when it has none. 0, or 1.
  int Init(const std::string& taskID);

  // Gives `calc` a new task in state "ready".
  static bool CreateTask(SnapUsageCalculator& calc);

  // Whether the object holds a task.
  bool Valid() const;

  // The task's ID; empty when there is none.
  const std::string& TaskID() const { return taskID; }

  // One attribute as text. 0, or 1 (`value` as it was).
  int GetTaskStatus(const TASKSTATUS_ATTR& attr, std::string& value);

  // State and error code, as TaskStatus::GetCalculatorStatus.
  int GetCalculatorStatus(CAL_TASK_STATUS& state, int& errorCode);

  // Runs the calculation in a child process that nobody has to wait for. `ppData` are its
  // parameters: paths or decimal subvolume IDs. 0 at once in the caller; 3 null argument; 7 no
  // task; 10 no child. The child exits with the result of StartTask, or 9 when the post-action
  // failed.
  int Start(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task, PLATSZLIST** ppData);

  // The whole calculation in the calling process, up to the final state; the post-action is not
  // run. A result of BtrfsTool::CmdExc, or 1 (state or pid not written), 3 (null record), 5
  // (unknown option); also in the status file as "error_code". SIGTERM is blocked meanwhile and let
  // in where the stop flag is tested; BtrfsTool::CmdExc's handler stays installed.
  int StartTask(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task, PLATSZLIST** ppData);

  // Writes pid, error code -1 and start time; not the state. 0, or 1.
  int SetTaskStatusReady();

  // Runs the post-action of the record; when there is none or it succeeds, removes the task's
  // files. 0, 1 (files kept), or 3 (null record).
  int PostCalAction(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task);

  // Removes the task's result files, then its status file.
  void CleanAll();

  // Asks a running task to stop: SIGTERM to the process in its status file. Does not wait; the task
  // writes state "stop" and code 12 itself. 0: asked, or nothing to stop (not in "process", no such
  // task, unreadable status, a pid below 2, nobody there); 1: the directories cannot be made, or
  // the signal not sent; 3: empty ID.
  static int Stop(const std::string& taskID);

  // Parses the lines of "subvolume size": "processed %llu bytes" and "exclusive %llu bytes" go to
  // the task's status file at once, each followed by the callback (null: none); the pairs of
  // "subvol(%llu) %llu bytes" go to its two result vectors at the end of the output, in order of
  // first appearance. Other lines are skipped. `fp` stays the caller's; `errMsg` is left alone.
  // FP_PARSE_FAIL: null `fp` (platform error 0x0D00), no task, a line that does not convert, a
  // write that failed, no memory (0x2A00).
  static _tag_fp_parse_function_ret ParseCmdFp(std::string taskID, FILE* fp, std::string& errMsg,
                                               PROGRESS_UPDATE_FUNCTION fpProgressUpdate);

  // Run the command over `ppList` in the calling process; results as BtrfsTool::CmdExc. What the
  // parameters are is said by the record alone.
  int CalculateByPath(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task, PLATSZLIST** ppList,
                      std::string& errMsg, std::string& btrfsCmd);
  int CalculateBySubvolID(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task, PLATSZLIST** ppList,
                          std::string& errMsg, std::string& btrfsCmd);

 private:
  TaskStatus taskStatus;
  std::string taskID;  // empty: no task
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_
