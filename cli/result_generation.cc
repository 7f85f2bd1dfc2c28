#include "cli/result_generation.h"

#include <map>
#include <vector>

#include "cli/failure.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {
namespace {

// Whether it is of a later state; of several file systems the clock has to tell.
bool IsNewer(const KeptTable& kept, const KeptTable& other) {
  return kept.fileSystemID == other.fileSystemID ? kept.table.generation > other.table.generation
                                                 : kept.taken > other.taken;
}

std::optional<unsigned long long> NewestOf(const std::vector<KeptTable>& tables,
                                           const Result& result) {
  const KeptTable* newest = nullptr;
  for (const KeptTable& kept : tables)
    if (HasNumbersOf(kept.table, result) && (!newest || IsNewer(kept, *newest))) newest = &kept;
  return newest ? std::optional(newest->table.generation) : std::nullopt;
}

}  // namespace

bool HasNumbersOf(const SizeTable& table, const Result& result) {
  const std::vector<SnapshotShares> shares = SharesOf(table);
  std::map<unsigned long long, unsigned long long> alone;
  for (size_t place = 0; place < shares.size(); ++place)
    alone.emplace(table.subvolumeIDs[place], shares[place].alone.Total());
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i) {
    const auto found = alone.find(result.subvolumeIDs[i]);
    if (found == alone.end() || found->second != result.exclusiveBytes[i]) return false;
  }
  return !result.subvolumeIDs.empty();
}

std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result) {
  try {
    return NewestOf(AllTables(share), result);
  } catch (const Failure&) {
    // Whoever needs the tables themselves says what is wrong with them.
    return std::nullopt;
  }
}

}  // namespace ZorvSnapUsage
