#include "cli/plan_report.h"

#include <fmt/format.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "cli/json_output.h"
#include "cli/snapshot_choice.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

// Where the snapshot itself is; a view has a link to it.
std::string RealPathOf(const Snapshot& snapshot) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::canonical(snapshot.path, error);
  return error ? snapshot.path : path.string();
}

// People are told the names by which the share's source deletes them, where these are others.
Table TableOf(const PlanReport& report) {
  Table table(PlanColumns());
  const std::vector<std::string> ofSource = SourceNames(report.request.share, report.snapshots);
  FreedBytes soFar;
  for (size_t i = 0; i < report.plan.order.size(); ++i) {
    const uint32_t place = report.plan.order[i];
    const Snapshot& snapshot = report.snapshots[place];
    const FreedBytes& step = report.plan.steps[i];
    soFar += step;
    table.Add({Cell::Number(i + 1), Cell::Bytes(step.Total()), Cell::Bytes(step.metadata),
               Cell::Bytes(soFar.Total()), Cell::Number(snapshot.subvolumeID),
               Cell::Time(snapshot.time), Cell::Text(RealPathOf(snapshot)),
               Cell::Text(snapshot.name, Tone::kPlain, Escaped(ofSource[place]))});
  }
  return table;
}

// What is proved about the number of a plan with the fewest.
std::string ProofText(const Plan& plan) {
  if (*plan.atLeast == plan.order.size())
    return fmt::format("no fewer than {} will do", CountOf(plan.order.size(), "snapshot"));
  return fmt::format("at most {} are needed, {} at least", CountOf(plan.order.size(), "snapshot"),
                     *plan.atLeast);
}

void PrintForPeople(const PlanReport& report, const OutputFormat& format) {
  const FreedBytes together = report.plan.Together();
  const auto text = [&](unsigned long long bytes) { return BytesText(bytes, format.ShownUnits()); };
  ToStandardOutput(fmt::format(
      "share {}, plan for the state of {} (generation {})\n\n", Escaped(report.request.share),
      TimeForPeople(report.table.taken.seconds), report.table.table.generation));
  ToStandardOutput(TableOf(report).Text(format));
  ToStandardOutput(fmt::format("\ntogether {} from {} of {}, of it {} metadata\n",
                               text(together.Total()), report.plan.order.size(),
                               CountOf(report.snapshots.size(), "snapshot"),
                               text(together.metadata)));
  if (report.plan.atLeast) ToStandardOutput(ProofText(report.plan) + "\n");
  ToStandardOutput("this is a plan: nothing has been deleted\n");
}

Json::Value BytesJson(const FreedBytes& bytes) {
  Json::Value value(Json::objectValue);
  value["frees"] = Json::UInt64{bytes.Total()};
  value["metadata"] = Json::UInt64{bytes.metadata};
  return value;
}

void PrintForPrograms(const PlanReport& report, const OutputFormat& format) {
  const Plan& plan = report.plan;
  Json::Value document = NewDocument(kJsonVersion);
  document["share"] = ValidUtf8(report.request.share);
  SetTime(document, "taken", report.table.taken.seconds);
  document["generation"] = Json::UInt64{report.table.table.generation};
  document["being_deleted"] = NumberJson(report.beingDeleted);
  document["steps"] = TableOf(report).Rows(format);
  document["together"] = BytesJson(plan.Together());
  if (report.request.target > 0) {
    document["target"] = Json::UInt64{report.request.target};
    document["reached"] = plan.reached;
    document["most"] = BytesJson(plan.most);
  }
  if (plan.atLeast) {
    document["at_least"] = Json::UInt64{*plan.atLeast};
    document["proved"] = *plan.atLeast == plan.order.size();
  }
  PrintJson(document);
}

}  // namespace

const Columns& PlanColumns() {
  static const Columns columns = {
      {"step", "STEP"},     {"frees", "FREES"},     {"metadata", "OF IT METADATA"},
      {"so_far", "SO FAR"}, {"subvolume_id", "ID"}, {"time", "TIME"},
      {"path", ""},         {"name", "SNAPSHOT"}};
  return columns;
}

void Print(const PlanReport& report, const OutputFormat& format) {
  if (format.json)
    PrintForPrograms(report, format);
  else if (format.plain)
    ToStandardOutput(TableOf(report).Text(format));
  else
    PrintForPeople(report, format);
}

}  // namespace ZorvSnapUsage
