#include "cli/lock_wait.h"

#include <fmt/format.h>
#include <time.h>

#include <fstream>

#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/standard_streams.h"

namespace ZorvSnapUsage {
namespace {

constexpr timespec kPause = {0, 20'000'000};
constexpr std::chrono::seconds kSilence{1};
constexpr std::chrono::seconds kMostStopped{10};

// Whether a process is stopped, by a signal or a debugger; not when it cannot be seen.
bool IsStopped(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  std::string text;
  if (process <= 0 || !std::getline(file, text)) return false;
  const size_t name = text.rfind(')');
  if (name == std::string::npos || name + 2 >= text.size()) return false;
  return text[name + 2] == 'T' || text[name + 2] == 't';
}

}  // namespace

void RequireNotInterrupted() {
  if (Interrupt::Asked())
    throw Failure(kLeftAtOnce, "interrupted before a calculation was started", "nothing was done");
}

void LockWait::Pause(const std::string& what, pid_t holder) {
  RequireNotInterrupted();
  const Clock::time_point now = Clock::now();
  if (!IsStopped(holder)) atWork_ = now;
  if (now - atWork_ > kMostStopped)
    throw Failure(kSystemFailure,
                  fmt::format("waited for {} in vain: process {} is stopped", what, holder),
                  fmt::format("let it go on with: kill -CONT {}", holder));
  if (!said_ && now - begin_ > kSilence) {
    ToStandardError(fmt::format("zorv-snapusage: waiting for {}\n", what));
    said_ = true;
  }
  (void)nanosleep(&kPause, nullptr);  // a signal shortens it
}

}  // namespace ZorvSnapUsage
