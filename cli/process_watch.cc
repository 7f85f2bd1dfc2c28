#include "cli/process_watch.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "cli/calculator_process.h"

namespace ZorvSnapUsage {
namespace {

// Whether pidfd_open(2) failed because no process has the number. A number that is no longer a
// process's, but still that of its session, is ENOENT, for older kernels EINVAL; and so is that of
// a thread.
bool NamesNoProcess(int error) { return error == ESRCH || error == EINVAL || error == ENOENT; }

}  // namespace

ProcessWatch::~ProcessWatch() {
  if (fd_ >= 0) (void)close(fd_);
}

void ProcessWatch::Attach(pid_t pid) {
  if (attached_) return;
  UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!process.Valid() && !NamesNoProcess(errno)) throw CannotBeLookedAt(pid, errno);
  // What is seen under the number while the process is there, is seen of it: so in this order.
  if (process.Valid() && IsCalculator(pid)) fd_ = process.Release();
  attached_ = true;
}

bool ProcessWatch::WaitForEnd(int milliseconds) const {
  if (attached_ && fd_ < 0) return true;
  pollfd end = {fd_, POLLIN, 0};  // poll ignores a negative descriptor
  return poll(&end, 1, milliseconds) == 1;
}

bool ProcessWatch::AskToStop() const {
  return fd_ < 0 || syscall(SYS_pidfd_send_signal, fd_, SIGTERM, nullptr, 0) == 0 || errno == ESRCH;
}

bool CalculatorIsAlive(pid_t pid) {
  ProcessWatch process;
  process.Attach(pid);
  return !process.WaitForEnd(0);
}

}  // namespace ZorvSnapUsage
