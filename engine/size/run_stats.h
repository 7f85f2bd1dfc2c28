// run_stats.h: what a run did, for those who wonder why it took so long; may live in shared memory.
#ifndef ENGINE_SIZE_RUN_STATS_H_
#define ENGINE_SIZE_RUN_STATS_H_

#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace ZorvEngine {

// Counts of one run, beside those of its reading.  Written by one thread; another process reads
// them once it has been told the outcome.
struct RunStats {
  // A part of the work and the time that it took, all its turns together.
  struct Phase {
    const char* name = nullptr;  // a literal: the processes are forks, where it is at one address
    std::chrono::nanoseconds time{0};
  };
  static constexpr size_t kMostPhases = 16;

  Phase phases[kMostPhases];  // in the order in which they first came; unused ones have no name
  uint64_t passes = 0;     // over the extent tree, those that mend what later commits changed too
  uint64_t repairs = 0;    // blocks that later commits had reused
  uint64_t sets = 0;       // rows of the table with bytes, and those of single subvolumes
  uint64_t peakBytes = 0;  // most memory that the process had at a time
  char method[16] = {};    // how was counted,
  char why[160] = {};      // and why so: one sentence, empty when it was asked for
  char noTurn[160] = {};   // why it did not wait for other runs; empty: it would have

  // Says which way of counting was taken; texts that are too long are cut.
  void Choose(const std::string& taken, const std::string& reason) {
    Copy(taken, method);
    Copy(reason, why);
  }

  // Says why there is no turn to wait for; cut as above.  Not while the writing thread runs.
  void SayNoTurn(const std::string& reason) { Copy(reason, noTurn); }

  // Adds time to the phase `name`, a literal.  Phases beyond kMostPhases go to the last one.
  void AddTime(const char* name, std::chrono::nanoseconds time) {
    size_t at = 0;
    while (at + 1 < kMostPhases && phases[at].name != nullptr && strcmp(phases[at].name, name) != 0)
      ++at;
    if (phases[at].name == nullptr) phases[at].name = name;
    phases[at].time += time;
  }

 private:
  template <size_t N>
  static void Copy(const std::string& from, char (&to)[N]) {
    const size_t size = std::min(from.size(), N - 1);
    memcpy(to, from.data(), size);
    to[size] = '\0';
  }
};

// Adds the time of a scope to a phase.
class PhaseTimer {
 public:
  // `name` is a literal; the counts are the caller's and outlive the object.
  PhaseTimer(RunStats& stats, const char* name) : stats_(stats), name_(name) {}
  ~PhaseTimer() { stats_.AddTime(name_, Clock::now() - begin_); }
  PhaseTimer(const PhaseTimer&) = delete;
  PhaseTimer& operator=(const PhaseTimer&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  RunStats& stats_;
  const char* name_;
  const Clock::time_point begin_ = Clock::now();
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_RUN_STATS_H_
