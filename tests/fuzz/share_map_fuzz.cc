// The share-to-task map with any content: every look-up, then the removal of a share.
#include <json/value.h>

#include <vector>

#include "base/sz_list.h"
#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kMap[] = "/usr/local/zorvbtrfssnapusage/share_snap_cal_map";
constexpr char kShare[] = "photos";

void LookUpTheTask(const Json::Value& map) {
  std::string taskID;
  bool expired = false;
  const int code = ShareSnapUsageCal::FindTaskID(kShare, taskID, expired);
  FUZZ_LAW(code == RESULT_OK || code == RESULT_FAILURE || code == RESULT_NOT_FOUND);
  std::string validID;
  const int valid = ShareSnapUsageCal::FindValidTaskID(kShare, validID);
  FUZZ_LAW(valid == (code == RESULT_OK && expired ? RESULT_NOT_FOUND : code));
  std::string available;
  (void)ShareSnapUsageCal::CheckAvail(kShare, available);
  if (code != RESULT_OK) return;

  FUZZ_LAW(map.isObject() && map.isMember(kShare) && !taskID.empty());
  FUZZ_LAW(map[kShare]["task_id"].asString() == taskID);
  std::string owner;
  FUZZ_LAW(ShareSnapUsageCal::FindShareNameByTaskID(taskID, owner) == RESULT_OK);
  FUZZ_LAW(map[owner]["task_id"].asString() == taskID);
}

void ListTheShares(const Json::Value& map) {
  SzList shares = MakeSzList();
  FUZZ_LAW(ShareSnapUsageCal::GetShareTaskList(SzListRef(shares)));
  FUZZ_LAW(static_cast<size_t>(shares->count) == (map.isObject() ? map.size() : 0));
}

void NameTheSnapshots(const Json::Value& map) {
  for (const unsigned long long id : {257ULL, 0ULL, ~0ULL}) {
    SzList names = MakeSzList();
    const int code = ShareSnapUsageCal::FindSnapNameBySubvolID(kShare, {id}, SzListRef(names));
    FUZZ_LAW(code == RESULT_OK || code == RESULT_NOT_FOUND);
    FUZZ_LAW(names->count == (code == RESULT_OK ? 1 : 0));
    if (code != RESULT_OK) continue;
    const std::string name = PLATCSzListGet(names.get(), 0);
    const Json::Value& snapshots = map[kShare]["snap_list"];
    bool found = false;
    for (const std::string& member : snapshots.getMemberNames())
      found = found ||
              (name == member.c_str() && snapshots[member].isConvertibleTo(Json::stringValue) &&
               strtoull(snapshots[member].asString().c_str(), nullptr, 10) == id);
    FUZZ_LAW(found);
  }
}

void RemoveTheShare(const Json::Value& map, std::string_view before) {
  ShareSnapUsageCal::CleanAll(kShare);
  const Json::Value after = Utils::GetJsonAttrByPath(kMap);
  if (!map.isObject() || !map.isMember(kShare)) {
    FUZZ_LAW(FileContent(kMap) == before);
    return;
  }
  // The share is gone, or the map could not be written and is as it was.
  FUZZ_LAW(FileContent(kMap) == before || !after.isMember(kShare));
}

}  // namespace

FUZZ_TARGET(share_map) {
  static const bool made = Utils::ReminderStatusSet(true);  // the directories
  FUZZ_LAW(made);
  PutFile(kMap, input);
  const Json::Value map = Utils::GetJsonAttrByPath(kMap);
  LookUpTheTask(map);
  ListTheShares(map);
  NameTheSnapshots(map);
  FUZZ_LAW(FileContent(kMap) == input);
  RemoveTheShare(map, input);
}
