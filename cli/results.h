// The stored results of a share.
#ifndef CLI_RESULTS_H_
#define CLI_RESULTS_H_

#include <optional>
#include <string>
#include <vector>

#include "cli/moment.h"

namespace ZorvSnapUsage {

// The two vectors of one calculation: entry i of one belongs to entry i of the other.
struct Result {
  std::string taskID;
  Moment stored;
  std::vector<unsigned long long> subvolumeIDs;
  std::vector<unsigned long long> exclusiveBytes;
};

// The result that the share's calculation with this task ID has left; nothing when it is not there
// or not complete.
std::optional<Result> ResultOfTask(const std::string& share, const std::string& taskID);

// As ResultOfTask, of a calculation that is done; gives up when there is none.
Result RequireResultOfTask(const std::string& share, const std::string& taskID);

// The newest complete result of the share, whichever calculation it is of: one that is running, or
// that failed, does not hide it.
std::optional<Result> NewestResult(const std::string& share);

}  // namespace ZorvSnapUsage

#endif  // CLI_RESULTS_H_
