// To be loaded before a program's libraries (LD_PRELOAD): the time of day is the machine's plus the
// seconds that stand in the file which ZORV_CLOCK_SHIFT names, whenever it is asked for. The
// machine's own clock, which others use, is left alone; monotonic clocks are as they are.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

long Shift() {
  const int saved = errno;
  char text[32] = "";
  const char* const path = getenv("ZORV_CLOCK_SHIFT");
  const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    (void)!read(fd, text, sizeof text - 1);
    (void)close(fd);
  }
  errno = saved;
  return strtol(text, nullptr, 10);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long code = syscall(SYS_clock_gettime, clock, now);
  if (code == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
    now->tv_sec += Shift();
  return static_cast<int>(code);
}

time_t time(time_t* out) noexcept {
  timespec now;
  (void)clock_gettime(CLOCK_REALTIME, &now);
  if (out != nullptr) *out = now.tv_sec;
  return now.tv_sec;
}

int gettimeofday(timeval* out, void*) noexcept {
  timespec now;
  (void)clock_gettime(CLOCK_REALTIME, &now);
  *out = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

}  // extern "C"
