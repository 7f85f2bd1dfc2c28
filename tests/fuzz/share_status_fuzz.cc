// The status file of a share, and what it takes over of a task's: the first line of the input is
// the task's file, the rest the share's.
#include "tests/fuzz/status_laws.h"
#include "zorvbtrfssnapusage/share_task_status.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kSharePath[] = "/usr/local/zorvbtrfssnapusage/share_task_status/fuzz";

bool IsKnown(const std::string& member) {
  TASKSTATUS_ATTR attr;
  return TaskStatus::CnvAttrsStrToEnumIdx(member, attr) == RESULT_OK;
}

// The target's members, the known ones of the source over them.
Json::Value Mirrored(const Json::Value& source, Json::Value target) {
  if (target.isNull()) target = Json::Value(Json::objectValue);
  if (!source.isObject()) return target;
  for (const std::string& member : source.getMemberNames())
    if (IsKnown(member)) target[member] = source[member];
  return target;
}

}  // namespace

FUZZ_TARGET(share_status) {
  FuzzInput parts(input);
  TaskStatus task;
  FUZZ_LAW(task.Init("fuzz", /*create=*/false));
  PutFile(TaskStatus::GetFilePath("fuzz"), parts.Line());
  ShareTaskStatus share;
  FUZZ_LAW(share.Init("fuzz", /*create=*/false));
  PutFile(kSharePath, parts.Rest());

  ReadEverything(share);
  const Json::Value before = Utils::GetJsonAttrByPath(kSharePath);
  Json::Value source;
  const bool readable = task.GetJsonVal(source) == RESULT_OK;
  if (share.Import(task)) {
    FUZZ_LAW(readable);
    FUZZ_LAW(Utils::GetJsonAttrByPath(kSharePath) == Mirrored(source, before));
  } else {
    FUZZ_LAW(FileContent(kSharePath) == parts.Rest());
  }
  ChangeOneMember(share, kSharePath);
}
