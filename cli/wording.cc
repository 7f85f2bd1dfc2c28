#include "cli/wording.h"

#include <fmt/format.h>

#include "cli/text.h"

namespace ZorvSnapUsage {

std::string CountOf(unsigned long long count, const char* noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string AllOf(unsigned long long count, const char* noun) {
  return count == 1 ? fmt::format("the only {}", noun) : "all " + CountOf(count, noun);
}

std::string ShareWord(const std::string& share) {
  return (share[0] == '-' ? "-- " : "") + ShellWord(share);
}

std::string OptionWords(const std::string& option, const std::string& value) {
  return option + (value[0] == '-' ? "=" : " ") + ShellWord(value);
}

}  // namespace ZorvSnapUsage
