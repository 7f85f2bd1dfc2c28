#include "cli/calculation.h"

#include <errno.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>
#include <time.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/share_task_status.h>
#include <zorvbtrfssnapusage/utils.h>

#include "base/paths.h"
#include "cli/failure.h"
#include "cli/names.h"
#include "cli/plain_files.h"
#include "cli/process_watch.h"
#include "cli/share.h"
#include "cli/share_map.h"
#include "cli/string_list.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

// A claim may be this far ahead of a clock that is being corrected, and still be on its way.
constexpr time_t kTrustedLeadSeconds = 120;

// One member of a status record; empty when it is not there or no text.
std::string Attribute(const Json::Value& record, TASKSTATUS_ATTR attribute) {
  if (!record.isObject()) return "";
  const Json::Value& value = record[_task_status_attr_str.at(attribute)];
  return value.isString() ? value.asString() : "";
}

std::optional<unsigned long long> Number(const std::string& text) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return number;
}

std::optional<int> ErrorCode(const std::string& text) {
  const std::optional<unsigned long long> number = Number(text);
  if (!number || *number > 255) return std::nullopt;
  return static_cast<int>(*number);
}

std::optional<time_t> Time(const std::string& text) {
  time_t t = 0;
  if (text.empty() || !Utils::TimeStringToTime_T(text, t)) return std::nullopt;
  return t;
}

// The task's own record, null when it has none. Read without its lock, which would leave a lock
// file behind for a task whose record has just been removed; the file is replaced whole anyway.
Json::Value TaskRecord(const std::string& taskID) {
  if (taskID.empty() || !TaskStatus::CheckFile(taskID)) return Json::Value();
  return Utils::GetJsonAttrByPath(TaskStatus::GetFilePath(taskID).c_str());
}

std::optional<Json::Value> ShareRecord(const std::string& share) {
  Json::Value record;
  ShareTaskStatus status;
  if (!ShareTaskStatus::CheckShareStatusFile(share)) return std::nullopt;
  if (!status.Init(share, false) || status.GetJsonVal(record) != RESULT_OK) return std::nullopt;
  return record;
}

// Whether the share's claim is recent: then its own record may still be of an earlier task.
bool IsClaimed(const std::string& share) {
  std::string taskID;
  return ShareSnapUsageCal::FindValidTaskID(share, taskID) == RESULT_OK &&
         !ClaimAheadOfClock(share);
}

void FillFrom(const Json::Value& record, Calculation& calculation) {
  calculation.started = Time(Attribute(record, TASKSTATUS_ATTR_START_TIME));
  calculation.processedBytes = Number(Attribute(record, TASKSTATUS_ATTR_PROCESSED_IN_BYTES));
  calculation.exclusiveBytes = Number(Attribute(record, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES));
  if (!calculation.Finished()) return;
  calculation.ended = Time(Attribute(record, TASKSTATUS_ATTR_END_TIME));
  calculation.errorCode = ErrorCode(Attribute(record, TASKSTATUS_ATTR_ERROR_CODE));
  if (calculation.state != CAL_TASK_STATUS_FAIL) return;
  calculation.errorMessage = Attribute(record, TASKSTATUS_ATTR_ERROR_MSG);
  calculation.command = Attribute(record, TASKSTATUS_ATTR_BTRFS_CMD);
}

void RequireSafeTask(const std::string& share, const std::string& taskID) {
  if (!IsTaskID(taskID))
    throw Failure(kUnsafeRoots,
                  fmt::format("the record of share {} names a task {}, which is none",
                              Quoted(share), Quoted(taskID)),
                  fmt::format("remove the record with: zorv-snapusage clean {}", ShareWord(share)));
  RequirePlainFilesOfTask(taskID);
}

// Nothing: the record does not name a process yet.
std::optional<pid_t> Process(const std::string& text) {
  if (text.empty()) return std::nullopt;
  const std::optional<unsigned long long> number = Number(text);
  return number && *number <= INT_MAX ? static_cast<pid_t>(*number) : kNoProcess;
}

// What the calculation was doing if its process is as it is now and its records are still the same.
Activity ActivityAsRead(const std::string& share, const Calculation& calculation) {
  const bool alive = calculation.pid && CalculatorIsAlive(*calculation.pid);
  if (calculation.state == CAL_TASK_STATUS_DONE)
    return alive ? Activity::kFinishing : Activity::kNone;
  if (calculation.Finished()) return Activity::kNone;
  if (alive) return Activity::kRunning;
  if (calculation.pid || !IsClaimed(share))
    return calculation.state == CAL_TASK_STATUS_PROCESS ? Activity::kDied : Activity::kNone;
  return Activity::kClaimed;
}

}  // namespace

std::optional<std::string> RecordedTask(const std::string& share) {
  std::string taskID;
  bool expired = false;
  switch (ShareSnapUsageCal::FindTaskID(share, taskID, expired)) {
    case RESULT_OK:
      return taskID;
    case RESULT_NOT_FOUND:
      return std::nullopt;
    default:
      // Named, but its time is none that the library can compare: as one that has expired.
      if (!taskID.empty()) return taskID;
      throw SystemFailure("the record of calculations cannot be read");
  }
}

std::optional<std::string> TaskOf(const std::string& share) {
  const std::optional<std::string> taskID = RecordedTask(share);
  if (taskID) RequireSafeTask(share, *taskID);
  return taskID;
}

std::string RequireRecordedTask(const std::string& share) {
  const std::optional<std::string> taskID = RecordedTask(share);
  if (taskID) return *taskID;
  RequireShare(share);
  RequireMap();
  throw Failure(kNothingRecorded,
                fmt::format("no calculation of share {} is recorded", Quoted(share)),
                fmt::format("start one with: zorv-snapusage run {}", ShareWord(share)));
}

std::string RequireTask(const std::string& share) {
  const std::string taskID = RequireRecordedTask(share);
  RequireSafeTask(share, taskID);
  return taskID;
}

std::optional<Calculation> ReadCalculation(const std::string& share, const std::string& taskID) {
  const std::optional<Calculation> calculation = ReadAnyCalculation(share, taskID);
  if (!calculation || calculation->stateKnown) return calculation;
  throw Failure(
      kSystemFailure,
      fmt::format("the record of share {} is in state {}, which this version does not know",
                  Quoted(share), Quoted(calculation->stateWord)),
      fmt::format("use the version that wrote it, or remove the record with: "
                  "zorv-snapusage clean {}",
                  ShareWord(share)));
}

std::optional<Calculation> ReadAnyCalculation(const std::string& share, const std::string& taskID) {
  // The task's record first: when it is gone by then, the share's is the final one.
  const Json::Value task = TaskRecord(taskID);
  const std::optional<Json::Value> record = ShareRecord(share);
  if (!record) return std::nullopt;
  Calculation calculation;
  calculation.taskID = taskID;
  calculation.stateWord = Attribute(*record, TASKSTATUS_ATTR_STATUS);
  if (calculation.stateWord.empty()) return std::nullopt;
  calculation.stateKnown =
      TaskStatus::CnvStatusStrToEnumIdx(calculation.stateWord, calculation.state) == RESULT_OK;
  // Whatever it is, its process is at work as long as it is there.
  if (!calculation.stateKnown) calculation.state = CAL_TASK_STATUS_PROCESS;
  calculation.pid = Process(Attribute(task, TASKSTATUS_ATTR_PID));
  // Where the task's record has gone, or has been damaged, its process may be at work all the same.
  if (!calculation.pid && calculation.state == CAL_TASK_STATUS_PROCESS && !IsClaimed(share))
    calculation.pid = Process(Attribute(*record, TASKSTATUS_ATTR_PID));
  if (!task.isObject() && calculation.Finished())
    FillFrom(*record, calculation);
  else
    FillFrom(task, calculation);
  // A launch that failed wrote its code into the share's record alone.
  if (calculation.Finished() && !calculation.errorCode)
    calculation.errorCode = ErrorCode(Attribute(*record, TASKSTATUS_ATTR_ERROR_CODE));
  return calculation;
}

Calculation RequireCalculation(const std::string& share, const std::string& taskID) {
  if (std::optional<Calculation> calculation = ReadCalculation(share, taskID)) return *calculation;
  throw Failure(
      kNothingRecorded, fmt::format("the record of share {} has no state", Quoted(share)),
      fmt::format("remove the rest of it with: zorv-snapusage clean {}", ShareWord(share)));
}

std::optional<time_t> ClaimAheadOfClock(const std::string& share) {
  const Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
  if (!map.isObject() || !map[share].isObject()) return std::nullopt;
  const Json::Value& claimed = map[share]["time"];
  if (!claimed.isInt64()) return std::nullopt;
  const time_t t = claimed.asInt64();
  if (t <= time(nullptr) + kTrustedLeadSeconds) return std::nullopt;
  return t;
}

Activity ActivityOf(const std::string& share, Calculation& calculation) {
  const Activity activity = ActivityAsRead(share, calculation);
  if (activity != Activity::kDied) return activity;
  // The final state is written before the process ends.
  const std::optional<Calculation> now = ReadAnyCalculation(share, calculation.taskID);
  if (!now) return Activity::kNone;
  calculation = *now;
  return ActivityAsRead(share, calculation);
}

const char* WordOf(Activity activity) {
  switch (activity) {
    case Activity::kClaimed:
      return "claimed";
    case Activity::kRunning:
      return "running";
    case Activity::kFinishing:
      return "finishing";
    case Activity::kDied:
      return "died";
    default:
      return "none";
  }
}

bool IsUnderWay(const std::string& share, Calculation calculation) {
  const Activity activity = ActivityOf(share, calculation);
  if (!calculation.stateKnown) return activity == Activity::kRunning;
  return activity != Activity::kNone && activity != Activity::kDied;
}

std::vector<std::string> RecordedShares() {
  StringList shares;
  if (!ShareSnapUsageCal::GetShareTaskList(shares.Ref()))
    throw SystemFailure("the record of calculations cannot be read");
  return shares.Strings();
}

std::vector<std::string> SharesUnderWay() {
  std::vector<std::string> underWay;
  for (const std::string& share : RecordedShares()) {
    const std::optional<std::string> taskID = RecordedTask(share);
    if (!taskID || !IsTaskID(*taskID) || !CanBeShareName(share)) continue;
    const std::optional<Calculation> calculation = ReadAnyCalculation(share, *taskID);
    if (calculation && IsUnderWay(share, *calculation)) underWay.push_back(share);
  }
  return underWay;
}

const char* ReasonOf(int errorCode) {
  switch (errorCode) {
    case RESULT_OK:
      return "no error";
    case RESULT_FAILURE:
      return "the command reported a failure, or its output could not be recorded";
    case RESULT_INVALID_ARGUMENT:
      return "the snapshots do not lie on one btrfs volume, or one has gone";
    case RESULT_COMMAND_MISSING:
      return "/sbin/btrfs is missing";
    case RESULT_INVALID_OBJECT:
      return "the calculator did not start";
    case RESULT_STOPPED:
      return "stopped";
    case RESULT_COMMAND_FAILED:
      return "/sbin/btrfs could not be started";
    case RESULT_EMPTY_LIST:
      return "there was no snapshot to calculate";
    default:
      return "unexpected";
  }
}

}  // namespace ZorvSnapUsage
