#include "cli/present_snapshots.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "cli/calculation.h"
#include "cli/failure.h"
#include "cli/result_generation.h"
#include "cli/share_map.h"
#include "cli/share_place.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {
namespace {

// The numbers of the tables that were read since the result was stored.
std::vector<NumbersAlone> NumbersSince(const Result& result, const std::vector<KeptTable>& tables) {
  std::vector<NumbersAlone> numbers;
  for (const KeptTable& kept : tables)
    if (kept.IsSince(result.stored)) numbers.push_back(AloneIn(kept.table));
  return numbers;
}

// The most of the result's numbers that one of them has.
size_t MostNumbersOf(const Result& result, const std::vector<NumbersAlone>& tables) {
  size_t most = 0;
  for (const NumbersAlone& table : tables) most = std::max(most, CountNumbersOf(result, table));
  return most;
}

// The subvolumes of the result whose number one of the tables has, too.
std::set<unsigned long long> SameIn(const std::vector<NumbersAlone>& tables, const Result& result) {
  std::set<unsigned long long> same;
  for (const NumbersAlone& table : tables)
    for (size_t i = 0; i < result.subvolumeIDs.size(); ++i) {
      const auto found = table.find(result.subvolumeIDs[i]);
      if (found != table.end() && found->second == result.exclusiveBytes[i])
        same.insert(found->first);
    }
  return same;
}

// Whether the share's record, as far as it is about this result, names another volume.
bool IsOfAnotherVolume(const std::string& share, const Result& result) {
  if (RecordedTask(share) != result.taskID) return false;
  const std::optional<std::string> recorded = RecordedVolumeOf(share);
  const std::optional<ShareOrigin> place = FindPlace(share);
  return recorded && place && place->volume != *recorded;
}

// Whether the share lies on another file system than the result is of, where nobody has kept that.
bool IsElsewhere(const std::string& share, const Result& result, const TablesOfShare& tables) {
  if (IsOfAnotherVolume(share, result)) return true;
  return tables.fileSystemID && MostNumbersOf(result, NumbersSince(result, tables.elsewhere)) >
                                    MostNumbersOf(result, NumbersSince(result, tables.here));
}

// Nothing, too, where others may have had a hand in what is kept.
std::optional<std::string> KeptOrigin(const std::string& share, const Result& result) {
  try {
    return OriginOf(share, result.taskID);
  } catch (const Failure&) {
    return std::nullopt;
  }
}

// As far as creation times tell, on a file system that may have been made anew.
PresentSnapshots SortedByCreation(const Result& result, const std::vector<Snapshot>& snapshots,
                                  const std::vector<KeptTable>& tables) {
  const std::set<unsigned long long> same = SameIn(NumbersSince(result, tables), result);
  PresentSnapshots present;
  for (const Snapshot& snapshot : snapshots) {
    const bool known = !snapshot.created || *snapshot.created <= result.stored.seconds ||
                       same.count(snapshot.subvolumeID) != 0;
    (known ? present.known : present.other).push_back(snapshot);
  }
  return present;
}

TablesOfShare NoTables(const std::string& share) {
  const std::optional<FileSystemState> now = StateOfShare(share);
  return {{}, {}, now ? std::optional(now->id) : std::nullopt};
}

}  // namespace

TablesOfShare SortedTables(const std::string& share) {
  TablesOfShare sorted = NoTables(share);
  for (KeptTable& kept : AllTables(share))
    (kept.fileSystemID == sorted.fileSystemID ? sorted.here : sorted.elsewhere)
        .push_back(std::move(kept));
  return sorted;
}

TablesOfShare SafeTables(const std::string& share) {
  try {
    return SortedTables(share);
  } catch (const Failure&) {
    return NoTables(share);
  }
}

PresentSnapshots SeenBy(const std::string& share, const Result& result,
                        const std::vector<Snapshot>& snapshots, const TablesOfShare& tables) {
  const std::optional<std::string> origin = KeptOrigin(share, result);
  const bool elsewhere = origin && tables.fileSystemID ? *origin != *tables.fileSystemID
                                                       : IsElsewhere(share, result, tables);
  return elsewhere ? PresentSnapshots{{}, snapshots, elsewhere}
                   : SortedByCreation(result, snapshots, tables.here);
}

}  // namespace ZorvSnapUsage
