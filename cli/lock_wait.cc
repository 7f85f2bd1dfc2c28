#include "cli/lock_wait.h"

#include <fmt/format.h>
#include <time.h>

#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/standard_streams.h"

namespace ZorvSnapUsage {
namespace {

constexpr timespec kPause = {0, 20'000'000};
constexpr std::chrono::seconds kSilence{1};

}  // namespace

void RequireNotInterrupted() {
  if (Interrupt::Asked())
    throw Failure(kLeftAtOnce, "interrupted before a calculation was started", "nothing was done");
}

void LockWait::Pause(const std::string& what) {
  RequireNotInterrupted();
  if (!said_ && std::chrono::steady_clock::now() - begin_ > kSilence) {
    ToStandardError(fmt::format("zorv-snapusage: waiting for {}\n", what));
    said_ = true;
  }
  (void)nanosleep(&kPause, nullptr);  // a signal shortens it
}

}  // namespace ZorvSnapUsage
