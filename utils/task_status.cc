// The vocabulary of status files, and the status file of one task: each operation locks, reads,
// changes, writes and unlocks it by itself. One that runs out of memory fails and throws nothing.
#include "zorvbtrfssnapusage/task_status.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <utility>

#include "base/ensure_dirs.h"
#include "base/log.h"
#include "base/paths.h"
#include "intl_utils/json_shape.h"
#include "intl_utils/json_store.h"
#include "zorvbtrfssnapusage/utils.h"

// The first priority that programs may use: the tables stand before the initialisers of the
// library's other units run, whatever the order of linking.
#define FILLED_FIRST __attribute__((init_priority(101)))

FILLED_FIRST std::map<ZorvBtrfsUsage::TASKSTATUS_ATTR, std::string> _task_status_attr_str = {
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_STATUS, "status"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_START_TIME, "start_time"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_END_TIME, "end_time"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_PID, "pid"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_ERROR_CODE, "error_code"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_ERROR_MSG, "error_msg"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_BTRFS_CMD, "btrfs_cmd"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "processed_in_bytes"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_ESTIMATED_IN_BYTES, "estimated_in_bytes"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_RANGE_START, "range_start"},
    {ZorvBtrfsUsage::TASKSTATUS_ATTR_RANGE_END, "range_end"},
};

FILLED_FIRST std::map<ZorvBtrfsUsage::CAL_TASK_STATUS, std::string> _cal_task_status_str = {
    {ZorvBtrfsUsage::CAL_TASK_STATUS_READY, "ready"},
    {ZorvBtrfsUsage::CAL_TASK_STATUS_PROCESS, "process"},
    {ZorvBtrfsUsage::CAL_TASK_STATUS_FAIL, "fail"},
    {ZorvBtrfsUsage::CAL_TASK_STATUS_STOP, "stop"},
    {ZorvBtrfsUsage::CAL_TASK_STATUS_DONE, "done"},
};

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "utils/task_status";

// The first row with exactly this text, in ascending order.
template <typename Enum>
int EnumOf(const std::map<Enum, std::string>& table, const std::string& text, Enum& out) {
  for (const auto& [value, name] : table) {
    if (name != text) continue;
    out = value;
    return RESULT_OK;
  }
  return RESULT_NOT_FOUND;
}

// Kept: a subscript, so a value outside the enumeration gives the empty text and adds its row to
// the shared table; a lookup never fails, and programs find the empty text again by conversion.
template <typename Enum>
const std::string& TextOf(std::map<Enum, std::string>& table, const Enum& value) {
  return table[value];
}

// The record lock of an object for one scope. Callers say in their own name when it is not to be
// had.
class TaskFileLock {
 public:
  explicit TaskFileLock(TaskStatus& status) : status_(status) {}
  // Also when the lock was never taken: a failure may have left an open descriptor behind.
  ~TaskFileLock() { (void)status_.UnlockFile(); }
  TaskFileLock(const TaskFileLock&) = delete;
  TaskFileLock& operator=(const TaskFileLock&) = delete;

  bool TakeShared() { return status_.LockFile(/*exclusive=*/false); }
  bool TakeExclusive() { return status_.LockFile(/*exclusive=*/true); }

 private:
  TaskStatus& status_;
};

// How far a calculation is: each line of the command tells it anew, and after a power cut, which no
// calculation survives, nobody asks. All else is state.
bool IsProgress(int attr) {
  return attr == TASKSTATUS_ATTR_PROCESSED_IN_BYTES || attr == TASKSTATUS_ATTR_ESTIMATED_IN_BYTES;
}

// Copies the members of the vocabulary, the values as they are. Returns what the change is worth.
Durability CopyKnownMembers(const Json::Value& source, Json::Value& target) {
  Durability worth = Durability::kOrdered;
  for (int attr = TASKSTATUS_ATTR_STATUS; attr <= TASKSTATUS_ATTR_RANGE_END; ++attr) {
    const std::string& key = TextOf(_task_status_attr_str, static_cast<TASKSTATUS_ATTR>(attr));
    const Json::Value* value = JsonMember(source, key);
    if (value == nullptr) continue;
    const Json::Value* old = JsonMember(target, key);
    if (!IsProgress(attr) && (old == nullptr || *old != *value)) worth = Durability::kSynced;
    target[key] = *value;
  }
  return worth;
}

}  // namespace

TaskStatus::TaskStatus() : lockFd(-1) {}

TaskStatus::TaskStatus(const std::string& id) : TaskStatus() { (void)TaskStatus::Init(id, false); }

TaskStatus::~TaskStatus() = default;

bool TaskStatus::Valid() const { return !statusFilePath.empty(); }

std::string TaskStatus::GetFilePath(const std::string& id) try {
  return TaskStatusPath(id);
} catch (const std::exception&) {
  return std::string();
}

std::string TaskStatus::GetFileLockPath(const std::string& id) try {
  return TaskStatusLock(id);
} catch (const std::exception&) {
  return std::string();
}

bool TaskStatus::CheckFile(const std::string& id) {
  // Takes no memory: a task must not look gone for want of it. What does not fit is no path.
  char path[PATH_MAX];
  const int length = snprintf(path, sizeof path, "%s/%s", kTaskStatusDir, id.c_str());
  return length > 0 && static_cast<size_t>(length) < sizeof path && PLATCFileExist(path) == 1;
}

bool TaskStatus::CleanFile(const std::string& id) try {
  // Kept: without a status file its lock file is left alone, somebody may be about to use it.
  if (!CheckFile(id)) return true;

  for (const std::string& path : {TaskStatusPath(id), TaskStatusLock(id)}) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) continue;
    ZLOG_TASK(LOG_ERR, id, "Failed to unlink file (%s) err:(%s) ", path.c_str(), strerror(errno));
  }
  return true;
} catch (const std::exception&) {
  return true;
}

int TaskStatus::CnvStatusStrToEnumIdx(const std::string& status, CAL_TASK_STATUS& out) {
  return EnumOf(_cal_task_status_str, status, out);
}

int TaskStatus::CnvAttrsStrToEnumIdx(const std::string& attr, TASKSTATUS_ATTR& out) {
  return EnumOf(_task_status_attr_str, attr, out);
}

bool TaskStatus::Init(const std::string& id, bool create) try {
  // Kept: also with `create` nothing is tested or written. After an Import the ID is the other
  // task's while the paths are still this object's: Init with that ID returns here too.
  if (Valid() && id == taskID) return true;
  if (id.empty()) return false;
  if (!EnsureDirs(ZLOG_HERE, {kRunDir, kLockDir, kTaskStatusDir, kTaskStatusLockDir})) return false;

  std::string newID = id;
  std::string newStatusPath = TaskStatusPath(id);
  std::string newLockPath = TaskStatusLock(id);
  // From here nothing fails: the object is bound to one task, never to parts of two.
  taskID = std::move(newID);
  statusFilePath = std::move(newStatusPath);
  lockFilePath = std::move(newLockPath);

  if (!create || CheckAttrExist(TASKSTATUS_ATTR_STATUS)) return true;
  if (SetCalculatorStatus(CAL_TASK_STATUS_READY) == RESULT_OK) return true;
  ZLOG_TASK(LOG_ERR, id, "Failed to initialize status of TaskStatus");
  return false;
} catch (const std::exception&) {
  return false;
}

bool TaskStatus::LockFile(bool exclusive) {
  if (!Valid()) {
    ZLOG_TASK(LOG_ERR, taskID, "Invalid object");
    return false;
  }
  if (Utils::GeneralFileLock(lockFilePath, exclusive, lockFd)) return true;
  ZLOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", lockFilePath.c_str(),
       exclusive ? 1 : 0);
  return false;
}

bool TaskStatus::UnlockFile() {
  if (!Valid()) return false;
  if (!Utils::GeneralFileUnlock(lockFd)) ZLOG(LOG_ERR, "Failed to unlock fd(%d)", lockFd);
  lockFd = -1;
  return true;
}

int TaskStatus::GetJsonVal(Json::Value& out) try {
  if (!Valid()) {
    ZLOG_TASK(LOG_ERR, taskID, "Invalid object[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_INVALID_OBJECT;
  }

  Json::Value document;
  {
    TaskFileLock lock(*this);
    if (!lock.TakeShared()) ZLOG_TASK(LOG_ERR, taskID, "lock failed");
    document = Utils::GetJsonAttrByPath(statusFilePath.c_str());
  }
  if (!CanHoldMembers(document)) return RESULT_FAILURE;
  out = std::move(document);
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int TaskStatus::SetStatusAttr(const TASKSTATUS_ATTR& attr, const std::string& value) try {
  const std::string& key = TextOf(_task_status_attr_str, attr);
  if (!Valid()) {
    ZLOG_TASK(LOG_ERR, taskID, "Invalid object");
    return RESULT_INVALID_OBJECT;
  }

  // Kept: a writer never gives up for want of the lock; a calculation that cannot say how far it is
  // would look dead to its callers.
  TaskFileLock lock(*this);
  if (!lock.TakeExclusive()) ZLOG_TASK(LOG_ERR, taskID, "lock failed");

  Json::Value document = Utils::GetJsonAttrByPath(statusFilePath.c_str());
  if (!CanHoldMembers(document)) {  // somebody else's file: not ours to overwrite
    ZLOG_TASK(LOG_ERR, taskID, "Failed to write task attr. to file [%s][0x%04X %s:%d]",
              statusFilePath.c_str(), PLAT_ERR);
    return RESULT_FAILURE;
  }
  document[key] = value;
  const Durability worth = IsProgress(attr) ? Durability::kOrdered : Durability::kSynced;
  return StoreJson(statusFilePath, document, worth) ? RESULT_OK : RESULT_FAILURE;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int TaskStatus::SetStatusIntAttr(const TASKSTATUS_ATTR& attr, const int& value) {
  return SetStatusAttr(attr, std::to_string(value)) == RESULT_OK ? RESULT_OK : RESULT_FAILURE;
}

int TaskStatus::SetStatusNowTimeAttr(const TASKSTATUS_ATTR& attr) {
  std::string now;
  if (!Utils::NowTimeStringGet(now)) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to get the now string[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FAILURE;
  }
  return SetStatusAttr(attr, now) == RESULT_OK ? RESULT_OK : RESULT_FAILURE;
}

int TaskStatus::GetStatusAttr(const TASKSTATUS_ATTR& attr, std::string& out) try {
  const std::string& key = TextOf(_task_status_attr_str, attr);
  if (!Valid()) {
    ZLOG_TASK(LOG_ERR, taskID, "Invalid object");
    return RESULT_INVALID_OBJECT;
  }

  Json::Value document;
  {
    // Kept: a reader goes on without the lock; the file is replaced whole, so it reads a whole one.
    TaskFileLock lock(*this);
    if (!lock.TakeShared()) ZLOG_TASK(LOG_ERR, taskID, "lock failed");
    document = Utils::GetJsonAttrByPath(statusFilePath.c_str());
  }
  const Json::Value* member = JsonMember(document, key);
  if (member != nullptr && JsonText(*member, out)) return RESULT_OK;
  ZLOG_TASK(LOG_DEBUG, taskID, "Do not have member (%s)", key.c_str());
  return RESULT_FAILURE;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int TaskStatus::GetStatusIntAttr(const TASKSTATUS_ATTR& attr, int& out) {
  std::string text;
  if (GetStatusAttr(attr, text) != RESULT_OK) return RESULT_FAILURE;

  errno = 0;  // sscanf need not set it, and the line would show an older failure
  // Kept: leading blanks and what follows the digits are accepted as sscanf accepts them.
  if (sscanf(text.c_str(), "%d", &out) == 1) return RESULT_OK;
  ZLOG_TASK(LOG_ERR, taskID, "Failed to convert [%s] into integer value, errno: %s", text.c_str(),
            strerror(errno));
  return RESULT_FAILURE;
}

int TaskStatus::GetStatusTimeAttr(const TASKSTATUS_ATTR& attr, time_t& out) {
  std::string text;
  if (GetStatusAttr(attr, text) != RESULT_OK) return RESULT_FAILURE;
  return Utils::TimeStringToTime_T(text, out) ? RESULT_OK : RESULT_FAILURE;
}

bool TaskStatus::CheckAttrExist(const TASKSTATUS_ATTR& attr) try {
  const std::string& key = TextOf(_task_status_attr_str, attr);
  // Kept: no test of the object's validity; an object bound to nothing has no member, and the
  // failed lock says why.
  TaskFileLock lock(*this);
  if (!lock.TakeShared()) ZLOG_TASK(LOG_ERR, taskID, "lock failed");
  return JsonMember(Utils::GetJsonAttrByPath(statusFilePath.c_str()), key) != nullptr;
} catch (const std::exception&) {
  return false;
}

int TaskStatus::GetCalculatorStatus(CAL_TASK_STATUS& out) {
  std::string word;
  if (GetStatusAttr(TASKSTATUS_ATTR_STATUS, word) != RESULT_OK) {
    ZLOG_TASK(LOG_DEBUG, taskID, "Failed to get status of TaskStatus");
    return RESULT_FAILURE;
  }
  if (CnvStatusStrToEnumIdx(word, out) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to convert status %s to enum index", word.c_str());
    return RESULT_FAILURE;
  }
  return RESULT_OK;
}

int TaskStatus::GetCalculatorStatus(CAL_TASK_STATUS& out, int& errorCode) {
  if (GetCalculatorStatus(out) != RESULT_OK) return RESULT_FAILURE;
  if (out < CAL_TASK_STATUS_FAIL) {
    errorCode = -1;
    return RESULT_OK;
  }
  if (GetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, errorCode) == RESULT_OK) return RESULT_OK;
  ZLOG_TASK(LOG_ERR, taskID, "Failed to get error code of TaskStatus");
  return RESULT_FAILURE;
}

int TaskStatus::SetCalculatorStatus(const CAL_TASK_STATUS& status) try {
  const std::string& word = TextOf(_cal_task_status_str, status);
  if (SetStatusAttr(TASKSTATUS_ATTR_STATUS, word) == RESULT_OK) return RESULT_OK;
  ZLOG_TASK(LOG_ERR, taskID, "Failed to initialize status of TaskStatus");
  return RESULT_FAILURE;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

bool TaskStatus::Import(TaskStatus& other) try {
  // Kept: the ID alone, for log lines; the paths stay this object's.
  taskID = other.taskID;

  // The source is read before the own lock is taken: the two are never held together.
  TaskFileLock lock(*this);
  Json::Value source;
  if (other.GetJsonVal(source) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to get json value[0x%04X %s:%d]", PLAT_ERR);
    return false;
  }

  // Kept: unlike the operations on one member, this one needs the lock; half of one task's members
  // among those of another would be worse than none.
  if (!lock.TakeExclusive()) {
    ZLOG_TASK(LOG_ERR, taskID, "lock failed[0x%04X %s:%d]", PLAT_ERR);
    return false;
  }

  Json::Value target = Utils::GetJsonAttrByPath(statusFilePath.c_str());
  if (target.isNull()) target = Json::Value(Json::objectValue);  // a status file is an object
  if (target.isObject()) {
    const Durability worth = CopyKnownMembers(source, target);
    if (StoreJson(statusFilePath, target, worth)) return true;
  }
  ZLOG_TASK(LOG_ERR, taskID, "Failed to write task attr. to file [%s][0x%04X %s:%d]",
            statusFilePath.c_str(), PLAT_ERR);
  return false;
} catch (const std::exception&) {
  return false;
}

}  // namespace ZorvBtrfsUsage
