// /etc/fstab with any content: a volume that it names and that is not there is never overlooked.
#include "base/sz_list.h"
#include "tests/fuzz/target.h"
#include "zorvplatform/share.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

// Shares found, or negative.
int CountShares(const std::string& fstab) {
  PutFile("/etc/fstab", fstab);
  SzList shares = MakeSzList();
  const int count = ZORVShareEnum(SzListRef(shares), ZORV_SHARE_ENUM_ALL);
  FUZZ_LAW(count < 0 || count == shares->count);
  return count;
}

}  // namespace

FUZZ_TARGET(fstab) {
  (void)CountShares(std::string(input));
  FUZZ_LAW(CountShares(std::string(input) + "\n/dev/none /volume77 btrfs defaults 0 0\n") < 0);
  FUZZ_LAW(PLATCErrGet() == PLATC_ERR_RETRY);
}
