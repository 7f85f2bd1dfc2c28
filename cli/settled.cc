#include "cli/settled.h"

#include <chrono>

#include "cli/watch.h"

namespace ZorvSnapUsage {
namespace {

constexpr std::chrono::seconds kTimeToCopy{10};

}  // namespace

std::optional<Calculation> SettledCalculation(const std::string& share) {
  const std::optional<std::string> taskID = TaskOf(share);
  if (!taskID) return std::nullopt;
  std::optional<Calculation> calculation = ReadCalculation(share, *taskID);
  if (calculation && ActivityOf(share, *calculation) == Activity::kFinishing) {
    ProcessWatch process;
    process.Attach(*calculation->pid);
    (void)process.WaitForEnd(std::chrono::milliseconds(kTimeToCopy).count());
  }
  return calculation;
}

// There is none only when there is none in one and the same state of the calculation.
std::optional<Result> SettledResult(const std::string& share) {
  for (std::string state;;) {
    if (std::optional<Result> result = NewestResult(share)) return result;
    const std::optional<Calculation> latest = SettledCalculation(share);
    const std::string now = latest ? latest->taskID + latest->stateWord : "";
    if (now == state) return std::nullopt;
    state = now;
  }
}

}  // namespace ZorvSnapUsage
