// Whether a calculation's process, which is nobody's child here, is still there; and stopping it.
#ifndef CLI_PROCESS_WATCH_H_
#define CLI_PROCESS_WATCH_H_

#include <sys/types.h>

namespace ZorvSnapUsage {

// Holds on to one process, so that another that gets its number later is never taken for it
// (see pidfd_open(2)).
class ProcessWatch {
 public:
  ProcessWatch() = default;
  ~ProcessWatch();
  ProcessWatch(const ProcessWatch&) = delete;
  ProcessWatch& operator=(const ProcessWatch&) = delete;

  // Takes hold of `pid`, once. A process that is gone already, or is no calculation's and only has
  // got its number, is known as gone: nothing is waited for and nobody is signalled. Gives up,
  // attached to nothing, when it cannot be told.
  void Attach(pid_t pid);

  bool Attached() const { return attached_; }

  // Waits at most so long for the end of the process, less when a signal arrives.
  // True: it has ended. Nothing attached: waits, and is false.
  bool WaitForEnd(int milliseconds) const;

  // Asks the process to stop. Nothing attached, or gone: nothing is done. False: refused.
  bool AskToStop() const;

 private:
  bool attached_ = false;
  int fd_ = -1;  // attached without a descriptor: the process is gone
};

// Whether the calculation's process is there and has not ended. Gives up when it cannot be told.
bool CalculatorIsAlive(pid_t pid);

}  // namespace ZorvSnapUsage

#endif  // CLI_PROCESS_WATCH_H_
