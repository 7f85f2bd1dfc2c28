#include "cli/present_snapshots.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "cli/calculation.h"
#include "cli/file_system.h"
#include "cli/result_generation.h"
#include "cli/share_map.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {
namespace {

// The most of the result's numbers that one of the tables has, of those read since it was stored.
size_t MostNumbersOf(const Result& result, const std::vector<KeptTable>& tables) {
  size_t most = 0;
  for (const KeptTable& kept : tables)
    if (kept.taken >= result.stored) most = std::max(most, CountNumbersOf(kept.table, result));
  return most;
}

// What the result says of this subvolume alone, as a result of its own.
Result PartOf(const Result& result, unsigned long long subvolumeID) {
  Result part;
  part.stored = result.stored;
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i)
    if (result.subvolumeIDs[i] == subvolumeID) {
      part.subvolumeIDs.push_back(subvolumeID);
      part.exclusiveBytes.push_back(result.exclusiveBytes[i]);
    }
  return part;
}

bool MayBeIn(const Result& result, const Snapshot& snapshot, const TablesOfShare& tables) {
  return !snapshot.created || *snapshot.created <= result.stored ||
         MostNumbersOf(PartOf(result, snapshot.subvolumeID), tables.here) > 0;
}

// Whether the share's record, as far as it is about this result, names another volume.
bool IsOfAnotherVolume(const std::string& share, const Result& result) {
  if (RecordedTask(share) != result.taskID) return false;
  const std::optional<std::string> recorded = RecordedVolumeOf(share);
  const std::optional<ShareOrigin> place = FindPlace(share);
  return recorded && place && place->volume != *recorded;
}

}  // namespace

TablesOfShare SortedTables(const std::string& share) {
  TablesOfShare sorted;
  const std::optional<ShareOrigin> place = FindPlace(share);
  const std::optional<FileSystemState> now = place ? StateOfFileSystem(place->path) : std::nullopt;
  for (KeptTable& kept : AllTables(share))
    (now && kept.fileSystemID == now->id ? sorted.here : sorted.elsewhere)
        .push_back(std::move(kept));
  return sorted;
}

PresentSnapshots SeenBy(const std::string& share, const Result& result,
                        const std::vector<Snapshot>& snapshots, const TablesOfShare& tables) {
  if (IsOfAnotherVolume(share, result) ||
      MostNumbersOf(result, tables.elsewhere) > MostNumbersOf(result, tables.here))
    return {{}, snapshots};
  PresentSnapshots present;
  for (const Snapshot& snapshot : snapshots)
    (MayBeIn(result, snapshot, tables) ? present.known : present.other).push_back(snapshot);
  return present;
}

}  // namespace ZorvSnapUsage
