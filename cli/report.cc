#include "cli/report.h"

#include <fmt/format.h>
#include <json/writer.h>
#include <stdio.h>
#include <syslog.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>

#include <algorithm>
#include <map>
#include <set>

#include "cli/calculation.h"
#include "cli/failure.h"
#include "cli/string_list.h"
#include "cli/text.h"
#include "cli/time_text.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::ShareSnapUsageCal;

// Changed when a member changes its meaning or goes; new members do not change it.
constexpr int kJsonVersion = 1;

// The name under which the latest calculation measured a subvolume; empty when it did not. Asked
// without a line in the system log: that a name is not known is an answer here, not an error.
std::string RecordedName(const std::string& share, unsigned long long subvolumeID) {
  StringList names;
  const int mask = setlogmask(LOG_UPTO(LOG_CRIT));
  const int code = ShareSnapUsageCal::FindSnapNameBySubvolID(share, {subvolumeID}, names.Ref());
  (void)setlogmask(mask);
  return code == 0 ? names.Strings().at(0) : "";
}

ReportRow RowOf(const std::string& share, unsigned long long subvolumeID,
                const std::map<unsigned long long, const Snapshot*>& present) {
  ReportRow row;
  row.subvolumeID = subvolumeID;
  const auto found = present.find(subvolumeID);
  row.present = found != present.end();
  row.name = row.present ? found->second->name : RecordedName(share, subvolumeID);
  row.time = row.present ? found->second->time : TimeInName(row.name);
  return row;
}

std::string BytesText(unsigned long long bytes, const ReportFormat& format) {
  return format.raw ? std::to_string(bytes) : HumanBytes(bytes);
}

std::string NameText(const ReportRow& row) {
  if (row.present) return Escaped(row.name);
  return row.name.empty() ? "(deleted)" : Escaped(row.name) + " (deleted)";
}

// The columns of one line; the name, whose width nobody knows, is the last one.
using Line = std::vector<std::string>;

void PrintTable(const std::vector<Line>& lines) {
  std::vector<size_t> widths(lines.front().size() - 1, 0);
  for (const Line& line : lines)
    for (size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  for (const Line& line : lines) {
    for (size_t i = 0; i < widths.size(); ++i) fmt::print("{:>{}}  ", line[i], widths[i]);
    fmt::print("{}\n", line.back());
  }
}

void PrintForPeople(const Report& report, const ReportFormat& format) {
  fmt::print("share {}, calculated {}\n\n", Escaped(report.share),
             TimeForPeople(report.calculated));
  std::vector<Line> lines = {{"EXCLUSIVE", "RUNNING TOTAL", "ID", "TIME", "SNAPSHOT"}};
  for (const ReportRow& row : report.rows)
    lines.push_back({BytesText(row.exclusiveBytes, format),
                     BytesText(row.runningTotalBytes, format), std::to_string(row.subvolumeID),
                     row.time ? TimeForPeople(*row.time) : "-", NameText(row)});
  PrintTable(lines);
}

Json::Value Names(const std::vector<std::string>& names) {
  Json::Value array(Json::arrayValue);
  for (const std::string& name : names) array.append(ValidUtf8(name));
  return array;
}

Json::Value RowJson(const ReportRow& row) {
  Json::Value value;
  value["name"] = row.name.empty() ? Json::Value() : Json::Value(ValidUtf8(row.name));
  value["present"] = row.present;
  value["time"] = row.time ? Json::Value(TimeForPrograms(*row.time)) : Json::Value();
  value["timestamp"] = row.time ? Json::Value(Json::Int64{*row.time}) : Json::Value();
  value["subvolume_id"] = Json::UInt64{row.subvolumeID};
  value["exclusive"] = Json::UInt64{row.exclusiveBytes};
  value["running_total"] = Json::UInt64{row.runningTotalBytes};
  return value;
}

void PrintForPrograms(const Report& report) {
  Json::Value value;
  value["__header"]["version"] = kJsonVersion;
  value["share"] = ValidUtf8(report.share);
  value["task_id"] = ValidUtf8(report.taskID);
  value["calculated"] = TimeForPrograms(report.calculated);
  value["calculated_timestamp"] = Json::Int64{report.calculated};
  value["complete"] = report.missing.empty();
  value["missing"] = Names(report.missing);
  value["not_measured"] = Names(report.notMeasured);
  value["snapshots"] = Json::Value(Json::arrayValue);
  for (const ReportRow& row : report.rows) value["snapshots"].append(RowJson(row));
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer["emitUTF8"] = true;
  fmt::print("{}\n", Json::writeString(writer, value));
}

std::string Listed(const std::vector<std::string>& names) {
  constexpr size_t kNamed = 5;
  std::string text;
  for (size_t i = 0; i < std::min(names.size(), kNamed); ++i)
    text += (i == 0 ? "" : ", ") + Quoted(names[i]);
  return names.size() > kNamed ? text + ", ..." : text;
}

}  // namespace

Report MakeReport(const std::string& share, const Result& result,
                  const std::vector<Snapshot>& present, const std::vector<Snapshot>& asked) {
  Report report;
  report.share = share;
  report.taskID = result.taskID;
  report.calculated = result.stored;
  std::map<unsigned long long, const Snapshot*> byID;
  for (const Snapshot& snapshot : present) byID.emplace(snapshot.subvolumeID, &snapshot);
  std::set<unsigned long long> known;
  unsigned long long runningTotal = 0;
  for (size_t i = 0; i < result.subvolumeIDs.size(); ++i) {
    ReportRow row = RowOf(share, result.subvolumeIDs[i], byID);
    row.exclusiveBytes = result.exclusiveBytes[i];
    row.runningTotalBytes = runningTotal += row.exclusiveBytes;
    known.insert(row.subvolumeID);
    report.rows.push_back(row);
  }
  for (const Snapshot& snapshot : asked)
    if (known.insert(snapshot.subvolumeID).second) report.missing.push_back(snapshot.name);
  for (const Snapshot& snapshot : present)
    if (known.insert(snapshot.subvolumeID).second) report.notMeasured.push_back(snapshot.name);
  return report;
}

std::vector<Snapshot> AskedFor(const std::string& share, const Result& result,
                               const std::vector<Snapshot>& present) {
  std::vector<Snapshot> asked;
  if (RecordedTask(share) != result.taskID) return asked;
  for (const Snapshot& snapshot : present)
    if (!RecordedName(share, snapshot.subvolumeID).empty()) asked.push_back(snapshot);
  return asked;
}

void Print(const Report& report, const ReportFormat& format) {
  if (format.json)
    PrintForPrograms(report);
  else
    PrintForPeople(report, format);
}

void RequireComplete(const Report& report) {
  if (report.missing.empty()) return;
  throw Failure(
      kShortResult,
      fmt::format("the result of share {} is short: {} of {} snapshots are not in it ({})",
                  Quoted(report.share), report.missing.size(),
                  report.missing.size() + report.rows.size(), Listed(report.missing)),
      fmt::format("run it again with: zorv-snapusage run {}", ShellWord(report.share)));
}

}  // namespace ZorvSnapUsage
