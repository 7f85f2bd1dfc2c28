// Runs another program to its end and takes what it says.
#ifndef CLI_PROGRAM_RUN_H_
#define CLI_PROGRAM_RUN_H_

#include <stddef.h>

#include <functional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

struct ProgramEnd {
  int waitStatus = 0;  // as waitpid(2) gives it
  std::string output;
  std::string lastError;  // the last line of its standard error
};

struct ProgramWatch {
  size_t mostOutput;  // bytes; a program that prints more is ended, and the output is cut there
  // Called for each whole line of its standard error.
  std::function<void(const std::string& line)> errorLine;
  // Called several times a second while it runs; may throw, which ends the program.
  std::function<void()> tick;
};

// Starts it as a ChildProgram. However this function ends, the program has ended by then: a thrown
// exception, SIGINT or SIGTERM of the caller's Interrupt included. Gives up when the program cannot
// be started, and with kLeftAtOnce after such a signal.
ProgramEnd RunProgram(const std::vector<std::string>& argv, const ProgramWatch& watch);

}  // namespace ZorvSnapUsage

#endif  // CLI_PROGRAM_RUN_H_
