#include "cli/report_table.h"

#include <map>
#include <optional>
#include <vector>

#include "cli/table_cache.h"

namespace ZorvSnapUsage {

void AddTable(const KeptTable& kept, Report& report) {
  const std::vector<SnapshotShares> shares = SharesOf(kept.table);
  std::map<unsigned long long, size_t> places;
  for (size_t place = 0; place < shares.size(); ++place)
    places.emplace(kept.table.subvolumeIDs[place], place);
  for (ReportRow& row : report.rows)
    if (const auto place = places.find(row.subvolumeID); place != places.end())
      row.shares = shares[place->second];
  report.table = {kept.taken, kept.table.generation, shares.size(), TotalsOf(kept.table)};
}

void AddNewestTable(Report& report) {
  if (const std::optional<KeptTable> kept = NewestTable(report.share)) AddTable(*kept, report);
}

}  // namespace ZorvSnapUsage
