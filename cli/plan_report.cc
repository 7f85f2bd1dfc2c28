#include "cli/plan_report.h"

#include <fmt/format.h>

#include <string>

#include "cli/json_output.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

Table TableOf(const PlanReport& report) {
  Table table(PlanColumns());
  FreedBytes soFar;
  for (size_t i = 0; i < report.plan.order.size(); ++i) {
    const Snapshot& snapshot = report.snapshots[report.plan.order[i]];
    const FreedBytes& step = report.plan.steps[i];
    soFar += step;
    table.Add({Cell::Number(i + 1), Cell::Bytes(step.Total()), Cell::Bytes(step.metadata),
               Cell::Bytes(soFar.Total()), Cell::Number(snapshot.subvolumeID),
               Cell::Time(snapshot.time), Cell::Text(snapshot.name)});
  }
  return table;
}

std::string HowMany(size_t count) {
  return count == 1 ? "1 snapshot" : fmt::format("{} snapshots", count);
}

// What is proved about the number of a plan with the fewest.
std::string ProofText(const Plan& plan) {
  if (*plan.atLeast == plan.order.size())
    return fmt::format("no fewer than {} will do", HowMany(plan.order.size()));
  return fmt::format("at most {} are needed, {} at least", HowMany(plan.order.size()),
                     *plan.atLeast);
}

void PrintForPeople(const PlanReport& report, const OutputFormat& format) {
  const FreedBytes together = report.plan.Together();
  const auto text = [&](unsigned long long bytes) { return BytesText(bytes, format.ShownUnits()); };
  ToStandardOutput(fmt::format("share {}, plan for the state of {} (generation {})\n\n",
                               Escaped(report.request.share), TimeForPeople(report.table.taken),
                               report.table.table.generation));
  ToStandardOutput(TableOf(report).Text(format));
  ToStandardOutput(fmt::format("\ntogether {} from {} of {}, of it {} metadata\n",
                               text(together.Total()), report.plan.order.size(),
                               HowMany(report.snapshots.size()), text(together.metadata)));
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
  SetTime(document, "taken", report.table.taken);
  document["generation"] = Json::UInt64{report.table.table.generation};
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
      {"name", "SNAPSHOT"}};
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
