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

// Of the times in two names.
bool MayBeOlder(const std::optional<time_t>& one, const std::optional<time_t>& next) {
  return one ? !next || *one <= *next : !next;
}

// Whether the rows, which are in the order of the calculation, are in that of their names, too:
// where snapshots were renamed since, others are the older ones now.
bool AreByTime(const std::vector<ReportRow>& rows) {
  return std::adjacent_find(rows.begin(), rows.end(), [](const auto& row, const auto& next) {
           return !MayBeOlder(row.time, next.time);
         }) == rows.end();
}

// Whether the table has its snapshots in the order of the names that they have now: they may have
// had others when it was read.
bool IsByTime(const SizeTable& table, const PresentSnapshots& present, const Report& report) {
  std::map<unsigned long long, std::optional<time_t>> times;
  for (const ReportRow& row : report.rows) times.emplace(row.subvolumeID, row.time);
  for (const Snapshot& snapshot : present.known) times.emplace(snapshot.subvolumeID, snapshot.time);
  const std::vector<unsigned long long>& ids = table.subvolumeIDs;
  return std::adjacent_find(ids.begin(), ids.end(), [&](auto id, auto next) {
           return !MayBeOlder(times.at(id), times.at(next));
         }) == ids.end();
}

// Whether those of the table's snapshots that are there are in the order in which they are listed.
bool IsAsListed(const Places& places, const PresentSnapshots& present) {
  std::vector<size_t> listed;
  for (const Snapshot& snapshot : present.known)
    if (const auto place = places.find(snapshot.subvolumeID); place != places.end())
      listed.push_back(place->second);
  return std::is_sorted(listed.begin(), listed.end());
}

Match MatchOf(const KeptTable& kept, const PresentSnapshots& present, const Report& report) {
  Match match{&kept, {}};
  const Places places = PlacesOf(kept.table);
  if (!kept.IsSince(report.calculated) || !AreByTime(report.rows) ||
      !HasTheSnapshotsOf(report, present, places) || !IsByTime(kept.table, present, report) ||
      !IsAsListed(places, present))
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
  report.table = {match.kept->taken.seconds, table.generation, table.subvolumeIDs.size(),
                  std::nullopt};
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
  if (snapshots.empty() || report.otherFileSystem) return;
  try {
    KeptTable now = TableOfNow(report.share, snapshots, silence);
    if (now.taken < report.calculated) KeepAsOf(report.calculated, report.share, now);
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
