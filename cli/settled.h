// What is known of a share, looked at when no calculation is handing its results over.
#ifndef CLI_SETTLED_H_
#define CLI_SETTLED_H_

#include <optional>
#include <string>

#include "cli/calculation.h"
#include "cli/results.h"

namespace ZorvSnapUsage {

// Results are taken away and copied anew in the moment after a state has become "done". Each waits
// for that, some seconds at most.

// The share's latest calculation; nothing when none is recorded.
std::optional<Calculation> SettledCalculation(const std::string& share);

// As NewestResult.
std::optional<Result> SettledResult(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_SETTLED_H_
