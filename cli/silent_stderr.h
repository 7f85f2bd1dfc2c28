// Standard error leads nowhere for a while.
#ifndef CLI_SILENT_STDERR_H_
#define CLI_SILENT_STDERR_H_

#include <fcntl.h>
#include <unistd.h>

namespace ZorvSnapUsage {

// What is written to standard error while it stands is lost, also by processes that are started
// meanwhile: those keep no hold of the caller's terminal or pipe.
class SilentStderr {
 public:
  SilentStderr() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) return;
    (void)dup2(null, STDERR_FILENO);
    (void)close(null);
  }
  ~SilentStderr() {
    if (saved_ < 0) return;
    (void)dup2(saved_, STDERR_FILENO);
    (void)close(saved_);
  }
  SilentStderr(const SilentStderr&) = delete;
  SilentStderr& operator=(const SilentStderr&) = delete;

 private:
  const int saved_;  // -1: the caller has no standard error
};

}  // namespace ZorvSnapUsage

#endif  // CLI_SILENT_STDERR_H_
