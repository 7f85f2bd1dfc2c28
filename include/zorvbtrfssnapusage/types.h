// The vocabulary of a calculation: states, attributes, result codes, the task record.
#ifndef ZORVBTRFSSNAPUSAGE_TYPES_H_
#define ZORVBTRFSSNAPUSAGE_TYPES_H_

#include <map>
#include <string>

#include "zorvbtrfssnapusage/export.h"

namespace ZorvBtrfsUsage {

class TaskStatus;

// The integer results of the library; each operation says which of them it returns.
// They are also the exit status of a calculator child and the "error_code" of a finished task.
enum ResultCode {
  RESULT_OK = 0,                  // done, or nothing to do
  RESULT_FAILURE = 1,             // a lock, a file, a list or a platform call failed
  RESULT_INVALID_ARGUMENT = 3,    // also sets the platform error 0x0D00
  RESULT_SHARE_BUSY = 4,          // a calculation of the share is ready or running
  RESULT_UNKNOWN_OPTION = 5,      // the task record names no known calculation
  RESULT_COMMAND_MISSING = 6,     // there is no /sbin/btrfs
  RESULT_INVALID_OBJECT = 7,      // the object holds no task, or the calculator did not start
  RESULT_NOT_FOUND = 8,           // no such name or entry
  RESULT_POST_ACTION_FAILED = 9,  // the results were not handed over
  RESULT_FORK_FAILED = 10,        // no process for the calculation
  RESULT_CALCULATOR_FAILED = 11,  // the calculator task could not be created
  RESULT_STOPPED = 12,            // stopped by signal
  RESULT_COMMAND_FAILED = 13,     // the command could not be started
  RESULT_EMPTY_LIST = 15,         // nothing to calculate
};

// The state of a calculation. Below CAL_TASK_STATUS_FAIL it is unfinished and has no error code.
enum CAL_TASK_STATUS : int {
  CAL_TASK_STATUS_READY = 0,    // made, not begun
  CAL_TASK_STATUS_PROCESS = 1,  // under way
  CAL_TASK_STATUS_FAIL = 2,     // ended without a result; the error code says why
  CAL_TASK_STATUS_STOP = 3,     // ended because somebody asked for it
  CAL_TASK_STATUS_DONE = 4,     // ended with a result
};

// The members of a status file.
enum TASKSTATUS_ATTR : int {
  TASKSTATUS_ATTR_STATUS = 0,              // a state word
  TASKSTATUS_ATTR_START_TIME = 1,          // time text, local: 2024.03.05-17.04.09
  TASKSTATUS_ATTR_END_TIME = 2,            // time text
  TASKSTATUS_ATTR_PID = 3,                 // process that calculates, decimal
  TASKSTATUS_ATTR_ERROR_CODE = 4,          // a ResultCode, decimal; -1 while unfinished
  TASKSTATUS_ATTR_ERROR_MSG = 5,           // free text
  TASKSTATUS_ATTR_BTRFS_CMD = 6,           // the command line as run, a blank after each word
  TASKSTATUS_ATTR_PROCESSED_IN_BYTES = 7,  // bytes read so far, decimal
  TASKSTATUS_ATTR_ESTIMATED_IN_BYTES = 8,  // exclusive bytes found so far, decimal
  TASKSTATUS_ATTR_RANGE_START = 9,         // time text: start of the launched time range
  TASKSTATUS_ATTR_RANGE_END = 10,          // time text: its end
};

// Which of a task's two result vectors; entry i of one belongs to entry i of the other.
enum TASK_RESULT_OPT : int {
  TASK_RESULT_OPT_RESULT = 1,     // exclusive bytes, file suffix ".result"
  TASK_RESULT_OPT_SUBVOL_ID = 2,  // subvolume IDs, file suffix ".subvol_id"
};

// What the parameters of a calculation are.
enum CAL_OPT : int {
  CAL_OPT_BY_PATH = 1,      // paths of snapshots
  CAL_OPT_BY_SUBVOLID = 2,  // decimal subvolume IDs on the volume `volumeNum`
};

// What a parser says of the command's output.
enum _tag_fp_parse_function_ret : int {
  FP_PARSE_OK = 0,        // all of it was read and recorded
  FP_PARSE_SIGNALED = 1,  // reading ended because a stop was asked for
  FP_PARSE_FAIL = 2,      // reading or recording failed
};

// What a progress callback says; a failure is logged and does not end the calculation.
enum _tag_progress_update_function_ret : int {
  PROGRESS_UPDATE_OK = 0,    // taken
  PROGRESS_UPDATE_FAIL = 1,  // not taken
};

// Called in the calculating process after each change of the task's status file.
// The status is the caller's and lives for the call only; the pointer is null.
typedef _tag_progress_update_function_ret (*PROGRESS_UPDATE_FUNCTION)(TaskStatus& taskStatus,
                                                                      void* userData);

// Called once in the calculating process after a successful calculation; 0 is success.
// The status is the caller's and lives for the call only; the pointer is null.
typedef int (*POST_CAL_ACTION_FUNCTION)(TaskStatus& taskStatus, void* userData);

// One calculation to run. The caller owns it; it must live through the call that takes it.
struct _tag_ZORV_BTRFS_USAGE_CAL_TASK {
  int calOption;                              // a CAL_OPT
  PROGRESS_UPDATE_FUNCTION fpProgressUpdate;  // may be null
  POST_CAL_ACTION_FUNCTION fpPostCalAction;   // may be null
  int volumeNum;                              // N of /volumeN, for CAL_OPT_BY_SUBVOLID
};

}  // namespace ZorvBtrfsUsage

// The symbols bear exactly these names, without the tag that the compiler adds to the type's ABI.

// Attribute to its key in a status file: 11 rows after load.
// A subscript with a value outside the enumeration adds a row with an empty text.
extern ZORV_EXPORT std::map<ZorvBtrfsUsage::TASKSTATUS_ATTR, std::string> _task_status_attr_str
    __asm__("_task_status_attr_str");

// State to its word in a status file: 5 rows after load; subscripts as above.
extern ZORV_EXPORT std::map<ZorvBtrfsUsage::CAL_TASK_STATUS, std::string> _cal_task_status_str
    __asm__("_cal_task_status_str");

#endif  // ZORVBTRFSSNAPUSAGE_TYPES_H_
