// Waiting for a lock that somebody else holds, in a way that can be seen and ended.
#ifndef CLI_LOCK_WAIT_H_
#define CLI_LOCK_WAIT_H_

#include <sys/types.h>

#include <chrono>
#include <string>

namespace ZorvSnapUsage {

// Gives up, with kLeftAtOnce, when the user has asked for the end: only where no calculation has
// been launched.
void RequireNotInterrupted();

// One wait, in short pauses between looks at the lock; the caller looks.
class LockWait {
 public:
  // Until the next look. Gives up as RequireNotInterrupted does, and when the holder, a process
  // number or what is none, has been stopped for ten seconds: it may never go on. From the first
  // second on says once, on standard error, that it waits, and for what.
  void Pause(const std::string& what, pid_t holder);

 private:
  using Clock = std::chrono::steady_clock;

  const Clock::time_point begin_ = Clock::now();
  Clock::time_point atWork_ = begin_;  // when the holder was last seen so
  bool said_ = false;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_LOCK_WAIT_H_
