#include "cli/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "cli/calculation.h"
#include "cli/failure.h"
#include "cli/json_output.h"
#include "cli/recorded_snapshots.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

ReportRow RowOf(unsigned long long subvolumeID,
                const std::map<unsigned long long, const Snapshot*>& present,
                const std::map<unsigned long long, std::string>& recorded) {
  ReportRow row;
  row.subvolumeID = subvolumeID;
  const auto found = present.find(subvolumeID);
  const auto name = recorded.find(subvolumeID);
  row.present = found != present.end();
  if (*row.present)
    row.name = found->second->name;
  else if (name != recorded.end())
    row.name = name->second;
  row.time = *row.present ? found->second->time : TimeInName(row.name);
  return row;
}

// The names under which the snapshots of the result were measured, if the share's record is still
// about that: it is of the latest calculation, which may be of another file system.
std::map<unsigned long long, std::string> NamesIn(const std::string& share, const Result& result) {
  if (RecordedTask(share) != result.taskID) return {};
  return RecordedSnapshots(share);
}

// Nobody can tell which of the rows' snapshots are still there.
void ForgetWhatIsThere(Report& report) {
  report.deletedSince.reset();
  for (ReportRow& row : report.rows) row.present.reset();
}

// The cells of a line that a table fills.
struct TableCells {
  Cell metadata, withOlder, newSinceOlder;
};

TableCells CellsOfTable(const ReportRow& row) {
  if (!row.shares) return {};
  const SnapshotShares& shares = *row.shares;
  TableCells cells = {Cell::Bytes(shares.alone.metadata), Cell(), Cell()};
  if (!row.time) return cells;  // nobody knows which ones are older
  cells.withOlder = Cell::Bytes(shares.withAllOlder.Total());
  if (shares.newSinceOlder) cells.newSinceOlder = Cell::Bytes(shares.newSinceOlder->Total());
  return cells;
}

// People see the columns of a table when there is one; scripts find every column in its place.
Columns ShownColumns(const Report& report, const OutputFormat& format) {
  Columns columns = ReportColumns();
  if (report.table || format.plain) return columns;
  for (Column& column : columns)
    if (column.key == "metadata" || column.key == "with_older" || column.key == "new")
      column.title.clear();
  return columns;
}

std::vector<Cell> LineOf(const ReportRow& row) {
  const bool deleted = row.present == false;
  const TableCells cells = CellsOfTable(row);
  return {Cell::Bytes(row.exclusiveBytes),
          Cell::Bytes(row.runningTotalBytes),
          cells.metadata,
          cells.withOlder,
          cells.newSinceOlder,
          Cell::Number(row.subvolumeID),
          Cell::Time(row.time),
          Cell::Flag(row.present),
          Cell::Text(row.name, deleted ? Tone::kFaint : Tone::kPlain, deleted ? "deleted" : "")};
}

Table TableOf(const Report& report, const OutputFormat& format) {
  Table table(ShownColumns(report, format));
  for (const ReportRow& row : report.rows) table.Add(LineOf(row));
  return table;
}

// The same with the share before each line.
Table TableWithShare(const Report& report, const OutputFormat& format) {
  Columns columns = ShownColumns(report, format);
  columns.insert(columns.begin(), {"share", "SHARE", Column::Side::kLeft});
  Table table(columns);
  for (const ReportRow& row : report.rows) {
    std::vector<Cell> line = LineOf(row);
    line.insert(line.begin(), Cell::Text(report.share));
    table.Add(line);
  }
  return table;
}

std::string Completeness(const Report& report) {
  if (!report.missing.empty())
    return fmt::format("{} of {} snapshots are missing", report.missing.size(),
                       report.missing.size() + report.rows.size());
  if (report.notMeasured.empty()) return "complete";
  const size_t there = report.rows.size() - report.deletedSince.value_or(0);
  return fmt::format("{} of {} snapshots calculated", there, there + report.notMeasured.size());
}

std::string GenerationText(const Report& report) {
  return report.generation ? fmt::format(", generation {}", *report.generation) : "";
}

// So that the sum is explained: what several hold is in no exclusive number.
std::string TotalsText(const ReportTable& table, const TableTotals& totals, Units units) {
  const unsigned long long all = totals.all.Total();
  const unsigned long long several = totals.heldBySeveral.Total();
  const bool one = table.snapshots == 1;
  return fmt::format("{} then {} {}{}: {} exclusive, {} held only by two or more of them\n",
                     AllOf(table.snapshots, "snapshot"), one ? "frees" : "free",
                     BytesText(all, units), one ? "" : " together", BytesText(all - several, units),
                     BytesText(several, units));
}

void PrintTable(const ReportTable& table, Units units) {
  ToStandardOutput(fmt::format("\nmetadata, with older, new: as of {} (generation {})\n",
                               TimeForPeople(table.taken), table.generation));
  if (table.totals) ToStandardOutput(TotalsText(table, *table.totals, units));
}

// What a deleted snapshot shared with one other is that one's alone now.
void PrintDeletions(const Report& report) {
  const size_t deleted = report.deletedSince.value_or(0);
  if (deleted == 0 || deleted == report.rows.size() || report.otherFileSystem) return;
  ToStandardOutput(
      fmt::format("\nsnapshots were deleted after the calculation: others may free more now than "
                  "shown\nget their numbers with: zorv-snapusage run {}\n",
                  ShareWord(report.share)));
}

void PrintForPeople(const Report& report, const OutputFormat& format) {
  if (!format.plain)
    ToStandardOutput(fmt::format("share {}, calculated {}{}, {}\n\n", Escaped(report.share),
                                 TimeForPeople(report.calculated.seconds), GenerationText(report),
                                 Completeness(report)));
  ToStandardOutput(TableOf(report, format).Text(format));
  if (format.plain) return;
  if (report.table) PrintTable(*report.table, format.ShownUnits());
  PrintDeletions(report);
}

Json::Value TableJson(const ReportTable& table) {
  Json::Value value(Json::objectValue);
  SetTime(value, "taken", table.taken);
  value["generation"] = Json::UInt64{table.generation};
  value["snapshots"] = Json::UInt64{table.snapshots};
  value["all"] = value["held_by_several"] = Json::Value();
  if (!table.totals) return value;
  value["all"] = Json::UInt64{table.totals->all.Total()};
  value["held_by_several"] = Json::UInt64{table.totals->heldBySeveral.Total()};
  return value;
}

void AddTo(Json::Value& document, const Report& report, const OutputFormat& format) {
  document["share"] = ValidUtf8(report.share);
  document["task_id"] = ValidUtf8(report.taskID);
  SetTime(document, "calculated", report.calculated.seconds);
  document["generation"] = NumberJson(report.generation);
  document["complete"] = report.missing.empty();
  document["missing"] = NamesJson(report.missing);
  document["not_measured"] = NamesJson(report.notMeasured);
  document["deleted_since"] = NumberJson(report.deletedSince);
  document["other_file_system"] = report.otherFileSystem;
  document["being_deleted"] = NumberJson(report.beingDeleted);
  document["snapshots"] = TableOf(report, format).Rows(format);
  document["table"] = report.table ? TableJson(*report.table) : Json::Value();
}

Json::Value EndJson(const ShareEnd& end) {
  Json::Value value(Json::objectValue);
  value["name"] = ValidUtf8(end.share);
  value["state"] = end.state.empty() ? Json::Value() : Json::Value(end.state);
  return value;
}

void PrintForPrograms(const Report& report, const OutputFormat& format) {
  Json::Value document = NewDocument(kJsonVersion);
  AddTo(document, report, format);
  PrintJson(document);
}

bool AreUtf8(const std::vector<std::string>& names) {
  return std::ranges::all_of(names, [](const auto& name) { return ValidUtf8(name) == name; });
}

std::string Listed(const std::vector<std::string>& names) {
  constexpr size_t kNamed = 5;
  std::string text;
  for (size_t i = 0; i < std::min(names.size(), kNamed); ++i)
    text += (i == 0 ? "" : ", ") + Quoted(names[i]);
  return names.size() > kNamed ? text + ", ..." : text;
}

}  // namespace

Report MakeReport(const std::string& share, const Result& result, const PresentSnapshots& present,
                  const std::vector<Snapshot>& asked) {
  Report report;
  report.share = share;
  report.taskID = result.taskID;
  report.calculated = result.stored;
  std::map<unsigned long long, const Snapshot*> byID;
  for (const Snapshot& snapshot : present.known) byID.emplace(snapshot.subvolumeID, &snapshot);
  const std::map<unsigned long long, std::string> recorded = NamesIn(share, result);
  std::set<unsigned long long> known;
  size_t deleted = 0;
  unsigned long long runningTotal = 0;
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i) {
    ReportRow row = RowOf(result.subvolumeIDs[i], byID, recorded);
    row.exclusiveBytes = result.exclusiveBytes[i];
    row.runningTotalBytes = runningTotal += row.exclusiveBytes;
    deleted += row.present == false;
    known.insert(row.subvolumeID);
    report.rows.push_back(row);
  }
  report.deletedSince = deleted;
  report.otherFileSystem = present.elsewhere;
  if (present.elsewhere) ForgetWhatIsThere(report);
  for (const Snapshot& snapshot : asked)
    if (known.insert(snapshot.subvolumeID).second) report.missing.push_back(snapshot.name);
  for (const Snapshot& snapshot : present.known)
    if (known.insert(snapshot.subvolumeID).second) report.notMeasured.push_back(snapshot.name);
  // A file system gives no ID twice.
  for (const Snapshot& snapshot : present.other) {
    report.otherFileSystem |= known.count(snapshot.subvolumeID) != 0;
    report.notMeasured.push_back(snapshot.name);
  }
  return report;
}

Report MakeReportAlone(const std::string& share, const Result& result) {
  Report report = MakeReport(share, result, {}, {});
  ForgetWhatIsThere(report);
  std::map<unsigned long long, std::string> missing = NamesIn(share, result);
  for (const ReportRow& row : report.rows) missing.erase(row.subvolumeID);
  for (const auto& [id, name] : missing) report.missing.push_back(name);
  return report;
}

std::vector<Snapshot> AskedFor(const std::string& share, const Result& result,
                               const PresentSnapshots& present) {
  std::vector<Snapshot> asked;
  const std::map<unsigned long long, std::string> recorded = NamesIn(share, result);
  if (recorded.empty()) return asked;
  std::vector<Snapshot> cannotBeRecorded;
  bool all = true;
  for (const Snapshot& snapshot : present.known) {
    if (recorded.count(snapshot.subvolumeID) != 0)
      asked.push_back(snapshot);
    else if (!IsRecordable(snapshot))
      cannotBeRecorded.push_back(snapshot);
    else
      all = false;
  }
  if (all) asked.insert(asked.end(), cannotBeRecorded.begin(), cannotBeRecorded.end());
  return asked;
}

const Columns& ReportColumns() {
  static const Columns columns = {{"exclusive", "EXCLUSIVE"},
                                  {"running_total", "RUNNING TOTAL"},
                                  {"metadata", "METADATA"},
                                  {"with_older", "WITH OLDER"},
                                  {"new", "NEW"},
                                  {"subvolume_id", "ID"},
                                  {"time", "TIME"},
                                  {"present", ""},
                                  {"name", "SNAPSHOT"}};
  return columns;
}

void Print(const Report& report, const OutputFormat& format) {
  if (format.json)
    PrintForPrograms(report, format);
  else
    PrintForPeople(report, format);
}

void ReportPrinter::Print(const Report& report) {
  if (!several_) {
    ZorvSnapUsage::Print(report, format_);
  } else if (format_.plain && !format_.json) {
    ToStandardOutput(TableWithShare(report, format_).Text(format_));
  } else if (!format_.json) {
    if (!printed_.empty()) ToStandardOutput("\n");
    PrintForPeople(report, format_);
  }
  (void)fflush(stdout);  // the next one may take long
  printed_.push_back(report);
}

void ReportPrinter::Finish(const std::vector<ShareEnd>& ends, bool all) {
  if (!several_ || !format_.json) return;
  Json::Value document = NewDocument(kJsonVersion);
  document["results"] = Json::Value(Json::arrayValue);
  std::set<std::string> shown;
  bool complete = all;
  for (const Report& report : printed_) {
    Json::Value result(Json::objectValue);
    AddTo(result, report, format_);
    document["results"].append(result);
    complete = complete && report.missing.empty();
    shown.insert(report.share);
  }
  std::vector<std::string> failed;
  document["shares"] = Json::Value(Json::arrayValue);
  for (const ShareEnd& end : ends) {
    document["shares"].append(EndJson(end));
    if (shown.count(end.share) == 0) failed.push_back(end.share);
  }
  document["complete"] = complete && failed.empty();
  document["failed"] = NamesJson(failed);
  PrintJson(document);
}

void RequireComplete(const Report& report) {
  if (report.missing.empty()) return;
  throw Failure(
      kShortResult,
      fmt::format("the result of share {} is short: {} of {} snapshots are not in it ({})",
                  Quoted(report.share), report.missing.size(),
                  report.missing.size() + report.rows.size(), Listed(report.missing)),
      fmt::format("{}run it again with: zorv-snapusage run {}",
                  AreUtf8(report.missing) ? "" : "rename those whose names are not UTF-8, and ",
                  ShareWord(report.share)));
}

}  // namespace ZorvSnapUsage
