// The platform's own file of shares with any content: an error with its line, or whole shares.
#include <algorithm>
#include <cstdlib>
#include <set>

#include "platform/linux/shares_text.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvPlatform;

namespace {

bool Parse(const std::string& text, Configured* configured, std::string* why) {
  SourceSwitches switches;
  return ParseShares(text, configured, &switches, why);
}

}  // namespace

FUZZ_TARGET(shares_file) {
  const std::string text(input);
  Configured configured;
  std::string why;
  if (!Parse(text, &configured, &why)) {
    const long lines = std::count(text.begin(), text.end(), '\n') + 1;
    const long line = strtol(why.c_str(), nullptr, 10);
    FUZZ_LAW(line >= 1 && line <= lines);
  } else {
    std::set<std::string> names;
    for (const ConfiguredShare& share : configured.shares) {
      FUZZ_LAW(CanBeConfigured(share.name) && names.insert(share.name).second);
      FUZZ_LAW(share.path[0] == '/' && !share.snapDir.empty());
      FUZZ_LAW((share.layout == Layout::kFormat) == !share.format.empty());
    }
  }
  Configured more;
  FUZZ_LAW(!Parse(text + "\nno key\n", &more, &why));
}
