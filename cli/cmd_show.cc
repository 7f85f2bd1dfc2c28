// zorv-snapusage show: the last good result of a share.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/current_report.h"
#include "cli/failure.h"
#include "cli/options.h"
#include "cli/report_table.h"
#include "cli/result_generation.h"
#include "cli/settled.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

struct ShowOptions {
  std::string share;
  OutputFormat format;
};

[[noreturn]] void RefuseWithoutResult(const std::string& share,
                                      const std::optional<Calculation>& latest) {
  if (!latest) RequireShare(share);
  throw Failure(
      kNothingRecorded,
      fmt::format(
          "there is no result of share {}{}", Quoted(share),
          latest ? fmt::format(", its last calculation is in state {}", latest->stateWord) : ""),
      fmt::format("calculate it with: zorv-snapusage run {}", ShareWord(share)));
}

void PrintNotes(const Report& report, const std::optional<Calculation>& latest) {
  if (latest && latest->taskID != report.taskID)
    Note(fmt::format("this is an earlier result; the last calculation is in state {}",
                     latest->stateWord));
  if (report.calculated > Moment::Now())
    Note("the clock was set back since this result was calculated");
  if (!report.notMeasured.empty())
    Note(fmt::format("{} of the share {} not in this result",
                     CountOf(report.notMeasured.size(), "snapshot"),
                     report.notMeasured.size() == 1 ? "is" : "are"));
  NoteOtherFileSystem(report);
  NoteRowsOfOtherState(report);
}

Report ReportOf(const std::string& share, const Result& result) {
  const auto asked = [&](const PresentSnapshots& present) {
    return AskedFor(share, result, present);
  };
  const TablesOfShare tables = SortedTables(share);
  auto [report, snapshots, present] = ReportOfNow(share, result, tables, asked);
  AddBestTable(tables.here, present, report);
  report.generation = GenerationOf(share, result);
  return report;
}

int Show(const ShowOptions& options) {
  const std::string& share = options.share;
  BeginWorkOn(share);
  const std::optional<Calculation> latest = SettledCalculation(share);
  const std::optional<Result> result = SettledResult(share);
  if (!result) RefuseWithoutResult(share, latest);
  const Report report = ReportOf(share, *result);
  Print(report, options.format);
  PrintNotes(report, latest);
  RequireComplete(report);
  return kOk;
}

}  // namespace

void AddShow(CLI::App& program, Action& action) {
  CLI::App* const command = program.add_subcommand("show", "Show the last good result of a share");
  const auto options = std::make_shared<ShowOptions>();
  AddShareArgument(*command, options->share);
  AddOutputFormat(*command, options->format, ReportColumns());
  command->footer(
      "Exclusive: what the snapshot alone holds. Running total: the sum so far.\n"
      "Example: zorv-snapusage show photos --format json");
  command->callback([options, &action] { action = [options] { return Show(*options); }; });
}

}  // namespace ZorvSnapUsage
