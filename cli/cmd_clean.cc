// zorv-snapusage clean: remove what is recorded of shares.
#include <fmt/format.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/share_task_status.h>
#include <zorvbtrfssnapusage/utils.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <optional>

#include "base/paths.h"
#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/launch_lock.h"
#include "cli/leftovers.h"
#include "cli/names.h"
#include "cli/plain_files.h"
#include "cli/results.h"
#include "cli/share.h"
#include "cli/share_map.h"
#include "cli/standard_streams.h"
#include "cli/table_cache.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::kShareMap;
using ZorvBtrfsUsage::ShareSnapUsageCal;
using ZorvBtrfsUsage::ShareTaskStatus;
using ZorvBtrfsUsage::SnapUsageCalculator;
using ZorvBtrfsUsage::Utils;

bool IsRecorded(const std::string& share) {
  const std::vector<std::string> shares = RecordedShares();
  return std::find(shares.begin(), shares.end(), share) != shares.end();
}

std::string ResultText(const std::optional<Result>& result) {
  if (!result) return "no result";
  return "the result of " + CountOf(result->subvolumeIDs.size(), "snapshot");
}

void PrintDropped(const std::string& share) {
  fmt::print("removed share {}: it no longer exists\n", Quoted(share));
}

// The other recorded shares that are not found because their volume is not there. The library would
// take them for shares that no longer exist.
std::vector<std::string> OthersOutOfReach(const std::string& share) {
  std::vector<std::string> others;
  for (const std::string& other : RecordedShares())
    if (other != share && CanBeShareName(other) && MissingVolumeOf(other) && !ShareIsThere(other))
      others.push_back(other);
  return others;
}

// In an order that lets the next clean finish one that was killed. The entry in the map, by which
// the rest is found, goes last, and the share's state first: without it nothing looks under way. A
// task that failed or was stopped keeps its own record until somebody removes it.
void RemoveRecords(const std::string& share, const std::string& taskID) {
  (void)ShareTaskStatus::CleanShareStatus(share);
  if (!taskID.empty()) SnapUsageCalculator(taskID).CleanAll();
  if (OthersOutOfReach(share).empty()) {
    ShareSnapUsageCal::CleanAll(share);
  } else {
    (void)ShareSnapUsageCal::CleanTaskResultFile(share, /*removeDir=*/true);
    RemoveFromMap(share);
  }
}

// Keeps other programs from claiming a share: the library's own lock, under which it does so. One
// that cannot be had keeps nobody, as nobody could claim the share either.
class ClaimLock {
 public:
  explicit ClaimLock(const std::string& share) {
    (void)Utils::GeneralFileLock(
        ZorvBtrfsUsage::PathIn(ZorvBtrfsUsage::kShareTaskLockDir, share) + ".lock",
        /*exclusive=*/true, fd_);
  }
  ~ClaimLock() { (void)Utils::GeneralFileUnlock(fd_); }
  ClaimLock(const ClaimLock&) = delete;
  ClaimLock& operator=(const ClaimLock&) = delete;

 private:
  int fd_ = -1;
};

// What was begun and never ended: its process was killed, or the machine went down.
bool WasInterrupted(const std::string& share, Calculation calculation) {
  const Activity activity = ActivityOf(share, calculation);
  if (calculation.Finished()) return false;
  return activity == Activity::kDied || activity == Activity::kNone;
}

// Of which shares `clean` removes everything.
enum class Removed { kWhateverIsRecorded, kInterrupted };

// Removes everything of one share and says so. False: a calculation is under way, or it is none of
// those to remove. A task that is none is left alone: the library would remove the files that its
// text leads to.
bool CleanShare(const std::string& share, const std::string& recordedTask,
                Removed removed = Removed::kWhateverIsRecorded) {
  const std::string taskID = IsTaskID(recordedTask) ? recordedTask : "";
  if (!taskID.empty()) RequirePlainFilesOfTask(taskID);
  const ClaimLock unclaimed(share);
  const std::optional<Calculation> calculation = ReadAnyCalculation(share, taskID);
  if (calculation && IsUnderWay(share, *calculation)) return false;
  // Judged under the lock, where no next calculation can begin in between.
  if (removed == Removed::kInterrupted && (!calculation || !WasInterrupted(share, *calculation)))
    return false;
  const std::optional<Result> result = NewestResult(share);
  const bool tables = RemoveTables(share);
  RemoveRecords(share, taskID);
  if (IsRecorded(share))
    throw SystemFailure(fmt::format("the record of share {} cannot be removed", Quoted(share)));
  fmt::print("removed share {}: state {}, {}{}\n", Quoted(share),
             calculation && calculation->stateKnown ? calculation->stateWord : "unknown",
             ResultText(result), tables ? ", and its tables" : "");
  return true;
}

[[noreturn]] void RefuseUnderWay(const std::string& share) {
  throw Failure(kShareBusy,
                fmt::format("share {} was kept: a calculation of it is under way", Quoted(share)),
                fmt::format("end it first with: zorv-snapusage stop {}", ShareWord(share)));
}

// A name that no share can have, but a path may: the library would remove the files that it leads
// to, so it is left alone. Any other removal drops it, as it drops shares that no longer exist.
void RequireDropped(const std::vector<std::string>& names) {
  const std::vector<std::string> left = RecordedShares();
  for (const std::string& name : names) {
    if (std::find(left.begin(), left.end(), name) != left.end())
      throw Failure(kUnsafeRoots,
                    fmt::format("{} names a share {}, which can be none", kShareMap, Quoted(name)),
                    "take the entry out of that file");
    PrintDropped(name);
  }
}

// Tables of a share without any record, which plans alone have left. Whether there were any.
bool CleanTables(const std::string& share) {
  if (!RemoveTables(share)) return false;
  fmt::print("removed share {}: its tables\n", Quoted(share));
  return true;
}

// Removing one share also drops shares that no longer exist, so each is looked up anew.
int CleanAllShares() {
  std::string busy;
  std::vector<std::string> impossible;
  const std::vector<std::string> shares = RecordedShares();
  if (shares.empty())
    RequireMap();
  else
    RequireWritableMap();
  for (const std::string& share : shares) {
    if (!CanBeShareName(share)) {
      impossible.push_back(share);
      continue;
    }
    RequirePlainFilesOfShare(share);
    const std::optional<std::string> taskID = RecordedTask(share);
    if (!taskID && !IsRecorded(share))
      PrintDropped(share);
    else if (!CleanShare(share, taskID.value_or("")))
      busy = share;
  }
  bool tables = false;
  for (const std::string& share : SharesWithTables())
    if (!IsRecorded(share)) tables |= CleanTables(share);
  if (shares.empty() && !tables) fmt::print("nothing to remove\n");
  RequireDropped(impossible);
  if (!busy.empty()) RefuseUnderWay(busy);
  return kOk;
}

int CleanOneShare(const std::string& share) {
  if (!IsRecorded(share)) {
    RequireMap();
    if (CleanTables(share)) return kOk;
  }
  // An entry that names no task is one to remove as well.
  const std::string task =
      IsRecorded(share) ? RecordedTask(share).value_or("") : RequireRecordedTask(share);
  if (!CleanShare(share, task)) RefuseUnderWay(share);
  for (const std::string& other : OthersOutOfReach(share))
    ToStandardError(
        fmt::format("zorv-snapusage: note: the record of share {} is kept, its volume {} is "
                    "not there\n",
                    Quoted(other), MissingVolumeOf(other).value_or("")));
  return kOk;
}

int CleanInterruptedShares() {
  bool nothing = true;
  for (const std::string& share : RecordedShares()) {
    const std::optional<std::string> taskID = RecordedTask(share);
    if (!taskID || !CanBeShareName(share) || !IsTaskID(*taskID)) continue;
    RequirePlainFilesOfShare(share);
    if (CleanShare(share, *taskID, Removed::kInterrupted)) nothing = false;
  }
  if (nothing) fmt::print("nothing to remove\n");
  return kOk;
}

struct CleanOptions {
  std::optional<std::string> share;
  bool all = false;
  bool interrupted = false;
};

int Clean(const CleanOptions& options) {
  if (options.share) {
    BeginWorkOn(*options.share);
    RemoveLeftovers();
    const std::unique_ptr<LaunchLock> lock = LockLaunchesFor(*options.share);
    return CleanOneShare(*options.share);
  }
  if (!options.all && !options.interrupted)
    throw Failure(kWrongUsage, "it is not said what to remove",
                  "name a share, or say --interrupted, or --all for everything that is recorded");
  BeginWork();
  RemoveLeftovers();
  const LaunchLock lock;
  return options.all ? CleanAllShares() : CleanInterruptedShares();
}

}  // namespace

void AddClean(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("clean", "Remove results and records of a share, or of all shares");
  const auto options = std::make_shared<CleanOptions>();
  CLI::Option* const share =
      command->add_option("SHARE", options->share, "Name of the share")->type_name("");
  CLI::Option* const all = command->add_flag("--all", options->all, "All shares");
  CLI::Option* const interrupted = command->add_flag(
      "--interrupted", options->interrupted, "Shares whose calculation was killed before its end");
  share->excludes(all)->excludes(interrupted);
  all->excludes(interrupted);
  command->footer(
      "Asks nothing. Shares with a calculation under way are kept. Snapshots are not\n"
      "touched.\n"
      "Example: zorv-snapusage clean photos");
  command->callback([options, &action] { action = [options] { return Clean(*options); }; });
}

}  // namespace ZorvSnapUsage
