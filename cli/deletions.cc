#include "cli/deletions.h"

#include <btrfsutil.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>

#include "cli/file_system.h"
#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

bool told = false;  // of the share that was looked at last

std::optional<unsigned long long> DeletionsOn(const std::string& volume) {
  uint64_t* ids = nullptr;
  size_t count = 0;
  if (btrfs_util_deleted_subvolumes(volume.c_str(), &ids, &count) != BTRFS_UTIL_OK)
    return std::nullopt;
  free(ids);
  return count;
}

void SayThatTheyAreThere(unsigned long long count, const std::string& volume) {
  const std::string subvolumes = CountOf(count, "subvolume");
  if (IsOnlyReadFrom(volume))
    Say(
        fmt::format("note: the deletion of {} stands still, {} is mounted read-only: until it goes "
                    "on and has ended no snapshot holds alone what it shares with what was deleted",
                    subvolumes, Quoted(volume)));
  else
    Say(
        fmt::format("note: the deletion of {} is still going on: until it has ended no snapshot "
                    "holds alone what it shares with what was deleted; wait for that with: btrfs "
                    "subvolume sync {}",
                    subvolumes, ShellWord(volume)));
}

}  // namespace

std::optional<unsigned long long> TellOfDeletions(const std::string& share) {
  told = false;
  const std::optional<ShareOrigin> place = FindPlace(share);
  if (!place) return std::nullopt;
  const std::optional<unsigned long long> count = DeletionsOn(place->volume);
  if (count.value_or(0) == 0) return count;
  told = true;
  SayThatTheyAreThere(*count, place->volume);
  return count;
}

std::optional<unsigned long long> LookAgainForDeletions(const std::string& share,
                                                        std::optional<unsigned long long> before) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  return std::max(before, place ? DeletionsOn(place->volume) : std::nullopt);
}

bool DeletionsAreTold() { return told; }

}  // namespace ZorvSnapUsage
