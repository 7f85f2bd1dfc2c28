#include "cli/share_place.h"

#include <fmt/format.h>
#include <zorvbtrfssnapusage/btrfs_tool.h>

#include "cli/failure.h"
#include "cli/share.h"
#include "cli/text.h"

namespace ZorvSnapUsage {

SharePlace PlaceOfShare(const std::string& share) {
  RequireShare(share);
  const std::optional<ShareOrigin> origin = FindPlace(share);
  unsigned long long subvolumeID = 0;
  if (!origin ||
      ZorvBtrfsUsage::BtrfsTool::SubvolRootIdLookup(origin->path.c_str(), subvolumeID) != 0)
    throw SystemFailure(fmt::format("the place of share {} cannot be told", Quoted(share)));
  return {origin->path, subvolumeID};
}

std::optional<FileSystemState> StateOfShare(const std::string& share) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  return place ? StateOfFileSystem(place->path) : std::nullopt;
}

}  // namespace ZorvSnapUsage
