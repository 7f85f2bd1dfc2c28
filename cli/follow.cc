#include "cli/follow.h"

#include <fmt/format.h>

#include <utility>

#include "cli/failure.h"
#include "cli/text.h"

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

void FailDied(const std::string& share) {
  throw Failure(kCalculationFailed,
                fmt::format("the calculation of share {} ended without a result: its process is "
                            "gone (killed, or out of memory)",
                            Quoted(share)),
                fmt::format("remove its record with: zorv-snapusage clean {}, and run it again",
                            ShellWord(share)));
}

void RequireDone(const std::string& share, const Calculation& calculation) {
  if (calculation.state == CAL_TASK_STATUS_DONE) return;
  if (calculation.state == CAL_TASK_STATUS_STOP)
    throw Failure(
        kCalculationStopped, fmt::format("the calculation of share {} was stopped", Quoted(share)),
        fmt::format("earlier results are kept: zorv-snapusage show {}", ShellWord(share)));
  const int code = calculation.errorCode.value_or(RESULT_FAILURE);
  throw Failure(kCalculationFailed,
                fmt::format("the calculation of share {} failed (code {}: {})", Quoted(share), code,
                            ReasonOf(code)),
                "the system log says more; earlier results are kept");
}

}  // namespace ZorvSnapUsage
