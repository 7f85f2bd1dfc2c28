// zorv-snapusage run: calculate, follow, show.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/follow.h"
#include "cli/interrupt.h"
#include "cli/options.h"
#include "cli/progress.h"
#include "cli/report.h"
#include "cli/text.h"
#include "cli/watch.h"

namespace ZorvSnapUsage {
namespace {

// The results are copied in the moment after the state has become final.
constexpr std::chrono::seconds kTimeToCopy{60};

struct RunOptions {
  Selection selection;
  OutputFormat format;
  bool quiet = false;
};

void AskToStop(Progress& progress, std::optional<StopRequest>& stop, const std::string& share,
               const ProcessWatch& process) {
  if (!stop) {
    progress.Say("asked the calculation to stop, waiting for it (Ctrl-C again leaves at once)");
    stop.emplace(share);
  }
  stop->Repeat(process);
}

// Follows to the final state and to the end of the calculation's process.
Calculation Follow(const std::string& share, const std::string& taskID, bool quiet) {
  Watch watch(share, taskID);
  Progress progress(share, quiet);
  std::optional<StopRequest> stop;
  while (!watch.Poll()) {
    progress.Show(watch.Now());
    if (Interrupt::Asked()) AskToStop(progress, stop, share, watch.Process());
    watch.Pause();
  }
  if (!watch.WaitForProcess(kTimeToCopy))
    throw SystemFailure(fmt::format("the results of share {} are still not stored", Quoted(share)));
  return watch.Now();
}

int Run(const RunOptions& options) {
  const std::string& share = options.selection.share;
  const Interrupt interrupt;
  const Launched launched = Launch(options.selection);
  RequireDone(share, Follow(share, launched.taskID, options.quiet));
  const std::optional<Result> result = ResultOfTask(share, launched.taskID);
  if (!result)
    throw SystemFailure(fmt::format(
        "the calculation of share {} is done, but its results could not be stored", Quoted(share)));
  std::vector<Snapshot> asked = launched.asked;
  asked.insert(asked.end(), launched.leftOut.begin(), launched.leftOut.end());
  const Report report = MakeReport(share, *result, SnapshotsOf(share), asked);
  Print(report, options.format);
  RequireComplete(report);
  return kOk;
}

}  // namespace

void AddRun(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("run", "Calculate, follow with progress, show the result");
  const auto options = std::make_shared<RunOptions>();
  AddSelection(*command, options->selection);
  AddOutputFormat(*command, options->format, ReportColumns());
  command->add_flag("--quiet,-q", options->quiet, "No progress");
  command->footer(
      "Ctrl-C asks the calculation to stop, if it has begun; a second one leaves at once.\n"
      "Example: zorv-snapusage run photos --since 2024-03-01 --until \"2024-03-31 12:00\"");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace ZorvSnapUsage
