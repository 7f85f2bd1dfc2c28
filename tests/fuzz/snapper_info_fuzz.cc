// snapper's info.xml with any content: refused with a reason, or a snapshot that has a name.
#include "base/utf8.h"
#include "platform/linux/snap_name.h"
#include "platform/linux/snapper_info.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvPlatform;

FUZZ_TARGET(snapper_info) {
  SnapperInfo info;
  info.number = 77;
  std::string why;
  if (!ReadSnapperInfo(std::string(input), &info, &why)) {
    FUZZ_LAW(info.number == 77 && info.type.empty() && info.description.empty());
    FUZZ_LAW(!why.empty() && why.find('\n') == std::string::npos);
    return;
  }
  FUZZ_LAW(info.number > 0);
  FUZZ_LAW(info.type == "single" || info.type == "pre" || info.type == "post");
  // Nothing in it makes much of little; one byte in another encoding may become two.
  FUZZ_LAW(info.description.size() <= 2 * input.size());
  FUZZ_LAW(info.description.find('\0') == std::string::npos);
  FUZZ_LAW(ZorvBtrfsUsage::IsUtf8(info.description));
  const std::string name = MakeSnapName(info.time, info.number);
  SnapName read;
  if (ReadSnapName(name.c_str(), &read)) {
    FUZZ_LAW(read.time == info.time && read.number == info.number);
  } else {
    FUZZ_LAW(ReadSnapNumber(name.c_str()) == info.number);
  }
}
