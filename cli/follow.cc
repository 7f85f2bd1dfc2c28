#include "cli/follow.h"

#include <fmt/format.h>

#include <utility>

#include "cli/engine_question.h"
#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/share.h"
#include "cli/text.h"
#include "cli/watch.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {

using namespace ZorvBtrfsUsage;

StopRequest::StopRequest(std::string share) : share_(std::move(share)) {}

void StopRequest::Repeat(const ProcessWatch& process) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + std::chrono::seconds(1);
  if (!process.AskToStop())
    throw SystemFailure(
        fmt::format("the calculation of share {} cannot be stopped", Quoted(share_)));
}

namespace {

// The results are copied in the moment after the state has become final.
constexpr std::chrono::seconds kTimeToCopy{60};

[[noreturn]] void Leave(const std::string& share) {
  throw Failure(kLeftAtOnce, fmt::format("the calculation of share {} goes on", Quoted(share)),
                fmt::format("end it with: zorv-snapusage stop {}", ShareWord(share)));
}

// What the engine says about why it cannot work, as the rest of a sentence.
std::string CheckedReason(const std::string& share) {
  const std::optional<ShareOrigin> place = FindPlace(share);
  const std::string why = place ? WhyItFails(place->path) : "";
  return why.empty() ? "" : ", because of " + Escaped(why);
}

}  // namespace

Calculation FollowToEnd(const std::string& share, const std::string& taskID, bool quiet,
                        const OnInterrupt& onInterrupt) {
  Watch watch(share, taskID);
  Progress progress(share, quiet);
  while (!watch.Poll()) {
    progress.Show(watch.Now());
    if (Interrupt::Asked()) {
      if (!onInterrupt) Leave(share);
      onInterrupt(progress, watch.Process());
    }
    watch.Pause();
  }
  if (!watch.WaitForProcess(kTimeToCopy))
    throw SystemFailure(fmt::format("the results of share {} are still not stored", Quoted(share)));
  return watch.Now();
}

void FailDied(const std::string& share) {
  throw Failure(kCalculationFailed,
                fmt::format("the calculation of share {} ended without a result: its process is "
                            "gone (killed, or out of memory)",
                            Quoted(share)),
                fmt::format("remove its record with: zorv-snapusage clean {}, and run it again",
                            ShareWord(share)));
}

void RequireDone(const std::string& share, const Calculation& calculation) {
  if (calculation.state == CAL_TASK_STATUS_DONE) return;
  if (calculation.state == CAL_TASK_STATUS_STOP)
    throw Failure(
        kCalculationStopped, fmt::format("the calculation of share {} was stopped", Quoted(share)),
        fmt::format("earlier results are kept: zorv-snapusage show {}", ShareWord(share)));
  const int code = calculation.errorCode.value_or(RESULT_FAILURE);
  throw Failure(kCalculationFailed,
                fmt::format("the calculation of share {} failed (code {}: {}){}", Quoted(share),
                            code, ReasonOf(code), CheckedReason(share)),
                "the system log says more; earlier results are kept");
}

}  // namespace ZorvSnapUsage
