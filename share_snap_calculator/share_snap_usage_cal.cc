// The calculations of shares. In this order: the share-to-task map and its selector, look-ups in
// the map, creation and launch, the calculator's callbacks, results, cleanup.
//
// The map may have been written by somebody else. What has the wrong shape is never touched by a
// writer (that fails) and holds nothing for a reader:
//   - a map that is no object has no shares, an entry that is no object or names no task has no
//     task, a snapshot list that is no object has no snapshots;
//   - a creation time that is no number, or none of 32 bits without a sign, makes the look-up fail:
//     whether the task is expired cannot be told.
//
// Lock order: a share's lock, then the map's. Public functions end in a handler: running out of
// memory is the failure that the operation documents, never an exception.
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <charconv>
#include <exception>
#include <map>
#include <string_view>
#include <utility>

#include "base/ensure_dirs.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/sz_list.h"
#include "intl_utils/json_shape.h"
#include "intl_utils/plain_json.h"
#include "intl_utils/scoped_file_lock.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/task_result.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "share_snap_calculator/share_snap_usage_cal";

// Members of a share's entry in the map.
constexpr char kKeyTaskID[] = "task_id";
constexpr char kKeyTime[] = "time";
constexpr char kKeySnapList[] = "snap_list";
constexpr char kKeyVolumeID[] = "volume_id";

// From this age on an entry keeps nobody from a new task.
constexpr double kTaskExpirySeconds = 120.0;

// The last component of a path as POSIX basename(3) has it (slashes at the end do not count), on a
// copy: the path may belong to a list.
std::string LastComponent(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "." : "/";
  const size_t slash = path.find_last_of('/', end);
  const size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(begin, end + 1 - begin);
}

// The names of the members; none for what is no object.
Json::Value::Members MemberNames(const Json::Value& value) {
  return value.isObject() ? value.getMemberNames() : Json::Value::Members();
}

// A new list, or null with the log line of all callers.
SzList NewSzList(LogSite site) {
  SzList list = MakeSzList();
  if (!list) ZLOG_AT(site, LOG_ERR, "PLATCSzListAlloc failed. [0x%04X %s:%d]", PLAT_ERR);
  return list;
}

// Pushes a text, or logs why it could not.
bool PushText(LogSite site, PLATSZLIST** list, const std::string& text) {
  if (PLATCSzListPush(list, text.c_str()) >= 0) return true;
  ZLOG_AT(site, LOG_ERR, "Failed to push [%s] to the list[0x%04X %s:%d]", text.c_str(), PLAT_ERR);
  return false;
}

// An element of a list, or null with a log line.
const char* ListElement(LogSite site, const PLATSZLIST* list, int index) {
  const char* text = PLATCSzListGet(list, index);
  if (text == nullptr)
    ZLOG_AT(site, LOG_ERR, "Failed to get element from list[0x%04X %s:%d]", PLAT_ERR);
  return text;
}

// ---- The share-to-task map ----------------------------------------------------------------------

// The map as it is now; null when there is none. 0, or 1: no lock, `out` as it was.
int ReadShareTaskMap(Json::Value& out) {
  const ScopedFileLock lock(ZLOG_HERE, kShareMapLock, ScopedFileLock::kShared);
  if (!lock.Held()) return RESULT_FAILURE;
  out = Utils::GetJsonAttrByPath(kShareMap);
  return RESULT_OK;
}

// ReadShareTaskMap for a look-up that needs but some entries: those that are wanted, or all.
int ReadShareTaskEntries(const MemberFilter& wanted, Json::Value& out) {
  const ScopedFileLock lock(ZLOG_HERE, kShareMapLock, ScopedFileLock::kShared);
  if (!lock.Held()) return RESULT_FAILURE;
  if (!ReadPlainMembers(kShareMap, wanted, out)) out = Utils::GetJsonAttrByPath(kShareMap);
  return RESULT_OK;
}

// Wants the entry of one share.
MemberFilter EntryOf(const std::string& shareName) {
  return [&shareName](std::string_view name, std::string_view) { return name == shareName; };
}

// Wants the entries whose text has the ID somewhere; the entry of its task is among them.
MemberFilter EntriesNaming(const std::string& taskID) {
  return [&taskID](std::string_view, std::string_view entry) {
    return memmem(entry.data(), entry.size(), taskID.data(), taskID.size()) != nullptr;
  };
}

// What a change of the map came to.
enum class MapChange {
  kWrite,  // the map has changed
  kKeep,   // there was nothing to change: the file is not touched
  kFail,   // it could not be made: the file is not touched
};

// Reads the map, lets `change` work on it and writes it, all under the exclusive lock, so that no
// writer loses another's entry. 0, or 1.
template <typename Change>
int UpdateShareTaskMap(const Change& change) {
  const ScopedFileLock lock(ZLOG_HERE, kShareMapLock, ScopedFileLock::kExclusive);
  if (!lock.Held()) return RESULT_FAILURE;
  Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
  switch (change(map)) {
    case MapChange::kKeep:
      return RESULT_OK;
    case MapChange::kFail:
      ZLOG(LOG_DEBUG, "Failed to write Json data to file, path: %s", kShareMap);
      return RESULT_FAILURE;
    case MapChange::kWrite:
      break;
  }
  return Utils::SetJsonAttrByPath(kShareMap, map) ? RESULT_OK : RESULT_FAILURE;
}

// UpdateShareTaskMap for the entry of one share, which is made when it is missing.
template <typename Change>
int UpdateShareEntry(const std::string& shareName, const Change& change) {
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  return UpdateShareTaskMap([&](Json::Value& map) {
    if (!CanHoldMembers(map)) return MapChange::kFail;
    Json::Value& entry = map[shareName];
    return CanHoldMembers(entry) ? change(entry) : MapChange::kFail;
  });
}

// Gives the share a new task, created at `now`. Whatever else the entry holds stays: the volume of
// the previous task until the next launch.
int RecordTask(const std::string& shareName, const std::string& taskID, time_t now) {
  return UpdateShareEntry(shareName, [&](Json::Value& entry) {
    entry[kKeyTaskID] = taskID;
    entry[kKeyTime] = static_cast<Json::Int64>(now);
    entry[kKeySnapList] = Json::nullValue;
    return MapChange::kWrite;
  });
}

// Records the volume of the launched snapshots.
int RecordVolume(const std::string& shareName, int volume) {
  return UpdateShareEntry(shareName, [&](Json::Value& entry) {
    entry[kKeyVolumeID] = volume;
    return MapChange::kWrite;
  });
}

// Records which snapshot has which subvolume ID; element i of one list belongs to element i of the
// other.
int RecordSnapshots(const std::string& shareName, const PLATSZLIST* paths,
                    const PLATSZLIST* subvolIDs) {
  return UpdateShareEntry(shareName, [&](Json::Value& entry) {
    Json::Value& snapList = entry[kKeySnapList];
    if (!CanHoldMembers(snapList)) return MapChange::kFail;
    for (int i = 0; i < paths->count; ++i) {
      const char* path = ListElement(ZLOG_HERE, paths, i);
      const char* subvolID = path == nullptr ? nullptr : ListElement(ZLOG_HERE, subvolIDs, i);
      if (subvolID == nullptr) return MapChange::kFail;
      snapList[LastComponent(path)] = subvolID;
    }
    return MapChange::kWrite;
  });
}

// Whether `name` is an element of the list. -1: an element could not be read.
int ListContains(const PLATSZLIST* list, const std::string& name) {
  for (int i = 0; i < list->count; ++i) {
    const char* element = ListElement(ZLOG_HERE, list, i);
    if (element == nullptr) return -1;
    if (name == element) return 1;
  }
  return 0;
}

// Removes the entries of shares that are not in the list. False: the list could not be read.
bool PruneShares(Json::Value& map, const PLATSZLIST* shares) {
  for (const std::string& name : MemberNames(map)) {
    const int exists = ListContains(shares, name);
    if (exists < 0) return false;
    if (exists == 0) map.removeMember(name);
  }
  return true;
}

// Removes the share's entry and entries of shares that no longer exist.
// 0: done, or nothing to remove.  1: lock, list or write failed.  3: empty name.
int RemoveShareFromTaskMap(const std::string& shareName) {
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  SzList shares = NewSzList(ZLOG_HERE);
  if (!shares) return RESULT_FAILURE;
  if (ZORVShareEnum(SzListRef(shares), ZORV_SHARE_ENUM_ALL) < 0) {
    ZLOG(LOG_ERR, "Fail in ZORVShareEnum[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FAILURE;
  }
  return UpdateShareTaskMap([&](Json::Value& map) {
    // Kept: without an entry of this share nothing is written, so vanished shares stay as well;
    // they go with the next removal that has something to remove.
    if (JsonMember(map, shareName) == nullptr) return MapChange::kKeep;
    map.removeMember(shareName);
    return PruneShares(map, shares.get()) ? MapChange::kWrite : MapChange::kFail;
  });
}

// The ID of an entry's task. False: the entry names none; `taskID` as it was.
bool TaskIDOf(const Json::Value& entry, std::string& taskID) {
  const Json::Value* member = JsonMember(entry, kKeyTaskID);
  std::string text;
  if (member == nullptr || !JsonText(*member, text) || text.empty()) return false;
  taskID = text;
  return true;
}

// The creation time of an entry's task; one without a time is as old as the epoch.
bool CreationTimeOf(const Json::Value& entry, time_t& created) {
  const Json::Value* member = JsonMember(entry, kKeyTime);
  if (member != nullptr && !member->isConvertibleTo(Json::uintValue)) return false;
  created = member == nullptr ? 0 : static_cast<time_t>(member->asUInt());
  return true;
}

// The share's snapshot list, owned by `map`; null when there is none.
const Json::Value* SnapListOf(const Json::Value& map, const std::string& shareName) {
  const Json::Value* entry = JsonMember(map, shareName);
  return entry == nullptr ? nullptr : JsonMember(*entry, kKeySnapList);
}

// A whole text of decimal digits as a number of 64 bits.
bool ParseDecimal(const std::string& text, unsigned long long& number) {
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end;
}

// Subvolume ID to snapshot name, the first name of an ID in map order. What is no decimal number
// is nobody's ID.
std::map<unsigned long long, std::string> SnapNamesByID(const Json::Value& snapList) {
  std::map<unsigned long long, std::string> names;
  for (const std::string& name : MemberNames(snapList)) {
    std::string text;
    unsigned long long id = 0;
    if (JsonText(snapList[name], text) && ParseDecimal(text, id)) names.emplace(id, name);
  }
  return names;
}

// The selector for snapshots from `start` to `end`; null selects all of them.
// Kept: a time that has no snapshot name is no error, the share's snapshots are then all listed.
Json::Value BuildSnapTimeSelector(time_t start, time_t end) {
  if (start == end) return Json::Value();
  char startName[1024];
  if (Utils::SnapNameGenerateByTime(startName, sizeof startName, start, /*local=*/1) != 0) {
    ZLOG(LOG_ERR, "Failed to covert time, start: %lu", static_cast<unsigned long>(start));
    return Json::Value();
  }
  char endName[1024];
  if (Utils::SnapNameGenerateByTime(endName, sizeof endName, end, /*local=*/1) != 0) {
    ZLOG(LOG_ERR, "Failed to covert time, end: %lu", static_cast<unsigned long>(end));
    return Json::Value();
  }
  Json::Value selector;
  selector["time"].append(std::string(">=") + startName);
  selector["time"].append(std::string("<=") + endName);
  return selector;
}

}  // namespace

// ---- Look-ups in the map ------------------------------------------------------------------------

int ShareSnapUsageCal::FindTaskID(const std::string& shareName, std::string& taskID,
                                  bool& expired) try {
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  Json::Value map;
  if (ReadShareTaskEntries(EntryOf(shareName), map) != RESULT_OK) return RESULT_FAILURE;
  const Json::Value* entry = JsonMember(map, shareName);
  if (entry == nullptr || !TaskIDOf(*entry, taskID)) {
    taskID.clear();
    return RESULT_NOT_FOUND;
  }
  time_t created = 0;
  if (!CreationTimeOf(*entry, created)) return RESULT_FAILURE;
  const time_t now = time(nullptr);
  if (now == static_cast<time_t>(-1)) return RESULT_FAILURE;
  // Kept: a task that is exactly 120 seconds old has expired.
  expired = difftime(now, created) >= kTaskExpirySeconds;
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int ShareSnapUsageCal::FindValidTaskID(const std::string& shareName, std::string& taskID) {
  bool expired = false;
  const int code = FindTaskID(shareName, taskID, expired);
  if (code != RESULT_OK) return code;
  return expired ? RESULT_NOT_FOUND : RESULT_OK;
}

int ShareSnapUsageCal::FindShareNameByTaskID(const std::string& taskID,
                                             std::string& shareName) try {
  if (taskID.empty()) {
    ZLOG_INVALID_ARG("!taskID.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  Json::Value map;
  if (ReadShareTaskEntries(EntriesNaming(taskID), map) != RESULT_OK) return RESULT_FAILURE;
  for (const std::string& name : MemberNames(map)) {
    std::string candidate;
    if (!TaskIDOf(map[name], candidate) || candidate != taskID) continue;
    shareName = name;
    return RESULT_OK;
  }
  return RESULT_NOT_FOUND;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

bool ShareSnapUsageCal::GetShareTaskList(PLATSZLIST** list) try {
  Json::Value map;
  if (ReadShareTaskMap(map) != RESULT_OK) return false;
  for (const std::string& name : MemberNames(map))
    if (!PushText(ZLOG_HERE, list, name)) return false;
  return true;
} catch (const std::exception&) {
  return false;
}

// ---- Creation and launch ------------------------------------------------------------------------

namespace {

// The lock that lets one process at a time claim a share.
std::string ShareTaskLock(const std::string& shareName) {
  char path[1024];
  (void)snprintf(path, sizeof path, "%s/%s.lock", kShareTaskLockDir, shareName.c_str());
  return path;
}

// Why the paths cannot be launched, or 0.
int CheckSnapPaths(const PLATSZLIST* paths, bool valid) {
  if (paths == nullptr || paths->count < 0) return RESULT_INVALID_ARGUMENT;
  if (paths->count == 0) return RESULT_EMPTY_LIST;
  return valid ? RESULT_OK : RESULT_INVALID_OBJECT;
}

// Notes in the map what is to be calculated and gives the subvolume IDs of the paths. 0, or what
// failed.
int ResolveSnapshots(const std::string& shareName, int volume, PLATSZLIST** paths,
                     SzList& subvolIDs) {
  const int code = RecordVolume(shareName, volume);
  if (code != RESULT_OK) return code;
  if (BtrfsTool::PathToRootId(paths, SzListRef(subvolIDs)) < 0) {
    ZLOG(LOG_ERR, "Failed to convert snapshot paths to subvolume IDs[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FAILURE;
  }
  return RecordSnapshots(shareName, *paths, subvolIDs.get());
}

// The end of a launch that failed: the share shows it. Returns the code.
int FailLaunch(ShareTaskStatus& shareStatus, int code) {
  (void)shareStatus.SetCalculatorStatus(CAL_TASK_STATUS_FAIL);
  (void)shareStatus.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, code);
  return code;
}

// Asks each snapshot for its time.
// Kept: the times change neither the list nor the range; a name without a time is only logged.
void CheckSnapshotTimes(const PLATSZLIST* paths) {
  for (int i = 0; i < paths->count; ++i) {
    const char* path = PLATCSzListGet(paths, i);
    const std::string name = LastComponent(path == nullptr ? "" : path);
    time_t taken = 0;
    if (ZORVShareSnapTimeGet(name.c_str(), &taken) < 0)
      ZLOG(LOG_ERR, "Failed to get timestamp from snapshot [%s][0x%04X %s:%d]", name.c_str(),
           PLAT_ERR);
  }
}

// Writes one end of the range into the share's status.
bool RecordRangeEnd(ShareTaskStatus& shareStatus, const TASKSTATUS_ATTR& attr, time_t t) {
  std::string text;
  if (!Utils::Time_tToTimeString(t, text)) {
    ZLOG(LOG_ERR, "Failed to get time string from time [%lu], err=%s[0x%04X %s:%d]",
         static_cast<unsigned long>(t), strerror(errno), PLAT_ERR);
    return false;
  }
  return shareStatus.SetStatusAttr(attr, text) == RESULT_OK;
}

}  // namespace

ShareSnapUsageCal::ShareSnapUsageCal() = default;

ShareSnapUsageCal::ShareSnapUsageCal(const std::string& id) {
  try {
    (void)calculator.Init(id);
  } catch (const std::exception&) {  // no memory: an object that works for no share either way
  }
}

ShareSnapUsageCal::~ShareSnapUsageCal() = default;

bool ShareSnapUsageCal::Valid() const { return !shareName.empty() && calculator.Valid(); }

int ShareSnapUsageCal::CreateTask(const std::string& share) try {
  if (share.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  if (Valid()) return RESULT_OK;
  if (!EnsureDirs(ZLOG_HERE, {kRunDir, kLockDir, kPersistentDir, kShareTaskLockDir,
                              kShareTaskResultDir, ShareResultDir(share)}))
    return RESULT_FAILURE;

  // Held to the end: between the check and the entry in the map nobody else may claim the share.
  const ScopedFileLock lock(ZLOG_HERE, ShareTaskLock(share), ScopedFileLock::kExclusive);
  if (!lock.Held()) return RESULT_FAILURE;
  std::string oldTaskID;
  if (!CheckAvail(share, oldTaskID)) return RESULT_SHARE_BUSY;
  if (!oldTaskID.empty() && TaskStatus::CheckFile(oldTaskID) && !TaskStatus::CleanFile(oldTaskID))
    ZLOG(LOG_DEBUG, "Failed to clean up task status with ID: %s", oldTaskID.c_str());

  shareName = share;
  if (!shareStatus.Init(share, /*create=*/true)) {
    ZLOG(LOG_ERR,
         "Failed to initialize task status of snapshot calculator for share [%s][0x%04X %s:%d]",
         share.c_str(), PLAT_ERR);
    return RESULT_FAILURE;
  }
  if (shareStatus.SetCalculatorStatus(CAL_TASK_STATUS_READY) != RESULT_OK) {
    ZLOG(LOG_ERR, "Failed to set ShareTaskStatus for share [%s] as ready status[0x%04X %s:%d]",
         share.c_str(), PLAT_ERR);
    return RESULT_FAILURE;
  }
  if (!SnapUsageCalculator::CreateTask(calculator)) {
    ZLOG(LOG_ERR, "Failed to create the calculator for share [%s]", share.c_str());
    return RESULT_CALCULATOR_FAILED;
  }
  const time_t now = time(nullptr);
  if (now == static_cast<time_t>(-1)) return RESULT_FAILURE;
  return RecordTask(share, calculator.TaskID(), now);
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

bool ShareSnapUsageCal::CheckAvail(const std::string& shareName, std::string& taskID) try {
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return false;
  }
  // What the caller's text held before is no task of this share and must not decide about it.
  taskID.clear();
  // Kept: an expired task blocks nobody, whatever the share's status says of it.
  if (FindValidTaskID(shareName, taskID) == RESULT_NOT_FOUND) return true;
  if (!taskID.empty() && !TaskStatus::CheckFile(taskID)) return true;

  ShareTaskStatus status;
  if (!status.Init(shareName, /*create=*/false)) {
    ZLOG(LOG_ERR,
         "Failed to initialize task status of share snapshot calculator, share: %s[0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);
    return false;
  }
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int errorCode = -1;
  if (status.GetCalculatorStatus(state, errorCode) != RESULT_OK) {
    ZLOG(LOG_ERR, "Failed to get calculator status, taskID:(%s)", status.TaskID().c_str());
    return false;
  }
  switch (state) {
    case CAL_TASK_STATUS_READY:
    case CAL_TASK_STATUS_PROCESS:
      return false;
    case CAL_TASK_STATUS_FAIL:
    case CAL_TASK_STATUS_STOP:
    case CAL_TASK_STATUS_DONE:
      return true;
  }
  ZLOG_TASK(LOG_ERR, taskID, "Invalid status = %d", state);
  return false;
} catch (const std::exception&) {
  return false;
}

int ShareSnapUsageCal::Launch(PLATSZLIST** ppListSnapPath) try {
  if (ppListSnapPath == nullptr) {
    ZLOG_INVALID_ARG("__null != ppListSnapPath");
    return RESULT_INVALID_ARGUMENT;
  }
  const int refused = CheckSnapPaths(*ppListSnapPath, Valid());
  if (refused != RESULT_OK) return FailLaunch(shareStatus, refused);
  SzList subvolIDs = NewSzList(ZLOG_HERE);
  if (!subvolIDs) return RESULT_FAILURE;

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task{CAL_OPT_BY_SUBVOLID, UpdateTaskStatus, ExecCalPostAction,
                                      /*volumeNum=*/-1};
  // Kept: paths on different volumes (1) are not an error here, only failures are, in spite of the
  // text. The volume stays -1 then, and the conversion below refuses the paths.
  if (Utils::SameVolumeCheck(ppListSnapPath, task.volumeNum) < 0) {
    ZLOG(LOG_ERR, "Given snapshot paths belog to different volumes[0x%04X %s:%d]", PLAT_ERR);
    return FailLaunch(shareStatus, RESULT_INVALID_ARGUMENT);
  }
  if (ResolveSnapshots(shareName, task.volumeNum, ppListSnapPath, subvolIDs) != RESULT_OK)
    return FailLaunch(shareStatus, RESULT_INVALID_OBJECT);
  if (calculator.Start(&task, SzListRef(subvolIDs)) == RESULT_OK) return RESULT_OK;
  ZLOG(LOG_ERR, "Failed to fire the calculator[0x%04X %s:%d]", PLAT_ERR);
  return FailLaunch(shareStatus, RESULT_INVALID_OBJECT);
} catch (const std::exception&) {  // no memory: the share's status cannot be written either
  return RESULT_FAILURE;
}

int ShareSnapUsageCal::Launch(const time_t* start, const time_t* end) try {
  if ((start == nullptr) != (end == nullptr)) return RESULT_INVALID_ARGUMENT;
  const time_t from = start == nullptr ? 0 : *start;
  const time_t until = end == nullptr ? time(nullptr) : *end;
  if (until < from) return RESULT_INVALID_ARGUMENT;
  if (!Valid()) return RESULT_INVALID_OBJECT;

  SzList paths = NewSzList(ZLOG_HERE);
  if (!paths) return RESULT_FAILURE;
  const Json::Value selector = BuildSnapTimeSelector(from, until);
  if (Utils::ShareSnapListGet(shareName, SzListRef(paths), selector) < 0) {
    ZLOG(LOG_ERR, "Failed to list snapshot for share [%s]", shareName.c_str());
    return RESULT_FAILURE;
  }
  // Kept: the clock is asked for its failure alone; the range has been settled above.
  if (time(nullptr) == static_cast<time_t>(-1)) {
    PLAT_ERR_SET(0x2A00);
    ZLOG(LOG_ERR, "Failed to get snapshot range");
    return RESULT_FAILURE;
  }
  CheckSnapshotTimes(paths.get());
  if (!RecordRangeEnd(shareStatus, TASKSTATUS_ATTR_RANGE_START, from) ||
      !RecordRangeEnd(shareStatus, TASKSTATUS_ATTR_RANGE_END, until))
    return RESULT_FAILURE;

  const int code = Launch(SzListRef(paths));
  if (code != RESULT_OK)
    ZLOG(LOG_ERR, "Failed to launch calculator for share [%s], ret: %d", shareName.c_str(), code);
  return code;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int ShareSnapUsageCal::Stop(const std::string& shareName) try {
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  std::string taskID;
  bool expired = false;
  int code = FindTaskID(shareName, taskID, expired);
  if (code != RESULT_OK) return code;
  code = SnapUsageCalculator::Stop(taskID);
  if (code != RESULT_OK)
    ZLOG(LOG_ERR, "Failed to stop calculator for share [%s] with ID [%s]", shareName.c_str(),
         taskID.c_str());
  return code;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

// ---- Callbacks of the calculator ----------------------------------------------------------------

_tag_progress_update_function_ret ShareSnapUsageCal::UpdateTaskStatus(TaskStatus& taskStatus,
                                                                      void* /*userData*/) try {
  const std::string taskID = taskStatus.TaskID();
  std::string shareName;
  if (FindShareNameByTaskID(taskID, shareName) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to get the corresponding share name[%s][0x%04X %s:%d]",
              shareName.c_str(), PLAT_ERR);
    return PROGRESS_UPDATE_FAIL;
  }
  ShareTaskStatus shareStatus;
  if (!shareStatus.Init(shareName, /*create=*/false)) {
    ZLOG_TASK(LOG_ERR, taskID,
              "Failed to initialize task status of share snapshot calculator[0x%04X %s:%d]",
              PLAT_ERR);
    return PROGRESS_UPDATE_FAIL;
  }
  if (!shareStatus.Import(taskStatus)) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to import task status of snapshot calculator[0x%04X %s:%d]",
              PLAT_ERR);
    return PROGRESS_UPDATE_FAIL;
  }
  return PROGRESS_UPDATE_OK;
} catch (const std::exception&) {
  return PROGRESS_UPDATE_FAIL;
}

int ShareSnapUsageCal::ExecCalPostAction(TaskStatus& taskStatus, void* /*userData*/) try {
  SzList files = NewSzList(ZLOG_HERE);
  if (!files) return RESULT_FAILURE;
  const std::string& taskID = taskStatus.TaskID();
  if (!Utils::SearchTaskFile(taskID, kTaskResultDir, SzListRef(files))) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to search result files over the path [%s][0x%04X %s:%d]",
              kTaskResultDir, PLAT_ERR);
    return RESULT_FAILURE;
  }
  std::string shareName;
  if (FindShareNameByTaskID(taskID, shareName) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to get the corresponding share name[0x%04X %s:%d]",
              PLAT_ERR);
    return RESULT_FAILURE;
  }
  // Kept: earlier results that cannot be removed do not keep the new ones from being copied.
  if (!CleanTaskResultFile(shareName, /*removeDir=*/false))
    ZLOG(LOG_ERR,
         "Failed to clean task result of share snapshot calculator, share: %s[0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);

  for (int i = 0; i < files->count; ++i) {
    const std::string source = files->items[i];
    const std::string destination = ShareResultDir(shareName) + "/" + LastComponent(source);
    if (ZORVFileCopy(source.c_str(), destination.c_str(), 0) >= 0) continue;
    ZLOG_TASK(LOG_ERR, taskID, "Failed to copy from (%s) to (%s)[0x%04X %s:%d]", source.c_str(),
              destination.c_str(), PLAT_ERR);
    return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

// ---- Results ------------------------------------------------------------------------------------

namespace {

// The end of a result file's name; nothing for what is no kind of result.
const char* ResultSuffix(const TASK_RESULT_OPT& opt) {
  switch (opt) {
    case TASK_RESULT_OPT_RESULT:
      return ".result";
    case TASK_RESULT_OPT_SUBVOL_ID:
      return ".subvol_id";
  }
  return "";
}

}  // namespace

std::string ShareSnapUsageCal::GetResultBasePath(const std::string& shareName) try {
  return ShareResultDir(shareName);
} catch (const std::exception&) {
  return std::string();
}

template <typename T>
int ShareSnapUsageCal::GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& shareName,
                                    std::vector<T>& out) try {
  std::string taskID;
  bool expired = false;
  const int code = FindTaskID(shareName, taskID, expired);
  if (code != RESULT_OK) return code;
  const std::string copy = ShareResultDir(shareName) + "/" + taskID + ResultSuffix(opt);
  if (PLATCFileExist(copy.c_str()) == 1) return TaskResult::ReadVtr(copy, out);
  return TaskResult::GetResultVtr(opt, taskID, out);
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

template int ShareSnapUsageCal::GetResultVtr<unsigned long long>(const TASK_RESULT_OPT&,
                                                                 const std::string&,
                                                                 std::vector<unsigned long long>&);

int ShareSnapUsageCal::GetShareSnapAccumUsageVtr(const std::string& shareName,
                                                 std::vector<unsigned long long>& out) try {
  std::vector<unsigned long long> usage;
  if (GetResultVtr(TASK_RESULT_OPT_RESULT, shareName, usage) != RESULT_OK) return RESULT_FAILURE;
  unsigned long long sum = 0;
  for (unsigned long long& bytes : usage) {
    sum += bytes;
    bytes = sum;
  }
  out = std::move(usage);
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int ShareSnapUsageCal::FindSnapNameBySubvolID(const std::string& shareName,
                                              const std::vector<unsigned long long>& subvolIDs,
                                              PLATSZLIST** ppListSnapName) try {
  if (ppListSnapName == nullptr) {
    ZLOG_INVALID_ARG("__null != ppListSnapName");
    return RESULT_INVALID_ARGUMENT;
  }
  if (*ppListSnapName == nullptr) return RESULT_INVALID_ARGUMENT;
  if (subvolIDs.empty()) return RESULT_OK;
  Json::Value map;
  if (ReadShareTaskEntries(EntryOf(shareName), map) != RESULT_OK) return RESULT_FAILURE;
  const Json::Value* snapList = SnapListOf(map, shareName);
  const std::map<unsigned long long, std::string> names =
      SnapNamesByID(snapList == nullptr ? Json::Value::nullSingleton() : *snapList);
  for (const unsigned long long id : subvolIDs) {
    const auto found = names.find(id);
    if (found == names.end()) {
      ZLOG(LOG_ERR, "Snapshot name with subvol ID [%llu] is not found", id);
      return RESULT_NOT_FOUND;
    }
    if (!PushText(ZLOG_HERE, ppListSnapName, found->second)) return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

// ---- Cleanup ------------------------------------------------------------------------------------

namespace {

// Removes results, status file and map entry; a step that fails does not keep the next from its
// work. Kept: "sahre" is what readers of the log look for.
void RemoveShareTraces(const std::string& shareName) {
  if (!ShareSnapUsageCal::CleanTaskResultFile(shareName, /*removeDir=*/true))
    ZLOG(LOG_ERR,
         "Failed to clean task result of sahre snapshot calculator, share: %s[0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);
  if (!ShareTaskStatus::CleanShareStatus(shareName))
    ZLOG(LOG_ERR,
         "Failed to clean task status of share snapshot calculator, share: %s[0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);
  if (RemoveShareFromTaskMap(shareName) != RESULT_OK)
    ZLOG(LOG_ERR, "Failed to remove member in the task share map, share: %s[0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);
}

// Whether the share's status says that its calculation is running.
bool IsInProcess(const std::string& shareName) {
  ShareTaskStatus status;
  if (!status.Init(shareName, /*create=*/false)) {
    ZLOG(LOG_ERR,
         "Failed to initialize task status of share snapshot calculator, share:[%s][0x%04X %s:%d]",
         shareName.c_str(), PLAT_ERR);
    return false;
  }
  // Not "process", so that a share whose status cannot be read is kept.
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  if (status.GetCalculatorStatus(state) != RESULT_OK)
    ZLOG(LOG_ERR, "Failed to get calculator status, taskID:(%s), share:(%s)",
         status.TaskID().c_str(), shareName.c_str());
  return state == CAL_TASK_STATUS_PROCESS;
}

}  // namespace

bool ShareSnapUsageCal::CleanTaskResultFile(const std::string& shareName, bool removeDir) try {
  // Without a name the path would be the directory that holds all shares' results.
  if (shareName.empty()) {
    ZLOG_INVALID_ARG("!shareName.empty()");
    return false;
  }
  const std::string dir = ShareResultDir(shareName);
  SzList names = NewSzList(ZLOG_HERE);
  if (!names) return false;
  SzList paths = NewSzList(ZLOG_HERE);
  if (!paths) return false;
  if (PLATCFileEnumDir(dir.c_str(), PLATC_ENUM_THIS_DIR, SzListRef(names), PLATC_ENUM_NON_DIRS) < 0)
    return false;
  if (!Utils::PostfixPathAppend(dir, SzListRef(names), SzListRef(paths))) return false;
  if (!Utils::DeleteCandidateFile(SzListRef(paths))) return false;
  if (!removeDir || rmdir(dir.c_str()) == 0) return true;
  ZLOG(LOG_ERR, "Failed to remove path [%s], errno: %s", dir.c_str(), strerror(errno));
  return false;
} catch (const std::exception&) {
  return false;
}

void ShareSnapUsageCal::CleanAll(const std::string& shareName) try {
  if (shareName.empty()) return;
  Json::Value map;
  if (ReadShareTaskEntries(EntryOf(shareName), map) != RESULT_OK) return;
  if (JsonMember(map, shareName) == nullptr) return;
  RemoveShareTraces(shareName);
} catch (const std::exception&) {
}

int ShareSnapUsageCal::CleanAllSResult() try {
  Json::Value map;
  if (ReadShareTaskMap(map) != RESULT_OK) return RESULT_FAILURE;
  // The names are a copy. A share that an earlier removal has pruned has no entry when its turn
  // comes, and its files stay.
  for (const std::string& name : MemberNames(map)) CleanAll(name);
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

int ShareSnapUsageCal::CleanNotDoneTask() try {
  Json::Value map;
  if (ReadShareTaskMap(map) != RESULT_OK) return RESULT_FAILURE;
  // Kept: only a calculation that was running when it was cut off counts as not done.
  for (const std::string& name : MemberNames(map))
    if (IsInProcess(name)) RemoveShareTraces(name);
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

}  // namespace ZorvBtrfsUsage
