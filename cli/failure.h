// How a command gives up.
#ifndef CLI_FAILURE_H_
#define CLI_FAILURE_H_

#include <stdexcept>
#include <string>

#include "cli/exit_status.h"
#include "cli/room.h"

namespace ZorvSnapUsage {

// Thrown by commands, caught by main alone, which prints one line: what happened, then what to do
// next. Both are without a period at the end.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& what, const std::string& next)
      : std::runtime_error(what + "; " + next), status_(status) {}

  // The same with the line as it is printed.
  Failure(ExitStatus status, const std::string& line) : std::runtime_error(line), status_(status) {}

  ExitStatus Status() const { return status_; }

 private:
  ExitStatus status_;
};

// The failure of a library or system call that has no meaning of its own; a full file system is
// the reason that can be seen.
inline Failure SystemFailure(
    const std::string& what,
    const char* next = "the system log says why (journalctl -t zorv-snapusage)") {
  const std::string full = NextWhereFull();
  return Failure(kSystemFailure, what, full.empty() ? next : full);
}

}  // namespace ZorvSnapUsage

#endif  // CLI_FAILURE_H_
