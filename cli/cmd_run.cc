// zorv-snapusage run: calculate, follow, show.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <iterator>
#include <memory>
#include <optional>

#include "cli/commands.h"
#include "cli/current_report.h"
#include "cli/deletions.h"
#include "cli/failure.h"
#include "cli/follow.h"
#include "cli/interrupt.h"
#include "cli/launch_choice.h"
#include "cli/options.h"
#include "cli/report.h"
#include "cli/report_table.h"
#include "cli/result_generation.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

struct RunOptions {
  ShareChoice shares;
  Selection selection;  // of each share
  OutputFormat format;
  bool quiet = false;
};

// Calculates one share and waits for it, with progress. Ctrl-C asks the calculation to stop.
Launched LaunchAndFollow(const Selection& selection, bool quiet) {
  const std::string& share = selection.share;
  AwaitShare(share);
  const Launched launched = Launch(selection);
  std::optional<StopRequest> stop;
  const auto askToStop = [&](Progress& progress, const ProcessWatch& process) {
    if (!stop) {
      progress.Say("asked the calculation to stop, waiting for it (Ctrl-C again leaves at once)");
      stop.emplace(share);
      Interrupt::SetLastWords(fmt::format(
          "left at once; the calculation of share {} goes on stopping by itself: zorv-snapusage "
          "status {}",
          Quoted(share), ShareWord(share)));
    }
    stop->Repeat(process);
  };
  RequireDone(share, FollowToEnd(share, launched.taskID, quiet, askToStop));
  return launched;
}

Report RunShare(const Selection& selection, bool quiet) {
  const std::string& share = selection.share;
  const Launched launched = LaunchAndFollow(selection, quiet);
  const Result result = RequireResultOfTask(share, launched.taskID);
  std::vector<Snapshot> asked = launched.asked;
  asked.insert(asked.end(), launched.leftOut.begin(), launched.leftOut.end());
  auto [report, snapshots, present] =
      ReportOfNow(share, result, SafeTables(share), [&](const PresentSnapshots&) { return asked; });
  AddTableOfNow(snapshots, quiet ? Silence::kQuiet : Silence::kSpeak, report);
  report.beingDeleted = LookAgainForDeletions(share, launched.beingDeleted);
  report.generation = GenerationOf(share, result);
  return report;
}

// The state that a calculation without a result has ended in, as far as the failure says it.
const char* StateAfter(const Failure& failure) {
  if (failure.Status() == kCalculationStopped) return "stop";
  return failure.Status() == kCalculationFailed ? "fail" : "";
}

// As RunShare, and `end` says what has become of it.
Report RunShareTo(ShareEnd& end, const RunOptions& options) {
  try {
    const Report report = RunShare(SelectionOf(end.share, options.selection), options.quiet);
    end.state = "done";
    return report;
  } catch (const Failure& failure) {
    end.state = StateAfter(failure);
    throw;
  }
}

// Ctrl-C that came before the calculation of a share was begun, but not before all of them.
Failure InterruptedBefore(const std::string& share) {
  return Failure(
      kLeftAtOnce,
      fmt::format("interrupted before the calculation of share {} was started", Quoted(share)),
      "results that were stored before are kept");
}

int Run(const RunOptions& options) {
  const Interrupt interrupt;
  const SharesChosen chosen = SharesToCalculate(options.shares, options.selection);
  std::vector<ShareEnd> ends;
  for (const std::string& share : chosen.shares) ends.push_back({share, ""});
  ReportPrinter printer(options.format, options.shares.Several());
  auto end = ends.begin();
  try {
    const int status = ForEachShare(options.shares, chosen.shares, [&](const std::string&) {
      const Report report = RunShareTo(*end++, options);
      printer.Print(report);
      NoteOtherFileSystem(report);
      NoteRowsOfOtherState(report);
      RequireComplete(report);
    });
    printer.Finish(ends, chosen.status == kOk);
    return chosen.After(status);
  } catch (const Failure& failure) {
    printer.Finish(ends, chosen.status == kOk);
    if (failure.Status() == kLeftAtOnce && end - ends.begin() > 1)
      throw InterruptedBefore(std::prev(end)->share);
    throw;
  }
}

}  // namespace

void AddRun(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("run", "Calculate, follow with progress, show the result");
  const auto options = std::make_shared<RunOptions>();
  AddShareChoice(*command, options->shares, "All shares, one after the other");
  AddSelection(*command, options->selection);
  AddOutputFormat(*command, options->format, ReportColumns());
  command->add_flag("--quiet,-q", options->quiet, "No progress");
  command->footer(
      "Ctrl-C asks the calculation to stop; a second one leaves at once.\n"
      "Example: zorv-snapusage run photos --since 2024-03-01 --until 2024-03-31");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace ZorvSnapUsage
