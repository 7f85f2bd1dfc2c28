// Any output of testparm: refused with a reason and without shares, or shares that can be looked
// for.
#include "platform/linux/testparm.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvPlatform;

FUZZ_TARGET(testparm) {
  const std::string text(input);
  Configured configured;
  std::string why;
  if (!ParseTestparm(text, &configured, &why)) {
    FUZZ_LAW(configured.shares.empty() && configured.passedBy.empty() && !why.empty());
    return;
  }
  for (const ConfiguredShare& share : configured.shares) {
    FUZZ_LAW(CanBeConfigured(share.name) && share.onlyIfSubvolume);
    FUZZ_LAW(share.path[0] == '/' && share.path.find('%') == std::string::npos);
    FUZZ_LAW(!share.snapDir.empty() && !share.format.empty());
  }
  for (const PassedBy& passed : configured.passedBy) FUZZ_LAW(!passed.why.empty());
  Configured more;
  FUZZ_LAW(!ParseTestparm(text + "\nno parameter\n", &more, &why) && more.shares.empty());
}
