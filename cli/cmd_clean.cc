// zorv-snapusage clean: remove what is recorded of shares.
#include <fmt/format.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/launch.h"
#include "cli/results.h"
#include "cli/share.h"
#include "cli/string_list.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::ShareSnapUsageCal;
using ZorvBtrfsUsage::SnapUsageCalculator;

std::vector<std::string> RecordedShares() {
  StringList shares;
  if (!ShareSnapUsageCal::GetShareTaskList(shares.Ref()))
    throw SystemFailure("the record of calculations cannot be read");
  return shares.Strings();
}

bool UnderWay(const std::string& share, const std::optional<Calculation>& calculation) {
  if (!calculation) return false;
  const Activity activity = ActivityOf(share, *calculation);
  return activity != Activity::kNone && activity != Activity::kDied;
}

std::string ResultText(const std::optional<Result>& result) {
  if (!result) return "no result";
  return fmt::format("the result of {} snapshots", result->subvolumeIDs.size());
}

// Removes everything of one share and says so. False: a calculation is under way.
bool CleanShare(const std::string& share, const std::string& taskID) {
  const std::optional<Calculation> calculation = ReadCalculation(share, taskID);
  if (UnderWay(share, calculation)) return false;
  const std::optional<Result> result = NewestResult(share);
  ShareSnapUsageCal::CleanAll(share);
  // A task that failed or was stopped keeps its own record until somebody removes it.
  if (!taskID.empty()) SnapUsageCalculator(taskID).CleanAll();
  if (TaskOf(share))
    throw SystemFailure(fmt::format("the record of share {} cannot be removed", Quoted(share)));
  fmt::print("removed share {}: state {}, {}\n", Quoted(share),
             calculation ? calculation->stateWord : "unknown", ResultText(result));
  return true;
}

[[noreturn]] void RefuseUnderWay(const std::string& share) {
  throw Failure(kShareBusy,
                fmt::format("share {} was kept: a calculation of it is under way", Quoted(share)),
                fmt::format("end it first with: zorv-snapusage stop {}", ShellWord(share)));
}

// Removing one share also drops shares that no longer exist, so each is looked up anew.
int CleanAllShares() {
  std::string busy;
  const std::vector<std::string> shares = RecordedShares();
  for (const std::string& share : shares) {
    const std::optional<std::string> taskID = TaskOf(share);
    if (!taskID)
      fmt::print("removed share {}: it no longer exists\n", Quoted(share));
    else if (!CleanShare(share, *taskID))
      busy = share;
  }
  if (shares.empty()) fmt::print("nothing to remove\n");
  if (!busy.empty()) RefuseUnderWay(busy);
  return kOk;
}

int CleanOneShare(const std::string& share) {
  if (!CleanShare(share, RequireTask(share))) RefuseUnderWay(share);
  return kOk;
}

int Clean(const std::string& share) {
  RequireRoot();
  return share.empty() ? CleanAllShares() : CleanOneShare(share);
}

}  // namespace

void AddClean(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("clean", "Remove results and records of a share, or of all shares");
  const auto share = std::make_shared<std::string>();
  command->add_option("SHARE", *share, "Name of the share (default: all)");
  command->footer(
      "Asks nothing. Shares with a calculation under way are kept. Snapshots are not touched.\n"
      "Example: zorv-snapusage clean photos");
  command->callback([share, &action] { action = [share] { return Clean(*share); }; });
}

}  // namespace ZorvSnapUsage
