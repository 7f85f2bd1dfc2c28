#include "cli/launch.h"

#include <fmt/format.h>
#include <zorvbtrfssnapusage/btrfs_tool.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/share_task_status.h>
#include <zorvbtrfssnapusage/utils.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "cli/begin_work.h"
#include "cli/calculation.h"
#include "cli/deletions.h"
#include "cli/engine.h"
#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/launch_lock.h"
#include "cli/leftovers.h"
#include "cli/lock_wait.h"
#include "cli/names.h"
#include "cli/origin.h"
#include "cli/share_map.h"
#include "cli/snapshot_choice.h"
#include "cli/standard_streams.h"
#include "cli/string_list.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using namespace ZorvBtrfsUsage;

// The last second that four digits of a year reach, in every zone. An end that is not named is not
// now: names may carry the time of a clock that is ahead.
constexpr time_t kEndOfTime = 253402214400;

// As long as the library itself tries at most.
constexpr std::chrono::seconds kTimeToMount{60};

struct TimeRange {
  time_t start;
  time_t end;
};

time_t RequireTime(const std::string& text, TimeBound bound) {
  if (const std::optional<time_t> t = ParseTime(text, bound)) return *t;
  throw Failure(kWrongUsage, fmt::format("{} is no time", Quoted(text)),
                "write 2024-03-05, \"2024-03-05 17:04\", \"2024-03-05 17:04:09\" or "
                "2024.03.05-17.04.09");
}

// The range that the command line names; nothing when it names none.
std::optional<TimeRange> RangeOf(const Selection& selection) {
  if (selection.since.empty() && selection.until.empty()) return std::nullopt;
  if (!selection.names.empty())
    throw Failure(kWrongUsage, "snapshots and a time range cannot be asked for together",
                  "leave one of them out");
  const TimeRange range = {
      selection.since.empty() ? 0 : RequireTime(selection.since, TimeBound::kFirstSecond),
      selection.until.empty() ? kEndOfTime : RequireTime(selection.until, TimeBound::kLastSecond)};
  if (range.end < range.start)
    throw Failure(kWrongUsage, "the range ends before it begins", "exchange --since and --until");
  return range;
}

std::string RangeText(const TimeRange& range) {
  const std::string end =
      range.end == kEndOfTime ? "on" : fmt::format("to {}", TimeForPeople(range.end));
  return fmt::format("from {} {}", TimeForPeople(range.start), end);
}

bool IsWithin(const TimeRange& range, const std::optional<time_t>& time) {
  return time && *time >= range.start && *time <= range.end;
}

std::vector<Snapshot> Within(const std::vector<Snapshot>& snapshots, const TimeRange& range) {
  std::vector<Snapshot> selected;
  for (const Snapshot& snapshot : snapshots)
    if (IsWithin(range, snapshot.time)) selected.push_back(snapshot);
  return selected;
}

// The named snapshots, each once, in the order of the share.
std::vector<Snapshot> Named(const std::vector<Snapshot>& snapshots, const Selection& selection) {
  std::set<size_t> places;
  for (const std::string& name : selection.names)
    places.insert(RequireSnapshot(selection.share, snapshots, name));
  std::vector<Snapshot> selected;
  for (const size_t place : places) selected.push_back(snapshots[place]);
  return selected;
}

std::vector<Snapshot> Selected(const Selection& selection, const std::optional<TimeRange>& range) {
  const std::vector<Snapshot> all = SnapshotsOf(selection.share);
  if (all.empty())
    throw Failure(kNoSnapshots, fmt::format("share {} has no snapshots", Quoted(selection.share)),
                  NextWithoutSnapshots(selection.share));
  if (!selection.names.empty()) return Named(all, selection);
  if (!range) return all;
  std::vector<Snapshot> selected = Within(all, *range);
  if (!selected.empty()) return selected;
  throw Failure(
      kNoSnapshots,
      fmt::format("share {} has no snapshots {}", Quoted(selection.share), RangeText(*range)),
      "widen the range; snapshots whose names carry no time are in none");
}

// Takes out what cannot be recorded and was not asked for by its name, and says so: whoever can
// write in the share can make such a one, and would keep it from being calculated. All are left in
// when there are no others.
std::vector<Snapshot> LeaveOut(const Selection& selection, std::vector<Snapshot>& asked) {
  const auto others = std::stable_partition(asked.begin(), asked.end(), IsRecordable);
  if (!selection.names.empty() || others == asked.begin()) return {};
  std::vector<Snapshot> leftOut;
  std::move(others, asked.end(), std::back_inserter(leftOut));
  asked.erase(others, asked.end());
  for (const Snapshot& snapshot : leftOut)
    ToStandardError(fmt::format(
        "zorv-snapusage: note: snapshot {} is left out, its name is not UTF-8; rename it\n",
        Quoted(snapshot.name)));
  return leftOut;
}

// The library keeps names in JSON, which can carry no other bytes, and makes files of them. A name
// that is refused too late leaves an empty result directory behind.
void RequireRecordable(const std::string& share, const std::vector<Snapshot>& asked) {
  if (!CanBeCalculated(share))
    throw Failure(
        kSystemFailure,
        fmt::format("the name of share {} is too long for the names of its records", Quoted(share)),
        "give it a name of at most 248 bytes");
  if (ValidUtf8(share) != share)
    throw Failure(kSystemFailure, fmt::format("the name of share {} is not UTF-8", Quoted(share)),
                  "rename it");
  for (const Snapshot& snapshot : asked)
    if (!IsRecordable(snapshot))
      throw Failure(kSystemFailure,
                    fmt::format("the name of snapshot {} is not UTF-8", Quoted(snapshot.name)),
                    "rename it");
}

[[noreturn]] void RefuseBusy(const std::string& share) {
  throw Failure(
      kShareBusy, fmt::format("share {} is busy: a calculation of it is under way", Quoted(share)),
      fmt::format("wait for it, or end it with: zorv-snapusage stop {}", ShareWord(share)));
}

// Why the library does not let a share be claimed although nothing is at work on it.
[[noreturn]] void RefuseHeld(const std::string& share, const char* why) {
  const std::optional<time_t> claimed = ClaimAheadOfClock(share);
  throw Failure(
      kShareBusy,
      claimed ? fmt::format("the last calculation of share {} {}, and holds the share until two "
                            "minutes after {}, for the clock was set back since",
                            Quoted(share), why, TimeForPeople(*claimed))
              : fmt::format("the last calculation of share {} {}, and holds the share for two "
                            "minutes from its start",
                            Quoted(share), why),
      fmt::format("wait, or remove its record with: zorv-snapusage clean {}", ShareWord(share)));
}

// The library lets a share be taken over after two minutes, however long its calculation is still
// at work; that would lose the results of both callers' patience.
void RequireIdle(const std::string& share) {
  const std::optional<std::string> taskID = TaskOf(share);
  if (!taskID) return;
  std::optional<Calculation> calculation = ReadCalculation(share, *taskID);
  if (!calculation) return;
  const Activity activity = ActivityOf(share, *calculation);
  if (activity == Activity::kRunning || activity == Activity::kFinishing) RefuseBusy(share);
  const bool died = activity == Activity::kDied;
  const bool neverBegan = activity == Activity::kNone && !calculation->Finished();
  std::string busyTaskID;
  if ((died || neverBegan) && !ShareSnapUsageCal::CheckAvail(share, busyTaskID))
    RefuseHeld(share, died ? "was killed" : "never began");
}

// A share that was claimed, and whose calculation then was not begun, shows it as a launch that
// failed; else the claim would hold it for two minutes.
void GiveBack(const std::string& share) {
  ShareTaskStatus status;
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  if (!status.Init(share, false) || status.GetCalculatorStatus(state) != RESULT_OK ||
      state != CAL_TASK_STATUS_READY)
    return;
  (void)status.SetCalculatorStatus(CAL_TASK_STATUS_FAIL);
  (void)status.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, RESULT_INVALID_OBJECT);
}

// Whether the library, which lists the snapshots of a range itself and leaves out none, would take
// as many as are asked for. Two equal times mean every snapshot to it, here those of that second.
bool TakesTheSame(const std::string& share, const TimeRange& range,
                  const std::vector<Snapshot>& asked) {
  StringList paths;
  if (range.start == range.end || Utils::ShareSnapListGet(share, paths.Ref(), Json::Value()) != 0)
    return false;
  const std::vector<std::string> all = paths.Strings();
  return std::cmp_equal(asked.size(), std::ranges::count_if(all, [&](const std::string& path) {
                          return IsWithin(range, TimeInName(path.substr(path.rfind('/') + 1)));
                        }));
}

// The first one that is no longer what it was when the snapshots were listed.
const Snapshot* FirstGone(const std::vector<Snapshot>& snapshots) {
  const auto gone = std::ranges::find_if(snapshots, [](const Snapshot& snapshot) {
    unsigned long long subvolumeID = 0;
    return BtrfsTool::SubvolRootIdLookup(snapshot.path.c_str(), subvolumeID) != 0 ||
           subvolumeID != snapshot.subvolumeID;
  });
  return gone == snapshots.end() ? nullptr : &*gone;
}

[[noreturn]] void FailToLaunch(const std::string& share, const std::vector<Snapshot>& asked,
                               int code) {
  const std::string what =
      fmt::format("the calculation of share {} could not be started", Quoted(share));
  if (const Snapshot* gone = FirstGone(asked))
    throw Failure(kSystemFailure,
                  fmt::format("{}, its snapshot {} has gone since", what, Quoted(gone->name)),
                  "try again");
  throw SystemFailure(fmt::format("{} (code {}: {})", what, code, ReasonOf(code)));
}

void LaunchOrFail(ShareSnapUsageCal& calculation, const std::string& share,
                  const std::vector<Snapshot>& asked, const std::optional<TimeRange>& range) {
  int code = RESULT_OK;
  if (range && TakesTheSame(share, *range, asked)) {
    code = calculation.Launch(&range->start, &range->end);
  } else {
    StringList paths;
    for (const Snapshot& snapshot : asked) paths.Push(snapshot.path);
    code = calculation.Launch(paths.Ref());
  }
  if (code != RESULT_OK) FailToLaunch(share, asked, code);
}

}  // namespace

void AwaitShare(const std::string& share) {
  const auto end = std::chrono::steady_clock::now() + kTimeToMount;
  BeginWork();
  LockWait wait;
  while (!ShareIsThere(share) && PLATCErrGet() == PLATC_ERR_RETRY &&
         std::chrono::steady_clock::now() < end)
    wait.Pause(fmt::format("the volume of share {} to be mounted", Quoted(share)), kNoProcess);
}

Launched Launch(const Selection& selection) {
  const std::string& share = selection.share;
  const std::optional<TimeRange> range = RangeOf(selection);
  BeginWorkOn(share);
  RemoveLeftovers();
  RequireShare(share);
  std::vector<Snapshot> asked = Selected(selection, range);
  const std::vector<Snapshot> leftOut = LeaveOut(selection, asked);
  RequireRecordable(share, asked);
  RequireEngine();
  const std::unique_ptr<LaunchLock> lock = LockLaunchesFor(share);
  RequireIdle(share);
  RequireWritableMap();
  RequireNotInterrupted();
  const std::optional<unsigned long long> beingDeleted = TellOfDeletions(share);
  // A share that is claimed and not launched would stay busy for two minutes.
  const HeldSignals whole;
  ShareSnapUsageCal calculation;
  const int code = calculation.CreateTask(share);
  if (code == RESULT_SHARE_BUSY) RefuseBusy(share);
  if (code != RESULT_OK)
    throw SystemFailure(
        fmt::format("no calculation of share {} could be created (code {})", Quoted(share), code));
  try {
    const std::string taskID = RequireTask(share);
    RememberOrigin(share, taskID);
    LaunchOrFail(calculation, share, asked, range);
    return {taskID, asked, leftOut, beingDeleted};
  } catch (...) {
    GiveBack(share);
    throw;
  }
}

}  // namespace ZorvSnapUsage
