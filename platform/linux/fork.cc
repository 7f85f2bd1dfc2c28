// Forking a task that nobody waits for.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include "base/unique_fd.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/error.h"
#include "platform/linux/process.h"
#include "platform/linux/signals.h"
#include "zorvplatform/platc.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/fork";

// What the processes below tell the caller through the pipe: the pid of the task, or why there is
// none.
struct Report {
  pid_t pid;
  int error;
};

void Send(int fd, const Report& report) {
  // Small enough for a pipe to take it in one piece; a caller that is gone needs no report.
  while (write(fd, &report, sizeof report) < 0 && errno == EINTR) {
  }
}

// An end without a report is a process that was killed on its way.
Report Receive(int fd) {
  Report report{-1, ECHILD};
  ssize_t got;
  do {
    got = read(fd, &report, sizeof report);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(sizeof report) ? report : Report{-1, ECHILD};
}

bool DetachFromTheCaller() {
  if (setsid() < 0) return false;
  UniqueFd devNull(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!devNull.Valid()) return false;
  if (!DisownStreams(devNull.Get())) return false;
  if (!PlaceDescriptor(devNull.Get(), STDIN_FILENO) ||
      !PlaceDescriptor(devNull.Get(), STDOUT_FILENO))
    return false;
  if (devNull.Get() <= STDOUT_FILENO) (void)devNull.Release();
  return true;
}

// The task sees how its commands end, whatever the caller does about its own children.  Stop
// signals stay blocked: the task lets them in when it is ready for them.
bool SetSignals() {
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  if (sigaction(SIGCHLD, &byDefault, nullptr) != 0) return false;
  sigset_t stop;
  (void)sigemptyset(&stop);
  (void)sigaddset(&stop, SIGTERM);
  return sigprocmask(SIG_SETMASK, &stop, nullptr) == 0;
}

// In the process that goes on.  The report comes last: the caller finds the task complete.
void BecomeTask(UniqueFd reportFd) {
  if (!DetachFromTheCaller() || !SetSignals()) {
    Send(reportFd.Get(), {-1, errno});
    _exit(1);
  }
  UnlockStreams();
  Send(reportFd.Get(), {getpid(), 0});
}

// In the caller.  The pid of the task, or -1 with errno.
pid_t AwaitTask(pid_t intermediate, UniqueFd readEnd, UniqueFd writeEnd) {
  writeEnd.Reset();  // or the end of the report would never be seen
  const Report report = Receive(readEnd.Get());
  // ECHILD: the caller ignores or reaps its children, and the intermediate process is gone already.
  while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
  }
  errno = report.error;
  return report.error == 0 ? report.pid : -1;
}

// Forks twice; returns in the caller and in the task.  The pid of the task, 0 in the task, or -1
// with errno.  All signals are blocked here, so that no handler of the caller runs in the new
// processes.
pid_t ForkTask() {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  if (!MakeReportPipe(&readEnd, &writeEnd)) return -1;

  const pid_t intermediate = fork();
  if (intermediate < 0) return -1;
  if (intermediate > 0) return AwaitTask(intermediate, std::move(readEnd), std::move(writeEnd));

  readEnd.Reset();
  const pid_t task = fork();
  if (task < 0) Send(writeEnd.Get(), {-1, errno});
  if (task != 0) _exit(0);
  BecomeTask(std::move(writeEnd));
  return 0;
}

}  // namespace

int PLATCProcForkChildNoWait(void) {
  // What is still in a buffer would be written by both processes.
  (void)fflush(nullptr);

  LockStreams();
  const sigset_t callers = BlockSignals();
  const pid_t task = ForkTask();
  if (task == 0) return 0;
  RestoreSignals(callers);
  UnlockStreams();
  return task > 0 ? task : Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
}
