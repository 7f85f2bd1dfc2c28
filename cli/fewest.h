// Which few snapshots to delete so that enough comes free.
#ifndef CLI_FEWEST_H_
#define CLI_FEWEST_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <vector>

#include "cli/size_table.h"

namespace ZorvSnapUsage {

// Bytes that come free once all members are chosen; members are places among the candidates.
struct WeightedSet {
  Members members;
  unsigned long long bytes;
};

// How far the search goes. Both are counts of work, not of time: the answer is the same everywhere.
struct FewestLimits {
  // Candidates for which all ways to choose runs of neighbours are compared: it takes 20 bytes for
  // each pair of them, and a third of their number to the power of three steps.
  size_t candidates = 2000;
  // Members of sets that the search through other choices looks at.
  unsigned long long looks = 1'000'000'000;
};

struct FewestChoice {
  // Ascending places; empty when even all candidates do not free enough.
  std::vector<uint32_t> chosen;
  // No fewer than so many will do; as many as are chosen when that is proved.
  size_t atLeast = 0;
  // What comes free when all candidates go.
  unsigned long long most = 0;

  bool Reached() const { return !chosen.empty(); }
  bool Proved() const { return atLeast == chosen.size(); }
};

// Chooses as few of `count` candidates as possible so that at least `target` bytes come free, which
// is not 0. What several snapshots hold is free when the last of them goes, so that snapshots which
// free little alone may be the best together: taking the largest one by one is not enough.
//
// Where each set is one range of candidates, as it is with snapshots of one history, the best
// choice is made of runs: what two runs free together is what each frees alone. That is solved
// exactly, whatever the number chosen. Other tables are searched, with what is certain to be out of
// reach left out; when the limit ends the search, the best choice found is given with what is
// proved by then. `tick` is called many times a second meanwhile; it may throw, which ends the
// search.
FewestChoice ChooseFewest(
    size_t count, const std::vector<WeightedSet>& sets, unsigned long long target,
    const FewestLimits& limits = {}, const std::function<void()>& tick = [] {});

}  // namespace ZorvSnapUsage

#endif  // CLI_FEWEST_H_
