#include "tests/torture/lateness.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tests/support/command.h"
#include "tests/support/torture.h"

namespace ZorvTest {
namespace {

constexpr useconds_t kNap = 10000;

// What may be late by accident: a few, or this part of many.
constexpr unsigned kFew = 3;
constexpr unsigned kOneOf = 20;

double SecondsWithoutProcessor(pid_t process) {
  std::ifstream schedule("/proc/" + std::to_string(process) + "/schedstat");
  double ran = 0, waited = 0;  // ns
  schedule >> ran >> waited;
  return waited / 1e9;
}

}  // namespace

NapClock::NapClock() : sleeper_(fork()) {
  if (sleeper_ < 0) throw std::runtime_error("no process that takes naps");
  if (sleeper_ > 0) return;
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;; ++*naps_) usleep(kNap);
}

NapClock::~NapClock() {
  (void)kill(sleeper_, SIGKILL);
  (void)WaitForExit(sleeper_);
}

double NapClock::Now() const { return *naps_ * (kNap / 1e6); }

OwnTime::OwnTime(const NapClock& clock, pid_t process)
    : clock_(clock), process_(process), began_(Now()) {}

double OwnTime::Now() const { return clock_.Now() - SecondsWithoutProcessor(process_); }

double OwnTime::Seconds() const { return std::max(0.0, Now() - began_); }

void Lateness::Take(double seconds) {
  const auto ms = static_cast<unsigned>(seconds * 1000);
  for (unsigned seen = slowestMs_; seen < ms && !slowestMs_.compare_exchange_weak(seen, ms);)
    continue;
  ++all_;
  if (seconds > most_) ++late_;
}

void Lateness::Judge() const {
  Figure("timed", all_);
  Figure("late", late_);
  Figure("slowest, ms", slowestMs_);
  EXPECT_GT(all_, kFew) << "too few to say anything";
  EXPECT_LE(late_, std::max(kFew, all_ / kOneOf)) << "later than " << most_ << " s";
}

}  // namespace ZorvTest
