#include "cli/share_map.h"

#include <fmt/format.h>
#include <zorvbtrfssnapusage/utils.h>
#include <zorvplatform/share.h>

#include "base/paths.h"
#include "cli/failure.h"
#include "cli/plain_files.h"
#include "cli/standard_streams.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::kShareMap;
using ZorvBtrfsUsage::Utils;

enum class MapState { kWhole, kNoText, kNoMap };

// Read without its lock: the file is replaced whole. None, or "null", is an empty one.
MapState StateOfMap() {
  Json::Value map;
  if (!RequirePlainFile(kShareMap)) return MapState::kWhole;
  if (!Utils::JsonFromFile(map, kShareMap))
    // Or it has been removed meanwhile.
    return RequirePlainFile(kShareMap) ? MapState::kNoText : MapState::kWhole;
  return map.isObject() || map.isNull() ? MapState::kWhole : MapState::kNoMap;
}

[[noreturn]] void Refuse(const char* wrong) {
  throw Failure(kSystemFailure, fmt::format("{} {}", kShareMap, wrong),
                fmt::format("look at what is in it, and remove it: rm {}", kShareMap));
}

}  // namespace

void RequireMap() {
  switch (StateOfMap()) {
    case MapState::kNoText:
      Refuse("is damaged, it is no JSON text");
    case MapState::kNoMap:
      Refuse("is no map of shares");
    case MapState::kWhole:
      return;
  }
}

void RequireWritableMap() {
  switch (StateOfMap()) {
    case MapState::kNoText:
      ToStandardError(
          fmt::format("zorv-snapusage: note: {} is damaged, it is no JSON text; what can be read "
                      "of it is kept, the rest is lost when it is written\n",
                      kShareMap));
      return;
    case MapState::kNoMap:
      Refuse("is no map of shares");
    case MapState::kWhole:
      return;
  }
}

// Read without its lock: the file is replaced whole.
std::optional<std::string> RecordedVolumeOf(const std::string& share) {
  const Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
  if (!map.isObject() || !map[share].isObject()) return std::nullopt;
  const Json::Value& number = map[share]["volume_id"];
  if (!number.isInt() || number.asInt() <= 0) return std::nullopt;
  return fmt::format("/volume{}", number.asInt());
}

std::optional<std::string> MissingVolumeOf(const std::string& share) {
  std::optional<std::string> path = RecordedVolumeOf(share);
  char volume[64];
  if (path && VolumePathParseEx(path->c_str(), volume, sizeof volume) >= 0) path.reset();
  return path;
}

void RemoveFromMap(const std::string& share) {
  int fd = -1;
  if (Utils::GeneralFileLock(ZorvBtrfsUsage::kShareMapLock, /*exclusive=*/true, fd)) {
    Json::Value map = Utils::GetJsonAttrByPath(kShareMap);
    if (map.isObject() && map.isMember(share)) {
      map.removeMember(share);
      (void)Utils::SetJsonAttrByPath(kShareMap, map);
    }
  }
  (void)Utils::GeneralFileUnlock(fd);
}

}  // namespace ZorvSnapUsage
