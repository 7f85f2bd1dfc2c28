#include "cli/watch.h"

#include <fmt/format.h>

#include <utility>

#include "cli/failure.h"
#include "cli/follow.h"
#include "cli/results.h"
#include "cli/text.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

using std::chrono::steady_clock;

constexpr int kPollMilliseconds = 200;

// A launched process names itself at once; only a machine in trouble takes longer.
constexpr std::chrono::seconds kTimeToBegin{60};

}  // namespace

Watch::Watch(std::string share, std::string taskID)
    : share_(std::move(share)), taskID_(std::move(taskID)) {}

bool Watch::Poll() {
  const std::optional<std::string> taskID = RecordedTask(share_);
  const std::optional<Calculation> read = ReadCalculation(share_, taskID_);
  const bool ours = taskID && *taskID == taskID_ && read;
  if (!ours && DoneBefore()) return true;
  if (!taskID || !read)
    throw Failure(
        kCalculationFailed,
        fmt::format("the record of share {} was removed while its calculation ran", Quoted(share_)),
        "run it again");
  // After two minutes the library lets another calculation take the share over; this one then goes
  // on without a record, and its results are lost.
  if (*taskID != taskID_)
    throw Failure(
        kCalculationFailed,
        fmt::format("another calculation of share {} took the place of this one", Quoted(share_)),
        fmt::format("follow it with: zorv-snapusage status {}", ShareWord(share_)));
  now_ = *read;
  if (now_.pid) process_.Attach(*now_.pid);
  if (!now_.Finished()) CheckCanStillEnd();
  return now_.Finished();
}

// Whether the results are stored: then it was done before its record went, to the next calculation
// of the share for one.
bool Watch::DoneBefore() {
  if (!ResultOfTask(share_, taskID_)) return false;
  now_.state = ZorvBtrfsUsage::CAL_TASK_STATUS_DONE;
  now_.stateWord = "done";
  return true;
}

void Watch::CheckCanStillEnd() {
  if (process_.Attached() && process_.WaitForEnd(0)) {
    // The final state is written before the process ends: it may be there by now.
    const std::optional<Calculation> read = ReadCalculation(share_, taskID_);
    if (read && read->Finished()) {
      now_ = *read;
      return;
    }
    if (!DoneBefore()) FailDied(share_);
  }
  if (!process_.Attached() && steady_clock::now() - begin_ > kTimeToBegin)
    throw SystemFailure(fmt::format("the calculation of share {} does not begin", Quoted(share_)));
}

void Watch::Pause() const { (void)process_.WaitForEnd(kPollMilliseconds); }

bool Watch::WaitForProcess(std::chrono::seconds limit) const {
  const steady_clock::time_point end = steady_clock::now() + limit;
  while (process_.Attached() && !process_.WaitForEnd(kPollMilliseconds))
    if (steady_clock::now() > end) return false;
  return true;
}

}  // namespace ZorvSnapUsage
