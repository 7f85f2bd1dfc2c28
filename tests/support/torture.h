// What the harnesses under tests/torture share: how long one may go on, in which order it tries
// what it has no time to try all of, and the figures that it leaves.
#ifndef TESTS_SUPPORT_TORTURE_H_
#define TESTS_SUPPORT_TORTURE_H_

#include <stddef.h>

#include <string>
#include <vector>

namespace ZorvTest {

// The time of one test of a harness: its part of the seconds that the program was given
// (ZORV_TORTURE_SECONDS, set by scripts/torture.sh; 20 without it). What a test must do to be worth
// its name it does however long that takes; beyond that it goes on while IsLeft().
class Budget {
 public:
  // `part` of the program's seconds, from now on; the parts of a program's tests add up to 1.
  explicit Budget(double part = 1);

  bool IsLeft() const;

  // Seconds that remain, never negative.
  double Left() const;

 private:
  double end_;
};

// The numbers 0 to count-1, each once, so ordered that every beginning of the list is spread over
// the whole: who has time for a tenth of the steps has seen all parts of the road.
std::vector<size_t> SpreadOrder(size_t count);

// Leaves a figure of the running test ("kills", 412) for the report of scripts/torture.sh.
void Figure(const std::string& what, unsigned long long count);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_TORTURE_H_
