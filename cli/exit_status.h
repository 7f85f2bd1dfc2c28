// What the program's exit statuses mean.
#ifndef CLI_EXIT_STATUS_H_
#define CLI_EXIT_STATUS_H_

#include <string>

namespace ZorvSnapUsage {

// Scripts rely on these numbers: a meaning keeps its number, a new one gets a new number.
enum ExitStatus : int {
  kOk = 0,
  kSystemFailure = 1,
  kWrongUsage = 2,
  kNotRoot = 3,
  kShareBusy = 4,
  kUnknownShare = 5,
  kCommandMissing = 6,
  kNotAnEngine = 7,
  kUnknownSnapshot = 8,
  kNoSnapshots = 9,
  kNothingRecorded = 10,
  kCalculationFailed = 11,
  kCalculationStopped = 12,
  kShortResult = 13,
  kNotFinalInTime = 14,
  kShareOutOfReach = 15,
  kUnsafeRoots = 16,
  kTargetOutOfReach = 17,
  kWrongConfiguration = 18,
  kUnknownPath = 19,
  kLeftAtOnce = 130,  // 128 + SIGINT, as shells say it
};

// The table for the help text: one line a status.
std::string ExitStatusTable();

}  // namespace ZorvSnapUsage

#endif  // CLI_EXIT_STATUS_H_
