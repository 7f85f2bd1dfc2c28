// Where a stop signal may come in.
//
// A calculation is stopped by SIGTERM, and only at chosen places: the signal is blocked while a
// calculation runs and let in for a moment directly before the stop flag is tested. So a stop that
// comes before the handler is there waits instead of killing, the handler never interrupts the log,
// memory or time-zone code, no system call of the work is cut short, and a burst is one stop.
#ifndef INTL_UTILS_STOP_GATE_H_
#define INTL_UTILS_STOP_GATE_H_

#include <pthread.h>
#include <signal.h>

#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/signal_handler.h"

namespace ZorvBtrfsUsage {

// Shuts SIGTERM out, or lets it in, for one scope; then it is as it was. Other signals stay as they
// are, also when something in the scope changes them.
class StopGate {
 public:
  enum Mode { kShut = SIG_BLOCK, kOpen = SIG_UNBLOCK };

  explicit StopGate(Mode mode) {
    sigset_t before;
    pthread_sigmask(mode, &Sigterm(), &before);
    before_ = sigismember(&before, SIGTERM) == 1 ? kShut : kOpen;
  }
  ~StopGate() { pthread_sigmask(before_, &Sigterm(), nullptr); }
  StopGate(const StopGate&) = delete;
  StopGate& operator=(const StopGate&) = delete;

 private:
  static const sigset_t& Sigterm() {
    static const sigset_t set = [] {
      sigset_t only;
      sigemptyset(&only);
      sigaddset(&only, SIGTERM);
      return only;
    }();
    return set;
  }

  Mode before_;
};

// Whether SIGTERM would be remembered. Anything else there belongs to the calling program.
inline bool StopHandlerInstalled() {
  struct sigaction current;
  return sigaction(SIGTERM, nullptr, &current) == 0 &&
         current.sa_handler == &SignalHandler::handleSnapUsageCalulate;
}

// Whether a SIGTERM stands at the gate. Asked before each line of the engine's output, so it is one
// system call, where opening and shutting the gate in vain takes more.
inline bool StopWaits() {
  sigset_t waiting;
  return sigpending(&waiting) == 0 && sigismember(&waiting, SIGTERM) == 1;
}

// Lets a waiting stop in and says whether one has come, now or before. Without our handler the gate
// stays shut: a waiting signal would end the process.
inline bool StopAsked() {
  // A signal that waits is delivered before the unblocking call returns.
  if (StopWaits() && StopHandlerInstalled()) const StopGate open(StopGate::kOpen);
  return BtrfsTool::gSignal == SIGTERM || BtrfsTool::gSignal == SIGKILL;
}

}  // namespace ZorvBtrfsUsage

#endif  // INTL_UTILS_STOP_GATE_H_
