#include "cli/result_generation.h"

#include <map>
#include <vector>

#include "cli/failure.h"
#include "cli/size_table.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {
namespace {

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

}  // namespace

std::optional<unsigned long long> GenerationOf(const std::string& share, const Result& result) {
  try {
    const std::optional<KeptTable> kept =
        NewestTable(share, /*fileSystemID=*/std::nullopt,
                    [&](const KeptTable& table) { return HasNumbersOf(table.table, result); });
    if (kept) return kept->table.generation;
  } catch (const Failure&) {
    // Whoever needs the tables themselves says what is wrong with them.
  }
  return std::nullopt;
}

}  // namespace ZorvSnapUsage
