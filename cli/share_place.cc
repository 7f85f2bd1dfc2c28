#include "cli/share_place.h"

#include <fmt/format.h>
#include <zorvbtrfssnapusage/btrfs_tool.h>
#include <zorvplatform/share.h>

#include <memory>

#include "cli/failure.h"
#include "cli/share.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

struct ShareFree {
  void operator()(ZORVSHARE* share) const { ZORVShareFree(share); }
};

}  // namespace

SharePlace PlaceOfShare(const std::string& share) {
  RequireShare(share);
  ZORVSHARE* record = nullptr;
  if (ZORVShareGet(share.c_str(), &record) != 0) record = nullptr;
  const std::unique_ptr<ZORVSHARE, ShareFree> owner(record);
  ZORVSHAREINFO info;
  SharePlace place;
  if (record == nullptr || ZORVShareInfoGet(record, &info) != 0 ||
      ZorvBtrfsUsage::BtrfsTool::SubvolRootIdLookup(info.path, place.subvolumeID) != 0)
    throw SystemFailure(fmt::format("the place of share {} cannot be told", Quoted(share)));
  place.path = info.path;
  return place;
}

}  // namespace ZorvSnapUsage
