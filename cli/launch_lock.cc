#include "cli/launch_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include "cli/failure.h"
#include "cli/plain_files.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kPath[] = "/run/zorv-snapusage.lock";

int Open() {
  (void)RequirePlainFile(kPath);
  return open(kPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
}

}  // namespace

LaunchLock::LaunchLock() : fd_(Open()) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  int code = -1;
  do code = fcntl(fd_, F_SETLKW, &whole);
  while (code != 0 && errno == EINTR);
  if (code == 0) return;
  const int error = errno;
  if (fd_ >= 0) (void)close(fd_);
  throw Failure(kSystemFailure, fmt::format("{} cannot be locked ({})", kPath, strerror(error)),
                "see to /run");
}

LaunchLock::~LaunchLock() { (void)close(fd_); }

}  // namespace ZorvSnapUsage
