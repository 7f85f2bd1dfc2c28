// Telling the process of a calculation from any other that has got its number.
#ifndef CLI_CALCULATOR_PROCESS_H_
#define CLI_CALCULATOR_PROCESS_H_

#include <sys/types.h>

#include "cli/failure.h"

namespace ZorvSnapUsage {

// What to give up with when it cannot be told what a process is, or whether it is there: it is
// never taken for gone then, for its record would be removed under a calculation at work.
Failure CannotBeLookedAt(pid_t pid, int error);

// Whether `pid` is what the library makes of each calculation's process: with root's rights,
// whoever started it, with the library loaded, leader of a session of its own, standard input and
// output on /dev/null, and a SIGTERM that does not end it. A number that a record names may be
// anybody's: the record may outlive its process, which a signal, or a machine that went down, has
// ended. Gives up when it cannot be told; a process that ends meanwhile may be either.
bool IsCalculator(pid_t pid);

// Whether a process is root's, and was started by root: what a user starts and has root's rights by
// its file's mode, is not. False also for one that has ended.
bool IsRootsProcess(pid_t pid);

}  // namespace ZorvSnapUsage

#endif  // CLI_CALCULATOR_PROCESS_H_
