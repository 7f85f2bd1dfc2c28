// zorv-snapusage wait: until calculations that are under way have ended.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/follow.h"
#include "cli/interrupt.h"
#include "cli/options.h"
#include "cli/report.h"
#include "cli/results.h"
#include "cli/share_choice.h"

namespace ZorvSnapUsage {
namespace {

struct WaitOptions {
  ShareChoice shares;
  bool quiet = false;
};

void WaitForShare(const std::string& share, bool quiet) {
  BeginWorkOn(share);
  const std::string taskID = RequireTask(share);
  Calculation calculation = RequireCalculation(share, taskID);
  if (ActivityOf(share, calculation) == Activity::kDied) FailDied(share);
  if (IsUnderWay(share, calculation)) calculation = FollowToEnd(share, taskID, quiet);
  RequireDone(share, calculation);
  RequireComplete(MakeReportAlone(share, RequireResultOfTask(share, taskID)));
}

int Wait(const WaitOptions& options) {
  BeginWork();
  const Interrupt interrupt;
  const std::vector<std::string> shares = ChosenShares(options.shares, SharesUnderWay);
  return ForEachShare(options.shares, shares,
                      [&options](const std::string& share) { WaitForShare(share, options.quiet); });
}

}  // namespace

void AddWait(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("wait", "Wait for the end of calculations in the background");
  const auto options = std::make_shared<WaitOptions>();
  AddShareChoice(*command, options->shares, "Every calculation that is under way");
  command->add_flag("--quiet,-q", options->quiet, "No progress");
  command->footer(
      "Its exit status says how the calculation ended. Ctrl-C leaves, and it goes on.\n"
      "Example: zorv-snapusage wait photos && zorv-snapusage show photos");
  command->callback([options, &action] { action = [options] { return Wait(*options); }; });
}

}  // namespace ZorvSnapUsage
