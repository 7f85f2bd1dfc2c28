// Stands at /sbin/btrfs where the library's way to the engine is measured: leaves the time at which
// it was started in a file, and answers with no subvolumes.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include "bench/started_at.h"

int main() {
  timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 1;
  const int fd = open(ZorvBench::kStartedAt, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  return fd >= 0 && write(fd, &now, sizeof now) == sizeof now ? 0 : 1;
}
