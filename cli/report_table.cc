#include "cli/report_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/standard_streams.h"
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

// Where the table has its subvolumes, by their IDs.
using Places = std::map<unsigned long long, size_t>;

Places PlacesOf(const SizeTable& table) {
  Places places;
  for (size_t place = 0; place < table.subvolumeIDs.size(); ++place)
    places.emplace(table.subvolumeIDs[place], place);
  return places;
}

// Whether the table has each row, and beyond them nothing but what is there and was not asked for.
bool HasTheSnapshotsOf(const Report& report, const PresentSnapshots& present, Places places) {
  for (const ReportRow& row : report.rows)
    if (places.erase(row.subvolumeID) == 0) return false;
  for (const Snapshot& snapshot : present.known) places.erase(snapshot.subvolumeID);
  return places.empty();
}

// A table beside the rows of a report.
struct Match {
  const KeptTable* kept = nullptr;
  std::vector<SnapshotShares> shares;  // of the rows of its state: the first ones

  // With more rows, else of a later state.
  bool IsBetterThan(const Match& other) const {
    if (!other.kept || shares.size() != other.shares.size())
      return shares.size() > other.shares.size();
    return kept->table.generation > other.kept->table.generation;
  }
};

bool IsBefore(const ReportRow& row, const ReportRow& next) {
  return row.time ? !next.time || *row.time <= *next.time : !next.time;
}

// Whether the rows, which are in the order of the calculation, are in that of their names, too:
// where snapshots were renamed since, others are the older ones now.
bool AreByTime(const std::vector<ReportRow>& rows) {
  return std::adjacent_find(rows.begin(), rows.end(), [](const auto& row, const auto& next) {
           return !IsBefore(row, next);
         }) == rows.end();
}

Match MatchOf(const KeptTable& kept, const PresentSnapshots& present, const Report& report) {
  Match match{&kept, {}};
  const Places places = PlacesOf(kept.table);
  if (kept.taken < report.calculated || !AreByTime(report.rows) ||
      !HasTheSnapshotsOf(report, present, places))
    return match;
  const std::vector<SnapshotShares> shares = SharesOf(kept.table);
  for (const ReportRow& row : report.rows) {
    const SnapshotShares& ofRow = shares[places.at(row.subvolumeID)];
    if (ofRow.alone.Total() != row.exclusiveBytes) break;
    match.shares.push_back(ofRow);
  }
  return match;
}

void Add(const Match& match, Report& report) {
  for (size_t i = 0; i < match.shares.size(); ++i) report.rows[i].shares = match.shares[i];
  const SizeTable& table = match.kept->table;
  report.table = {match.kept->taken, table.generation, table.subvolumeIDs.size(), std::nullopt};
  if (match.shares.size() == report.rows.size()) report.table->totals = TotalsOf(table);
}

}  // namespace

void AddBestTable(const std::vector<KeptTable>& tables, const PresentSnapshots& present,
                  Report& report) {
  Match best;
  for (const KeptTable& kept : tables)
    if (Match match = MatchOf(kept, present, report); match.IsBetterThan(best))
      best = std::move(match);
  if (!best.shares.empty()) Add(best, report);
  if (!tables.empty()) report.rowsOfOtherState = report.rows.size() - best.shares.size();
}

void AddTableOfNow(const std::vector<Snapshot>& snapshots, Silence silence, Report& report) {
  if (snapshots.empty()) return;
  try {
    KeptTable now = TableOfNow(report.share, snapshots, silence);
    if (now.taken < report.calculated) KeepAsOfNow(report.share, now);
    AddBestTable({now}, {snapshots, {}}, report);
  } catch (const Failure& failure) {
    SayNotRead(report.share, failure);
  }
}

void NoteRowsOfOtherState(const Report& report) {
  if (report.rowsOfOtherState == 0 || !report.missing.empty()) return;  // that is said, too
  const bool canBeRead = report.deletedSince != report.rows.size();
  Say(fmt::format("note: metadata, with older and new of {} of {} are left out: no table is of the "
                  "state that was calculated",
                  report.rowsOfOtherState, CountOf(report.rows.size(), "snapshot")) +
      (canBeRead ? "; get them with: zorv-snapusage run " + ShareWord(report.share) : ""));
}

}  // namespace ZorvSnapUsage
