// Tells a product that is late from a machine that is busy with others.
#ifndef TESTS_TORTURE_LATENESS_H_
#define TESTS_TORTURE_LATENESS_H_

#include <sys/types.h>

#include <atomic>

#include "tests/support/shared_memory.h"

namespace ZorvTest {

// A clock that stands still while the machine has no time for anybody: it counts the naps of 10 ms
// that a process beside the test takes, one after the other, however long each of them lasts. Those
// that the test forks may look at it, too.
class NapClock {
 public:
  NapClock();
  ~NapClock();
  NapClock(const NapClock&) = delete;
  NapClock& operator=(const NapClock&) = delete;

  // Seconds that it has slept.
  double Now() const;

 private:
  const SharedMemory<std::atomic<unsigned>> naps_;
  pid_t sleeper_;
};

// What a process takes from the making of this on, without what the machine lets it wait: naps of
// others that last, and time that it was ready to run and had no processor.  It may have ended by
// then, if nobody has waited for it.
class OwnTime {
 public:
  OwnTime(const NapClock& clock, pid_t process);

  double Seconds() const;

 private:
  double Now() const;

  const NapClock& clock_;
  const pid_t process_;
  const double began_;
};

// Counts what was late of that which has to be quick; processes may share it.
class Lateness {
 public:
  // `most`: seconds after which it is late.
  explicit Lateness(double most) : most_(most) {}

  void Take(double seconds);

  // Leaves the figures, and fails when more was late than accidents explain.
  void Judge() const;

 private:
  const double most_;
  std::atomic<unsigned> all_{0}, late_{0}, slowestMs_{0};
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_LATENESS_H_
