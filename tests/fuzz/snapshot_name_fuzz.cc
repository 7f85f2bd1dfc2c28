// Names of snapshots: the first byte chooses the zone of the machine.
#include "tests/fuzz/target.h"
#include "tests/fuzz/time_zones.h"
#include "zorvbtrfssnapusage/utils.h"
#include "zorvplatform/share.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

// Before this year names have fewer than four digits, from the other on more than nine: both are no
// names of snapshots. A zone moves a time by less than two days.
constexpr time_t kYear1000 = -30610224000;
constexpr time_t kYear1000000000 = 31556889832780800;
constexpr time_t kZones = 2 * 86400;

void NameItAgain(time_t time, BOOL local) {
  char name[1024];
  FUZZ_LAW(Utils::SnapNameGenerateByTime(name, sizeof name, time, local) == 0);
  time_t again = 0;
  FUZZ_LAW(ZORVShareSnapTimeGet(name, &again) >= 0 && again == time);
}

}  // namespace

FUZZ_TARGET(snapshot_name) {
  FuzzInput bytes(input);
  SetZone(bytes.Number(1));
  const std::string name(bytes.Rest());
  time_t time = 77;
  if (ZORVShareSnapTimeGet(name.c_str(), &time) < 0) {
    FUZZ_LAW(time == 77);
    return;
  }
  if (time < kYear1000 + kZones || time >= kYear1000000000 - kZones) return;
  NameItAgain(time, /*local=*/0);
  NameItAgain(time, /*local=*/1);
}
