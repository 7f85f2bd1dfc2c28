#include "cli/report_table.h"

#include <fmt/format.h>

#include <map>
#include <optional>

#include "cli/failure.h"
#include "cli/file_system.h"
#include "cli/interrupt.h"
#include "cli/share.h"
#include "cli/standard_streams.h"
#include "cli/table_cache.h"
#include "cli/table_source.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

void SayNotRead(const std::string& share, const Failure& failure) {
  Say(
      fmt::format("note: metadata, with older and new could not be read: {}; get them with: "
                  "zorv-snapusage run {}",
                  Interrupt::Asked() ? "interrupted" : failure.what(), ShareWord(share)));
}

// The newest of the file system that the share lies on now: subvolumes of another one may have the
// same numbers.
std::optional<KeptTable> KeptOf(const std::string& share) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  const std::optional<FileSystemState> state =
      place ? StateOfFileSystem(place->path) : std::nullopt;
  return NewestTable(share, state ? std::optional(state->id) : std::nullopt);
}

}  // namespace

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
  if (const std::optional<KeptTable> kept = KeptOf(report.share)) AddTable(*kept, report);
}

void AddTableOfNow(const std::vector<Snapshot>& snapshots, Silence silence, Report& report) {
  std::optional<KeptTable> table;
  try {
    table = KeptOf(report.share);
    if (!snapshots.empty()) table = TableOfNow(report.share, snapshots, silence);
  } catch (const Failure& failure) {
    SayNotRead(report.share, failure);
  }
  if (table) AddTable(*table, report);
}

}  // namespace ZorvSnapUsage
