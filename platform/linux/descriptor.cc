#include "platform/linux/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace ZorvPlatform {

bool PlaceDescriptor(int fd, int target) {
  if (fd == target) return fcntl(fd, F_SETFD, 0) == 0;
  return dup2(fd, target) == target;
}

bool MakeReportPipe(UniqueFd* readEnd, UniqueFd* writeEnd) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  readEnd->Reset(ends[0]);
  writeEnd->Reset(ends[1]);
  if (ends[1] > STDERR_FILENO) return true;
  writeEnd->Reset(fcntl(ends[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  return writeEnd->Valid();
}

}  // namespace ZorvPlatform
