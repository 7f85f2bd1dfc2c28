#include "cli/names.h"

#include <limits.h>

#include <string_view>

namespace ZorvSnapUsage {
namespace {

// The longest that is added to a share's name: of the temporary file beside its status.
constexpr std::string_view kLongestSuffix = ".XXXXXX";

constexpr std::string_view kUuidShape = "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh";

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

bool CanBeShareName(const std::string& name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find('/') == std::string::npos;
}

bool CanBeCalculated(const std::string& shareName) {
  return shareName.size() + kLongestSuffix.size() <= NAME_MAX;
}

bool IsTaskID(const std::string& text) {
  if (text.size() != kUuidShape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (kUuidShape[i] == 'h' ? !IsHexDigit(text[i]) : text[i] != kUuidShape[i]) return false;
  return true;
}

}  // namespace ZorvSnapUsage
