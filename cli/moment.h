// Points in time, finer than a second, so that it is known which of two things came first.
#ifndef CLI_MOMENT_H_
#define CLI_MOMENT_H_

#include <time.h>

#include <compare>

namespace ZorvSnapUsage {

struct Moment {
  time_t seconds = 0;  // since the epoch
  long nanoseconds = 0;

  Moment() = default;
  explicit Moment(const timespec& time) : seconds(time.tv_sec), nanoseconds(time.tv_nsec) {}

  // The stamp of a file that was written before is never later; by the tick of the kernel's clock
  // it may be earlier (clock_gettime(2), CLOCK_REALTIME_COARSE).
  static Moment Now() {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return Moment(now);
  }

  auto operator<=>(const Moment&) const = default;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_MOMENT_H_
