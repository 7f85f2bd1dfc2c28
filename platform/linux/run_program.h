// Running a program for its output, within bounds.
#ifndef PLATFORM_LINUX_RUN_PROGRAM_H
#define PLATFORM_LINUX_RUN_PROGRAM_H

#include <string>
#include <vector>

namespace ZorvPlatform {

// Runs the program argv[0] without a shell, in an environment of its own (PATH, LC_ALL=C), with
// /dev/null as standard input and error, and gives what it printed.  True: it ended well within
// `seconds` and printed at most `most` bytes.  False: `why` says what it did in words; no process
// is left behind.  The status of a program whose end the caller of the library takes (by ignoring
// SIGCHLD, say) cannot be told and counts as well.
bool RunForOutput(const std::vector<std::string>& argv, int seconds, size_t most,
                  std::string* output, std::string* why);

}  // namespace ZorvPlatform

#endif
