// zorv-snapusage stop: end a share's calculation.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/follow.h"
#include "cli/leftovers.h"
#include "cli/options.h"
#include "cli/text.h"
#include "cli/watch.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr std::chrono::seconds kTimeToStop{30};

// Asks until the state is final.
Calculation StopAndWait(const std::string& share, const std::string& taskID) {
  const auto end = std::chrono::steady_clock::now() + kTimeToStop;
  StopRequest request(share);
  Watch watch(share, taskID);
  while (!watch.Poll()) {
    if (std::chrono::steady_clock::now() > end)
      throw Failure(kNotFinalInTime,
                    fmt::format("the calculation of share {} did not stop within {} seconds, "
                                "its state is {}",
                                Quoted(share), kTimeToStop.count(), watch.Now().stateWord),
                    fmt::format("look again with: zorv-snapusage status {}", ShareWord(share)));
    request.Repeat(watch.Process());
    watch.Pause();
  }
  return watch.Now();
}

int Stop(const std::string& share) {
  BeginWorkOn(share);
  RemoveLeftovers();
  const std::string taskID = RequireTask(share);
  Calculation calculation = RequireCalculation(share, taskID);
  const Activity activity = ActivityOf(share, calculation);
  if (activity == Activity::kDied) FailDied(share);
  if (activity != Activity::kNone) calculation = StopAndWait(share, taskID);
  fmt::print("{} share {}: state {}\n",
             activity == Activity::kNone ? "nothing to stop," : "ended the calculation of",
             Quoted(share), calculation.stateWord);
  return kOk;
}

}  // namespace

void AddStop(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("stop", "Stop a share's calculation and wait for its end");
  const auto share = std::make_shared<std::string>();
  AddShareArgument(*command, *share);
  command->footer(
      "Earlier results are kept.\n"
      "Example: zorv-snapusage stop photos");
  command->callback([share, &action] { action = [share] { return Stop(*share); }; });
}

}  // namespace ZorvSnapUsage
