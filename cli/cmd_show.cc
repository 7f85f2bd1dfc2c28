// zorv-snapusage show: the last good result of a share.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/file_system.h"
#include "cli/options.h"
#include "cli/present_snapshots.h"
#include "cli/report_table.h"
#include "cli/result_generation.h"
#include "cli/share_map.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/watch.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

struct ShowOptions {
  std::string share;
  OutputFormat format;
};

// Results are taken away and copied anew in the moment after a state has become "done".
constexpr std::chrono::seconds kTimeToCopy{10};

std::optional<Calculation> LatestCalculation(const std::string& share) {
  const std::optional<std::string> taskID = TaskOf(share);
  if (!taskID) return std::nullopt;
  std::optional<Calculation> calculation = ReadCalculation(share, *taskID);
  if (calculation && ActivityOf(share, *calculation) == Activity::kFinishing) {
    ProcessWatch process;
    process.Attach(*calculation->pid);
    (void)process.WaitForEnd(std::chrono::milliseconds(kTimeToCopy).count());
  }
  return calculation;
}

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

void Note(const std::string& text) {
  ToStandardError(fmt::format("zorv-snapusage: note: {}\n", text));
}

void PrintNotes(const Report& report, const std::optional<Calculation>& latest) {
  if (latest && latest->taskID != report.taskID)
    Note(fmt::format("this is an earlier result; the last calculation is in state {}",
                     latest->stateWord));
  if (report.calculated > time(nullptr))
    Note("the clock was set back since this result was calculated");
  if (!report.notMeasured.empty())
    Note(fmt::format("{} of the share {} not in this result",
                     CountOf(report.notMeasured.size(), "snapshot"),
                     report.notMeasured.size() == 1 ? "is" : "are"));
  if (report.otherFileSystem)
    Note(
        fmt::format("the share lies on another file system than at the time of this result, or the "
                    "clock was set back since: its snapshots are not those of the result; "
                    "calculate them with: zorv-snapusage run {}",
                    ShareWord(report.share)));
  NoteRowsOfOtherState(report);
}

// Gives up when a share that is gone may have another name now: its volume still has one of the
// result's subvolumes.
void RequireDeleted(const std::string& share, const Result& result) {
  const std::optional<std::string> volume = RecordedVolumeOf(share);
  for (const unsigned long long id : result.subvolumeIDs)
    if (volume && HasSubvolume(*volume, id))
      throw Failure(kUnknownShare,
                    fmt::format("share {} is gone, but {} still has a subvolume with the ID {}",
                                Quoted(share), *volume, id),
                    "see whether the share has another name now: zorv-snapusage shares");
}

// The share's snapshots; none when it has been deleted. Gives up when they cannot be listed.
std::vector<Snapshot> SnapshotsThere(const std::string& share, const Result& result) {
  if (!ShareMayExist(share)) {
    RequireDeleted(share, result);
    return {};
  }
  RequireShare(share);
  return SnapshotsOf(share);
}

// Results outlive their share, and are there when its snapshots cannot be listed for the moment.
Report ReportOf(const std::string& share, const Result& result) {
  const TablesOfShare tables = SortedTables(share);
  PresentSnapshots present;
  Report report;
  try {
    present = SeenBy(share, result, SnapshotsThere(share, result), tables);
    report = MakeReport(share, result, present, AskedFor(share, result, present));
  } catch (const Failure& failure) {
    Note(fmt::format("which snapshots are still there cannot be told: {}", failure.what()));
    report = MakeReportAlone(share, result);
  }
  AddBestTable(tables.here, present, report);
  report.generation = GenerationOf(share, result);
  return report;
}

int Show(const ShowOptions& options) {
  const std::string& share = options.share;
  BeginWorkOn(share);
  const std::optional<Calculation> latest = LatestCalculation(share);
  const std::optional<Result> result = NewestResult(share);
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
