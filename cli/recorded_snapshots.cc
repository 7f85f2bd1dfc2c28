#include "cli/recorded_snapshots.h"

#include <zorvbtrfssnapusage/utils.h>

#include <charconv>
#include <system_error>

#include "base/paths.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::kShareMap;
using ZorvBtrfsUsage::Utils;

// The record has IDs as decimal texts; anything else is nobody's.
bool IsID(const Json::Value& value, unsigned long long& id) {
  if (!value.isString()) return false;
  const std::string text = value.asString();
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, id);
  return error == std::errc() && rest == end;
}

}  // namespace

// The map is read without its lock: it is replaced whole.
std::map<unsigned long long, std::string> RecordedSnapshots(const std::string& share) {
  std::map<unsigned long long, std::string> names;
  const Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
  if (!map.isObject() || !map[share].isObject()) return names;
  const Json::Value& recorded = map[share]["snap_list"];
  if (!recorded.isObject()) return names;
  for (const std::string& name : recorded.getMemberNames()) {
    unsigned long long id = 0;
    if (IsID(recorded[name], id)) names.emplace(id, name);
  }
  return names;
}

}  // namespace ZorvSnapUsage
