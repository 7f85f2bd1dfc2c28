#include "cli/process_watch.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZorvSnapUsage {

ProcessWatch::~ProcessWatch() {
  if (fd_ >= 0) (void)close(fd_);
}

void ProcessWatch::Attach(pid_t pid) {
  if (attached_) return;
  attached_ = true;
  fd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool ProcessWatch::WaitForEnd(int milliseconds) const {
  if (attached_ && fd_ < 0) return true;
  pollfd end = {fd_, POLLIN, 0};  // poll ignores a negative descriptor
  return poll(&end, 1, milliseconds) == 1;
}

bool ProcessIsAlive(pid_t pid) {
  ProcessWatch process;
  process.Attach(pid);
  return !process.WaitForEnd(0);
}

}  // namespace ZorvSnapUsage
