// Waiting for a lock that somebody else holds, in a way that can be seen and ended.
#ifndef CLI_LOCK_WAIT_H_
#define CLI_LOCK_WAIT_H_

#include <chrono>
#include <string>

namespace ZorvSnapUsage {

// Gives up, with kLeftAtOnce, when the user has asked for the end: only where no calculation has
// been launched.
void RequireNotInterrupted();

// One wait, in short pauses between looks at the lock; the caller looks.
class LockWait {
 public:
  // Until the next look. Gives up as RequireNotInterrupted does. From the first second on says
  // once, on standard error, that it waits, and for what.
  void Pause(const std::string& what);

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  bool said_ = false;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_LOCK_WAIT_H_
