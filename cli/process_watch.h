// Whether a process that is nobody's child here is still there.
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

  // Takes hold of `pid`, once; a process that is gone already is known as gone.
  void Attach(pid_t pid);

  bool Attached() const { return attached_; }

  // Waits at most so long for the end of the process, less when a signal arrives.
  // True: it has ended. Nothing attached: waits, and is false.
  bool WaitForEnd(int milliseconds) const;

 private:
  bool attached_ = false;
  int fd_ = -1;  // attached without a descriptor: the process is gone
};

// Whether the process is there and has not ended.
bool ProcessIsAlive(pid_t pid);

}  // namespace ZorvSnapUsage

#endif  // CLI_PROCESS_WATCH_H_
