// Three subjects: the task (create, query, clean up), its run in a child process, and the parser of
// the command's output. An operation that runs out of memory fails and throws nothing.
#include "zorvbtrfssnapusage/snap_usage_cal.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/random.h>

#include <charconv>
#include <exception>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/log.h"
#include "intl_utils/stop_gate.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "snap_calculator/snap_usage_cal";

// Tells the caller's callback that the status file has news. It is a guest: whatever it says, or
// throws (anything, not only what the standard library knows), the calculation goes on.
void ReportProgress(PROGRESS_UPDATE_FUNCTION fpProgressUpdate, TaskStatus& taskStatus) {
  if (fpProgressUpdate == nullptr) return;
  try {
    if (fpProgressUpdate(taskStatus, nullptr) == PROGRESS_UPDATE_OK) return;
  } catch (...) {
  }
  ZLOG(LOG_ERR, "Failed to execute progress updating call-back function");
}

// Whether the caller's post-action succeeded; true when there is none.
bool RunPostAction(POST_CAL_ACTION_FUNCTION fpPostCalAction, TaskStatus& taskStatus) {
  if (fpPostCalAction == nullptr) return true;
  try {
    return fpPostCalAction(taskStatus, nullptr) == 0;
  } catch (...) {
    return false;
  }
}

// Writes the final state and what belongs to it. Writes that fail have logged themselves; there is
// nothing left to give up.
void RecordOutcome(TaskStatus& taskStatus, int ret, const std::string& errMsg,
                   const std::string& btrfsCmd) {
  if (ret == RESULT_OK) {
    (void)taskStatus.SetCalculatorStatus(CAL_TASK_STATUS_DONE);
  } else if (ret == RESULT_STOPPED) {
    (void)taskStatus.SetCalculatorStatus(CAL_TASK_STATUS_STOP);
  } else {
    (void)taskStatus.SetCalculatorStatus(CAL_TASK_STATUS_FAIL);
    (void)taskStatus.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, errMsg);
    (void)taskStatus.SetStatusAttr(TASKSTATUS_ATTR_BTRFS_CMD, btrfsCmd);
  }
  (void)taskStatus.SetStatusNowTimeAttr(TASKSTATUS_ATTR_END_TIME);
  (void)taskStatus.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, ret);
}

}  // namespace

// ---- The task -----------------------------------------------------------------------------------

SnapUsageCalculator::SnapUsageCalculator() = default;

SnapUsageCalculator::SnapUsageCalculator(const std::string& id) {
  try {
    taskID = id;
  } catch (const std::exception&) {  // an object that holds no task
  }
}

SnapUsageCalculator::~SnapUsageCalculator() = default;

bool SnapUsageCalculator::GenTaskID(std::string& taskID) try {
  for (;;) {
    std::string candidate;
    if (!Utils::UUIDGen(candidate)) {
      ZLOG(LOG_ERR, "Failed to gen UUID.[0x%04X %s:%d]", PLAT_ERR);
      return false;
    }
    if (!TaskStatus::CheckFile(candidate)) {
      taskID = candidate;
      return true;
    }
  }
} catch (const std::exception&) {
  return false;
}

int SnapUsageCalculator::Init(const std::string& id) try {
  taskID = id;
  if (taskStatus.Init(taskID, /*create=*/true)) return RESULT_OK;
  ZLOG_TASK(LOG_ERR, taskID, "Failed to initilize task status[0x%04X %s:%d]", PLAT_ERR);
  return RESULT_FAILURE;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

bool SnapUsageCalculator::CreateTask(SnapUsageCalculator& calc) try {
  std::string id;
  if (!GenTaskID(id)) {
    ZLOG(LOG_ERR, "Failed to generate task ID");
    return false;
  }
  if (calc.Init(id) != RESULT_OK) {
    ZLOG(LOG_ERR, "Failed to initialize the calculator task with ID :%s", id.c_str());
    return false;
  }
  return true;
} catch (const std::exception&) {
  return false;
}

bool SnapUsageCalculator::Valid() const { return !taskID.empty() && taskStatus.Valid(); }

int SnapUsageCalculator::GetTaskStatus(const TASKSTATUS_ATTR& attr, std::string& value) try {
  std::string text;
  if (taskStatus.GetStatusAttr(attr, text) != RESULT_OK) return RESULT_FAILURE;
  value = text;
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int SnapUsageCalculator::GetCalculatorStatus(CAL_TASK_STATUS& state, int& errorCode) {
  return taskStatus.GetCalculatorStatus(state, errorCode);
}

void SnapUsageCalculator::CleanAll() {
  if (!TaskResult::CleanFile(taskID))
    ZLOG_TASK(LOG_ERR, taskID, "Failed to clean task result, taskID: %s", taskID.c_str());
  if (!TaskStatus::CleanFile(taskID))
    ZLOG_TASK(LOG_ERR, taskID, "Failed to clean task status, taskID: %s", taskID.c_str());
}

// ---- The run ------------------------------------------------------------------------------------

int SnapUsageCalculator::Start(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task, PLATSZLIST** ppData) {
  if (opt_task == nullptr) {
    ZLOG_INVALID_ARG("__null != opt_task");
    return RESULT_INVALID_ARGUMENT;
  }
  if (ppData == nullptr) {
    ZLOG_INVALID_ARG("NULL != ppData");
    return RESULT_INVALID_ARGUMENT;
  }
  if (!Valid()) return RESULT_INVALID_OBJECT;

  const int pid = PLATCProcForkChildNoWait();
  if (pid < 0) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to fork() [0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FORK_FAILED;
  }
  if (pid > 0) return RESULT_OK;

  // The child inherits the caller's memory as it was (this object, the record, the list, what the
  // callbacks use), its open descriptors, umask, working directory, environment, priority and
  // limits. It has a session of its own, no standard input or output, no lock of the caller (record
  // locks stay with their process), no thread but this one, and SIGTERM blocked. It leaves by the
  // exit() below and in no other way, or two processes would go on in the caller's code.
  int ret = RESULT_FAILURE;
  try {
    ret = StartTask(opt_task, ppData);
    if (ret != RESULT_OK) {
      ZLOG_TASK(LOG_DEBUG, taskID, "Failed to start the calculator task, ret: %d[0x%04X %s:%d]",
                ret, PLAT_ERR);
    } else if (PostCalAction(opt_task) != RESULT_OK) {
      ZLOG_TASK(LOG_ERR, taskID, "Failed to perform post-calculation action[0x%04X %s:%d]",
                PLAT_ERR);
      ret = RESULT_POST_ACTION_FAILED;
    }
  } catch (...) {  // whatever it is, it must not come out in the caller's code
    ret = RESULT_FAILURE;
  }
  exit(ret);
}

int SnapUsageCalculator::StartTask(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task, PLATSZLIST** ppData) {
  if (opt_task == nullptr) {
    ZLOG_INVALID_ARG("__null != opt_task");
    return RESULT_INVALID_ARGUMENT;
  }

  // From before the pid is to be seen: whoever reads it may send a stop at once.
  const StopGate shut(StopGate::kShut);
  std::string errMsg;
  std::string btrfsCmd;
  int ret = RESULT_FAILURE;
  if (taskStatus.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS) == RESULT_OK) {
    ReportProgress(opt_task->fpProgressUpdate, taskStatus);
    if (SetTaskStatusReady() != RESULT_OK) {
      ZLOG_TASK(LOG_ERR, taskID, "Failed to prepare the status of calculator");
    } else if (opt_task->calOption == CAL_OPT_BY_PATH) {
      ret = CalculateByPath(*opt_task, ppData, errMsg, btrfsCmd);
    } else if (opt_task->calOption == CAL_OPT_BY_SUBVOLID) {
      ret = CalculateBySubvolID(*opt_task, ppData, errMsg, btrfsCmd);
    } else {
      ZLOG_TASK(LOG_ERR, taskID, "Failed to recognize option [%d] of calculator",
                opt_task->calOption);
      ret = RESULT_UNKNOWN_OPTION;
    }
  }

  RecordOutcome(taskStatus, ret, errMsg, btrfsCmd);
  ReportProgress(opt_task->fpProgressUpdate, taskStatus);
  return ret;
}

// Kept: despite its name it leaves the state word alone; the state is "process" by then.
int SnapUsageCalculator::SetTaskStatusReady() {
  const bool written =
      taskStatus.SetStatusAttr(TASKSTATUS_ATTR_PID, Utils::PIDStringGet()) == RESULT_OK &&
      taskStatus.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, -1) == RESULT_OK &&
      taskStatus.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME) == RESULT_OK;
  return written ? RESULT_OK : RESULT_FAILURE;
}

int SnapUsageCalculator::PostCalAction(_tag_ZORV_BTRFS_USAGE_CAL_TASK* opt_task) {
  if (opt_task == nullptr) {
    ZLOG_INVALID_ARG("__null != opt_task");
    return RESULT_INVALID_ARGUMENT;
  }
  if (!RunPostAction(opt_task->fpPostCalAction, taskStatus)) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to perform post-calculation action[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FAILURE;
  }
  CleanAll();
  return RESULT_OK;
}

int SnapUsageCalculator::Stop(const std::string& taskID) {
  if (taskID.empty()) {
    ZLOG_INVALID_ARG("!taskID.empty()");
    return RESULT_INVALID_ARGUMENT;
  }

  TaskStatus status;
  if (!status.Init(taskID, /*create=*/false)) {
    ZLOG(LOG_ERR, "Failed to initialize object, taskID:(%s)[0x%04X %s:%d]", taskID.c_str(),
         PLAT_ERR);
    return RESULT_FAILURE;
  }

  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int errorCode = -1;
  if (status.GetCalculatorStatus(state, errorCode) != RESULT_OK) {
    ZLOG(LOG_ERR, "Failed to get calculator status, taskID:(%s)", taskID.c_str());
    return RESULT_OK;  // nothing to stop
  }
  if (state < CAL_TASK_STATUS_READY || state > CAL_TASK_STATUS_DONE)
    ZLOG_TASK(LOG_ERR, taskID, "Invalid status = %d", static_cast<int>(state));
  if (state != CAL_TASK_STATUS_PROCESS) return RESULT_OK;

  int pid = -1;
  if (status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, pid) != RESULT_OK) return RESULT_OK;
  // No calculator has such a pid, and kill() takes 0 and negative ones for groups, -1 for all.
  if (pid < 2) return RESULT_OK;
  if (Utils::ProcessKill(pid, SIGTERM) < 0) {
    ZLOG_TASK(LOG_ERR, taskID, "failed to send signal [%d] to [%d], err=%s", SIGTERM, pid,
              strerror(errno));
    return RESULT_FAILURE;
  }
  return RESULT_OK;
}

int SnapUsageCalculator::CalculateByPath(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task,
                                         PLATSZLIST** ppList, std::string& errMsg,
                                         std::string& btrfsCmd) try {
  const int ret = BtrfsTool::CmdExc(task, taskID, ppList, &ParseCmdFp, errMsg, btrfsCmd, nullptr);
  // Kept: logs a stop too, unlike CalculateBySubvolID.
  if (ret != RESULT_OK)
    ZLOG_TASK(LOG_ERR, taskID,
              "Failed to calcuate read-only snapshot usage, errno: %s[0x%04X %s:%d]",
              strerror(errno), PLAT_ERR);
  return ret;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int SnapUsageCalculator::CalculateBySubvolID(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task,
                                             PLATSZLIST** ppList, std::string& errMsg,
                                             std::string& btrfsCmd) try {
  const int ret = BtrfsTool::CmdExc(task, taskID, ppList, &ParseCmdFp, errMsg, btrfsCmd, nullptr);
  // Kept: a stop is silent here. This is the way of the shares, where a stop is an everyday
  // request.
  if (ret != RESULT_OK && ret != RESULT_STOPPED)
    ZLOG_TASK(LOG_ERR, taskID,
              "Failed to calcuate read-only snapshot usage, errno: %s[0x%04X %s:%d]",
              strerror(errno), PLAT_ERR);
  return ret;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

// ---- The parser ---------------------------------------------------------------------------------

namespace {

// A longer line arrives in pieces, each taken for a line of its own.
constexpr size_t kLineSize = 1024;

// Reads a line, or the first piece of one that is longer. False: the end of the output, or a read
// error, which is treated alike. A signal handler of the calling program that interrupts the read
// (one without SA_RESTART) is neither: taken for the end, it would make a part look like a whole.
bool ReadLine(FILE* fp, char (&line)[kLineSize]) {
  memset(line, 0, sizeof line);
  size_t length = 0;
  for (;;) {
    if (fgets(line + length, static_cast<int>(sizeof line - length), fp) != nullptr) return true;
    length = strlen(line);  // what came before the interruption
    if (!ferror(fp)) return length > 0;
    if (errno != EINTR) return false;
    clearerr(fp);
  }
}

bool BeginsWith(const char* line, const char* prefix) {
  return strncmp(line, prefix, strlen(prefix)) == 0;
}

// Takes the ID and the bytes of a line as the engine writes it, in a small part of the time that
// sscanf takes. False: another form, for sscanf to judge; both numbers as they were.
bool ReadEngineLine(const char* line, unsigned long long& subvolID, unsigned long long& bytes) {
  constexpr std::string_view kBeforeID = "subvol(";
  constexpr std::string_view kBeforeBytes = ") ";
  const std::string_view text(line);
  if (text.substr(0, kBeforeID.size()) != kBeforeID) return false;
  const char* const end = text.data() + text.size();
  unsigned long long idRead = 0;
  unsigned long long bytesRead = 0;
  const auto id = std::from_chars(line + kBeforeID.size(), end, idRead);
  if (id.ec != std::errc()) return false;
  const std::string_view rest(id.ptr, static_cast<size_t>(end - id.ptr));
  if (rest.substr(0, kBeforeBytes.size()) != kBeforeBytes) return false;
  if (std::from_chars(id.ptr + kBeforeBytes.size(), end, bytesRead).ec != std::errc()) return false;
  subvolID = idRead;
  bytes = bytesRead;
  return true;
}

// Different subvolumes that an output may speak of. The kernel takes 6 MiB of arguments at most
// (execve(2)), and an ID takes 12 bytes of them at least, so no command is asked about more than
// half as many. What prints more is no engine, and must not fill the machine's memory.
constexpr size_t kMostSubvolumes = 1 << 20;

// Spreads IDs over the table by a number that nobody outside knows: those of an output could be
// chosen so that all of them fall together, and each look-up would go through all.
class KeyedHash {
 public:
  size_t operator()(unsigned long long id) const {
    // 2^64 by the golden ratio: every bit reaches the top.
    id = (id ^ key_) * 0x9E3779B97F4A7C15ULL;
    return static_cast<size_t>((id ^ id >> 32) * 0x9E3779B97F4A7C15ULL >> 16);
  }

 private:
  static unsigned long long NewKey() {
    unsigned long long key = 0;
    // Without waiting: soon after the boot, or where the call is forbidden, there may be none. Then
    // the bytes that the kernel has given the process at its start are as hard to guess.
    if (getrandom(&key, sizeof key, GRND_NONBLOCK) != sizeof key)
      // getauxval(3) gives addresses as numbers. NOLINTNEXTLINE(performance-no-int-to-ptr)
      memcpy(&key, reinterpret_cast<const void*>(getauxval(AT_RANDOM)), sizeof key);
    return key;
  }

  unsigned long long key_ = NewKey();
};

// What the lines say: progress goes to the status file at once, sizes are collected.
class OutputRecorder {
 public:
  enum Verdict { kGoOn, kNotConverted, kNotWritten, kTooMany };

  OutputRecorder(TaskStatus& taskStatus, PROGRESS_UPDATE_FUNCTION fpProgressUpdate)
      : taskStatus_(taskStatus), fpProgressUpdate_(fpProgressUpdate) {}

  // Takes one line. Kept: only the first bytes decide what a line is, so "exclusivex" is an
  // "exclusive" line, and one that cannot be converted ends the run.
  Verdict Take(const char* line) {
    errno = 0;
    if (BeginsWith(line, "subvol")) {
      unsigned long long subvolID = 0;
      if (ReadEngineLine(line, subvolID, bytes_)) return Record(subvolID);
      // Kept: one value is enough. The bytes are then those of the conversion before.
      converted_ = sscanf(line, "subvol(%llu) %llu bytes", &subvolID, &bytes_);
      return converted_ < 1 ? kNotConverted : Record(subvolID);
    }
    if (BeginsWith(line, "exclusive")) {
      converted_ = sscanf(line, "exclusive %llu bytes", &bytes_);
      return Publish(TASKSTATUS_ATTR_ESTIMATED_IN_BYTES);
    }
    if (BeginsWith(line, "processed")) {
      converted_ = sscanf(line, "processed %llu bytes", &bytes_);
      return Publish(TASKSTATUS_ATTR_PROCESSED_IN_BYTES);
    }
    return kGoOn;
  }

  // What sscanf returned for the last line that was converted.
  int Converted() const { return converted_; }

  const std::vector<unsigned long long>& SubvolIDs() const { return subvolIDs_; }
  const std::vector<unsigned long long>& ExclusiveBytes() const { return exclusiveBytes_; }

 private:
  // A later line for the same subvolume overrides the earlier one, at its place.
  Verdict Record(unsigned long long subvolID) {
    const auto [entry, isNew] = indexOf_.emplace(subvolID, subvolIDs_.size());
    if (!isNew) {
      exclusiveBytes_[entry->second] = bytes_;
      return kGoOn;
    }
    if (subvolIDs_.size() == kMostSubvolumes) {
      PLAT_ERR_SET(0x2A00);
      return kTooMany;
    }
    subvolIDs_.push_back(subvolID);
    exclusiveBytes_.push_back(bytes_);
    return kGoOn;
  }

  Verdict Publish(TASKSTATUS_ATTR attr) {
    if (converted_ < 1) return kNotConverted;
    if (taskStatus_.SetStatusAttr(attr, std::to_string(bytes_)) != RESULT_OK) return kNotWritten;
    ReportProgress(fpProgressUpdate_, taskStatus_);
    return kGoOn;
  }

  TaskStatus& taskStatus_;
  const PROGRESS_UPDATE_FUNCTION fpProgressUpdate_;
  unsigned long long bytes_ = 0;
  int converted_ = 0;
  std::vector<unsigned long long> subvolIDs_;
  std::vector<unsigned long long> exclusiveBytes_;
  std::unordered_map<unsigned long long, size_t, KeyedHash>
      indexOf_;  // of a subvolume ID in both vectors
};

}  // namespace

_tag_fp_parse_function_ret SnapUsageCalculator::ParseCmdFp(
    // The interface passes the ID by value. NOLINTNEXTLINE(performance-unnecessary-value-param)
    std::string taskID, FILE* fp, std::string& /*errMsg*/,
    PROGRESS_UPDATE_FUNCTION fpProgressUpdate) try {
  if (fp == nullptr) {
    PLAT_ERR_SET(0x0D00);
    return FP_PARSE_FAIL;
  }

  TaskStatus status;
  if (!status.Init(taskID, /*create=*/false)) {
    ZLOG(LOG_ERR, "Failed to initialize object, taskID:(%s)[0x%04X %s:%d]", taskID.c_str(),
         PLAT_ERR);
    return FP_PARSE_FAIL;
  }

  OutputRecorder recorder(status, fpProgressUpdate);
  char line[kLineSize] = {};
  while (ReadLine(fp, line)) {
    if (StopAsked()) return FP_PARSE_SIGNALED;
    const OutputRecorder::Verdict verdict = recorder.Take(line);
    if (verdict == OutputRecorder::kNotConverted)
      ZLOG_TASK(
          LOG_ERR, taskID,
          "Failed to parse the output from BTRFS command, output:[%s], sscanf_ret: %d, errno: %d",
          line, recorder.Converted(), errno);
    if (verdict != OutputRecorder::kGoOn) return FP_PARSE_FAIL;
  }

  // Kept: a stop that came after the last line is not looked for; all that was asked is there.
  if (TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, taskID, recorder.ExclusiveBytes()) != 0) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to wirte result vector to file");
    return FP_PARSE_FAIL;
  }
  if (TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, taskID, recorder.SubvolIDs()) != 0) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to wirte subvol ID vector to file");
    return FP_PARSE_FAIL;
  }
  return FP_PARSE_OK;
} catch (const std::exception&) {  // no memory
  PLAT_ERR_SET(0x2A00);
  return FP_PARSE_FAIL;
}

}  // namespace ZorvBtrfsUsage
