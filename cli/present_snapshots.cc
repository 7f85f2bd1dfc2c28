#include "cli/present_snapshots.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "cli/file_system.h"
#include "cli/result_generation.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {
namespace {

bool OneHasTheNumbersOf(const Result& result, const std::vector<KeptTable>& tables) {
  return std::any_of(tables.begin(), tables.end(),
                     [&](const KeptTable& kept) { return HasNumbersOf(kept.table, result); });
}

// What the result says of this subvolume alone, as a result of its own.
Result PartOf(const Result& result, unsigned long long subvolumeID) {
  Result part;
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i)
    if (result.subvolumeIDs[i] == subvolumeID) {
      part.subvolumeIDs.push_back(subvolumeID);
      part.exclusiveBytes.push_back(result.exclusiveBytes[i]);
    }
  return part;
}

bool MayBeIn(const Result& result, const Snapshot& snapshot, const TablesOfShare& tables) {
  return !snapshot.created || *snapshot.created <= result.stored ||
         OneHasTheNumbersOf(PartOf(result, snapshot.subvolumeID), tables.here);
}

}  // namespace

TablesOfShare SortedTables(const std::string& share) {
  TablesOfShare sorted;
  const std::optional<ShareOrigin> place = FindPlace(share);
  const std::optional<FileSystemState> now = place ? StateOfFileSystem(place->path) : std::nullopt;
  for (KeptTable& kept : AllTables(share))
    (!now || kept.fileSystemID == now->id ? sorted.here : sorted.elsewhere)
        .push_back(std::move(kept));
  return sorted;
}

PresentSnapshots SeenBy(const Result& result, const std::vector<Snapshot>& snapshots,
                        const TablesOfShare& tables) {
  if (OneHasTheNumbersOf(result, tables.elsewhere) && !OneHasTheNumbersOf(result, tables.here))
    return {{}, snapshots};
  PresentSnapshots present;
  for (const Snapshot& snapshot : snapshots)
    (MayBeIn(result, snapshot, tables) ? present.known : present.other).push_back(snapshot);
  return present;
}

}  // namespace ZorvSnapUsage
