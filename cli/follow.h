// Asking a calculation to stop, and what its end means for the exit status.
#ifndef CLI_FOLLOW_H_
#define CLI_FOLLOW_H_

#include <chrono>
#include <string>

#include "cli/calculation.h"
#include "cli/process_watch.h"

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

// Gives up because the calculation's process is gone and has left no final state.
[[noreturn]] void FailDied(const std::string& share);

// Gives up with the matching exit status unless the finished calculation is done.
void RequireDone(const std::string& share, const Calculation& calculation);

}  // namespace ZorvSnapUsage

#endif  // CLI_FOLLOW_H_
