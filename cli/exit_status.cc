#include "cli/exit_status.h"

#include <fmt/format.h>

namespace ZorvSnapUsage {
namespace {

struct Row {
  ExitStatus status;
  const char* meaning;
};

constexpr Row kRows[] = {
    {kOk, "done as asked"},
    {kSystemFailure, "the system or the library refused; the system log says more"},
    {kWrongUsage, "wrong command line"},
    {kNotRoot, "not run as root"},
    {kShareBusy, "a calculation of the share is under way"},
    {kUnknownShare, "no such share"},
    {kCommandMissing, "/sbin/btrfs is missing"},
    {kNotAnEngine, "/sbin/btrfs is not an engine that calculates exclusive sizes"},
    {kUnknownSnapshot, "the share has no such snapshot"},
    {kNoSnapshots, "the share has no snapshots, or none in the range"},
    {kNothingRecorded, "no calculation or no result of the share is recorded"},
    {kCalculationFailed, "the calculation failed"},
    {kCalculationStopped, "the calculation was stopped"},
    {kShortResult, "the result lacks snapshots that were asked for"},
    {kNotFinalInTime, "the calculation did not stop in time"},
    {kShareOutOfReach, "the share cannot be reached for the moment"},
    {kUnsafeRoots, "a directory, file or record of the library may be somebody else's"},
    {kTargetOutOfReach, "the snapshots that may go do not free as much as was asked for"},
    {kWrongConfiguration, "shares are configured in a way that cannot be used"},
    {kUnknownPath, "no such file or folder in the share, nor in any of its snapshots"},
    {kLeftAtOnce, "left at once by Ctrl-C: before a calculation was started, or the second one"},
};

}  // namespace

std::string ExitStatusTable() {
  std::string table = "Exit status:\n";
  for (const Row& row : kRows)
    table += fmt::format("  {:>3}  {}\n", static_cast<int>(row.status), row.meaning);
  return table;
}

}  // namespace ZorvSnapUsage
