// Asking a calculation to stop, and what its end means for the exit status.
#ifndef CLI_FOLLOW_H_
#define CLI_FOLLOW_H_

#include <chrono>
#include <functional>
#include <string>

#include "cli/calculation.h"
#include "cli/process_watch.h"
#include "cli/progress.h"

namespace ZorvSnapUsage {

// Asks a share's calculation to stop, again each second: one that has not begun cannot be asked
// yet. Asks the process itself, not through the library, which would signal whoever has the number
// that the record names by then.
class StopRequest {
 public:
  explicit StopRequest(std::string share);

  // Asks when it is time to.
  void Repeat(const ProcessWatch& process);

 private:
  const std::string share_;
  std::chrono::steady_clock::time_point next_ = std::chrono::steady_clock::now();
};

// Follows a calculation, with progress unless `quiet`, to its final state and to the end of its
// process, which stores the results. Stops asking for patience when the user does: `onInterrupt` is
// then called at each look; without one it gives up with kLeftAtOnce, and the calculation goes on.
using OnInterrupt = std::function<void(Progress& progress, const ProcessWatch& process)>;
Calculation FollowToEnd(const std::string& share, const std::string& taskID, bool quiet,
                        const OnInterrupt& onInterrupt = nullptr);

// Gives up because the calculation's process is gone and has left no final state.
[[noreturn]] void FailDied(const std::string& share);

// Gives up with the matching exit status unless the finished calculation is done. Asks the engine
// why one failed.
void RequireDone(const std::string& share, const Calculation& calculation);

}  // namespace ZorvSnapUsage

#endif  // CLI_FOLLOW_H_
