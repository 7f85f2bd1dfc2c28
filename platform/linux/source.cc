#include "platform/linux/source.h"

#include <algorithm>
#include <climits>

namespace ZorvPlatform {

bool CanBeConfigured(const std::string& name) {
  const bool plain = std::none_of(name.begin(), name.end(),
                                  [](unsigned char c) { return c < ' ' || c == 0x7F || c == '/'; });
  return plain && !name.empty() && name.size() <= NAME_MAX && name != "." && name != "..";
}

std::string PathBelow(const std::string& directory, const std::string& path) {
  if (path[0] == '/') return path;
  return (directory == "/" ? "" : directory) + "/" + path;
}

}  // namespace ZorvPlatform
