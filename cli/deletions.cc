#include "cli/deletions.h"

#include <btrfsutil.h>
#include <fmt/format.h>
#include <stdlib.h>

#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

std::optional<unsigned long long> DeletionsOn(const std::string& volume) {
  uint64_t* ids = nullptr;
  size_t count = 0;
  if (btrfs_util_deleted_subvolumes(volume.c_str(), &ids, &count) != BTRFS_UTIL_OK)
    return std::nullopt;
  free(ids);
  return count;
}

}  // namespace

std::optional<unsigned long long> TellOfDeletions(const std::string& share) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  if (!place) return std::nullopt;
  const std::optional<unsigned long long> count = DeletionsOn(place->volume);
  if (count.value_or(0) > 0)
    Say(fmt::format(
        "note: {} still being removed, and until then what {} with snapshots is not "
        "theirs alone; wait for that with: btrfs subvolume sync {}",
        *count == 1 ? "1 deleted subvolume is" : fmt::format("{} deleted subvolumes are", *count),
        *count == 1 ? "it shares" : "they share", ShellWord(place->volume)));
  return count;
}

}  // namespace ZorvSnapUsage
