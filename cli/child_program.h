// A program that this one starts and reads from.
#ifndef CLI_CHILD_PROGRAM_H_
#define CLI_CHILD_PROGRAM_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ZorvSnapUsage {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

// Nobody else gets its ends. Gives up when there is none.
Pipe MakePipe();

// What Ctrl-C in the caller's terminal does to a program.
enum class CtrlC { kEndsIt, kDoesNotReachIt };

// A program that has been started, and has ended when this goes. argv[0] is its path; no shell is
// involved, and PATH is not searched. It has /dev/null as standard input, these descriptors as
// output and standard error and no other, no blocked and no ignored signals, and is killed when
// this process ends.
class ChildProgram {
 public:
  // Gives up when it cannot be started: with kNotAnEngine where that is the program's own fault.
  ChildProgram(const std::vector<std::string>& argv, int output, int errors,
               CtrlC ctrlC = CtrlC::kEndsIt);

  // Asks it to end, and kills it when it does not soon.
  ~ChildProgram();

  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  // Waits for its end, at most so long, less when a signal arrives. True: it has ended.
  bool WaitForEnd(std::chrono::milliseconds limit);

  // As waitpid(2) gives it, once it has ended.
  int WaitStatus() const { return status_; }

  // For one that has nothing to put in order.
  void Kill() const;

 private:
  pid_t pid_;
  int status_ = 1 << 8;  // an end that nobody can tell is no success
};

}  // namespace ZorvSnapUsage

#endif  // CLI_CHILD_PROGRAM_H_
