// The reminder's record with any content.
#include <json/value.h>

#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

constexpr char kRecord[] = "/usr/local/zorvbtrfssnapusage/reminder_record";

}  // namespace

FUZZ_TARGET(reminder) {
  static const bool made = Utils::ReminderStatusSet(true);  // the directories too
  FUZZ_LAW(made);
  PutFile(kRecord, input);
  bool on = false;
  (void)Utils::ReminderStatusGet(on);
  FUZZ_LAW(FileContent(kRecord) == input);

  Json::Value expected;
  const bool isJson = Utils::JsonFromFile(expected, kRecord);
  if (!Utils::ReminderStatusSet(true)) {
    FUZZ_LAW(FileContent(kRecord) == input);
    return;
  }
  FUZZ_LAW(Utils::ReminderStatusGet(on) && on);
  if (!isJson) return;
  expected["reminder"] = true;
  FUZZ_LAW(Utils::GetJsonAttrByPath(kRecord) == expected);
}
