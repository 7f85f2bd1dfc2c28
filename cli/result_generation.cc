#include "cli/result_generation.h"

#include "cli/failure.h"
#include "cli/present_snapshots.h"

namespace ZorvSnapUsage {
namespace {

bool HasNumbersOf(const SizeTable& table, const Result& result) {
  return !result.subvolumeIDs.empty() &&
         CountNumbersOf(result, AloneIn(table)) == result.subvolumeIDs.size();
}

std::optional<unsigned long long> NewestOf(const std::vector<KeptTable>& tables,
                                           const Result& result) {
  std::optional<unsigned long long> newest;
  for (const KeptTable& kept : tables)
    if (kept.IsSince(result.stored) && kept.table.generation > newest.value_or(0) &&
        HasNumbersOf(kept.table, result))
      newest = kept.table.generation;
  return newest;
}

}  // namespace

NumbersAlone AloneIn(const SizeTable& table) {
  const std::vector<SnapshotShares> shares = SharesOf(table);
  NumbersAlone alone;
  for (size_t place = 0; place < shares.size(); ++place)
    alone.emplace(table.subvolumeIDs[place], shares[place].alone.Total());
  return alone;
}

size_t CountNumbersOf(const Result& result, const NumbersAlone& alone) {
  size_t count = 0;
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i) {
    const auto found = alone.find(result.subvolumeIDs[i]);
    count += found != alone.end() && found->second == result.exclusiveBytes[i];
  }
  return count;
}

std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result) {
  try {
    return NewestOf(SortedTables(share).here, result);
  } catch (const Failure&) {
    // Whoever needs the tables themselves says what is wrong with them.
    return std::nullopt;
  }
}

}  // namespace ZorvSnapUsage
