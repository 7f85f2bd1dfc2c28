#include "cli/fewest.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <optional>

namespace ZorvSnapUsage {
namespace {

using Places = std::vector<uint32_t>;
using Bytes = unsigned long long;
using Tick = std::function<void()>;

bool IsOneRange(const WeightedSet& set) { return set.members.size() == 1; }

template <typename Visit>
void ForEachMember(const WeightedSet& set, const Visit& visit) {
  for (const PlaceRange& range : set.members)
    for (uint32_t place = range.first; place <= range.last; ++place) visit(place);
}

// Compares all choices of runs over sets that are one range each.
class RunChoice {
 public:
  RunChoice(size_t count, const std::vector<WeightedSet>& sets)
      : count_(count),
        freed_(count * (count + 1) / 2),
        best_((count + 1) * (count + 2) / 2),
        begin_((count + 1) * (count + 2) / 2) {
    for (const WeightedSet& set : sets)
      if (IsOneRange(set)) Freed(set.members[0].first, set.members[0].last) += set.bytes;
    SumUpRanges();
  }

  // The fewest that free `target`; nothing when all together do not.
  std::optional<Places> Fewest(Bytes target, const Tick& tick) {
    for (size_t chosen = 0; chosen <= count_; ++chosen) {
      tick();
      // The first `chosen` of all, and what is to be kept comes behind them one by one.
      for (size_t kept = 0; kept + chosen <= count_; ++kept) Solve(kept, kept + chosen);
      if (Best(count_ - chosen, count_) >= target) return Chosen(count_ - chosen);
    }
    return std::nullopt;
  }

 private:
  // What the run from `first` to `last` frees. Those with one end lie together.
  Bytes& Freed(size_t first, size_t last) { return freed_[last * (last + 1) / 2 + first]; }

  // The most that comes free among the first `end` candidates when `kept` of them are kept, and
  // where the run that ends there begins (`end` when the last one is kept).
  size_t IndexOf(size_t kept, size_t end) const {
    return kept * (count_ + 1) - kept * (kept - 1) / 2 + (end - kept);
  }
  Bytes& Best(size_t kept, size_t end) { return best_[IndexOf(kept, end)]; }
  uint32_t& Begin(size_t kept, size_t end) { return begin_[IndexOf(kept, end)]; }

  // From the bytes of single sets to those of all sets within a run.
  void SumUpRanges() {
    for (size_t last = 0; last < count_; ++last) {
      for (size_t first = last; first-- > 0;) Freed(first, last) += Freed(first + 1, last);
      if (last == 0) continue;
      for (size_t first = 0; first < last; ++first) Freed(first, last) += Freed(first, last - 1);
    }
  }

  void Solve(size_t kept, size_t end) {
    Bytes best = kept > 0 ? Best(kept - 1, end - 1) : 0;
    size_t begin = end;
    for (size_t first = kept; first < end; ++first) {
      const Bytes bytes = Best(kept, first) + Freed(first, end - 1);
      // Of equals the older ones: the last is kept, or the last run is the shortest.
      if (bytes < best || (bytes == best && begin == end)) continue;
      best = bytes;
      begin = first;
    }
    if (kept == 0) begin = 0;  // also where nothing comes free
    Best(kept, end) = best;
    Begin(kept, end) = static_cast<uint32_t>(begin);
  }

  Places Chosen(size_t kept) {
    Places chosen;
    for (size_t end = count_; end > 0;) {
      const size_t begin = Begin(kept, end);
      if (begin == end) {
        --end;
        --kept;
        continue;
      }
      while (end > begin) chosen.push_back(static_cast<uint32_t>(--end));
    }
    std::reverse(chosen.begin(), chosen.end());
    return chosen;
  }

  const size_t count_;
  std::vector<Bytes> freed_;
  std::vector<Bytes> best_;
  std::vector<uint32_t> begin_;
};

// The sets by their members.
std::vector<Places> SetsByMember(size_t count, const std::vector<WeightedSet>& sets) {
  std::vector<Places> sets_of(count);
  for (uint32_t i = 0; i < sets.size(); ++i)
    ForEachMember(sets[i], [&](uint32_t place) { sets_of[place].push_back(i); });
  return sets_of;
}

// Gives up one candidate after the other, always that with which the least is lost, as long as
// `target` still comes free.
Places GiveUpOneByOne(size_t count, const std::vector<WeightedSet>& sets, Bytes target,
                      const Tick& tick) {
  const std::vector<Places> setsOf = SetsByMember(count, sets);
  std::vector<Bytes> loss(count);
  Bytes freed = 0;
  for (const WeightedSet& set : sets) {
    freed += set.bytes;
    ForEachMember(set, [&](uint32_t place) { loss[place] += set.bytes; });
  }
  Places chosen(count);
  std::iota(chosen.begin(), chosen.end(), 0u);
  std::vector<bool> lost(sets.size());
  while (!chosen.empty()) {
    tick();
    const auto least = std::min_element(chosen.begin(), chosen.end(),
                                        [&](uint32_t a, uint32_t b) { return loss[a] < loss[b]; });
    if (freed - loss[*least] < target) break;
    freed -= loss[*least];
    for (const uint32_t set : setsOf[*least]) {
      if (lost[set]) continue;
      lost[set] = true;
      ForEachMember(sets[set], [&](uint32_t place) { loss[place] -= sets[set].bytes; });
    }
    chosen.erase(least);
  }
  return chosen;
}

// Looks for a choice of a given size among all there are, leaving out whatever cannot reach the
// target: each set's bytes are shared out to its members that are still open, and no choice frees
// more than the largest of these shares together.
class Search {
 public:
  Search(size_t count, const std::vector<WeightedSet>& sets, Bytes target, unsigned long long looks,
         const Tick& tick)
      : sets_(sets),
        setsOf_(SetsByMember(count, sets)),
        target_(target),
        looks_(looks),
        tick_(tick),
        state_(count, State::kOpen),
        open_(sets.size()),
        kept_(sets.size()) {
    for (size_t i = 0; i < sets.size(); ++i) open_[i] = CountOf(sets[i].members);
  }

  enum class Answer { kFound, kNone, kLimit };

  Answer Find(size_t size) { return Go(size); }

  Places Chosen() const {
    Places chosen;
    for (uint32_t place = 0; place < state_.size(); ++place)
      if (state_[place] == State::kChosen) chosen.push_back(place);
    return chosen;
  }

 private:
  enum class State : uint8_t { kOpen, kChosen, kKept };

  // What a look at all sets says.
  struct Outlook {
    Bytes atMost = 0;
    uint32_t best = UINT32_MAX;  // the open candidate with the largest share
  };

  // Whether `size` further candidates are enough. When they are, they stay chosen.
  Answer Go(size_t size) {
    if (freed_ >= target_) return Answer::kFound;
    if (size == 0) return Answer::kNone;
    const std::optional<Outlook> outlook = Look(size);
    if (!outlook) return Answer::kLimit;
    if (outlook->atMost < target_ || outlook->best == UINT32_MAX) return Answer::kNone;
    const uint32_t place = outlook->best;
    Choose(place);
    const Answer with = Go(size - 1);
    if (with != Answer::kNone) return with;
    Unchoose(place);
    Keep(place);
    const Answer without = Go(size);
    if (without == Answer::kNone) Unkeep(place);
    return without;
  }

  std::optional<Outlook> Look(size_t size) {
    tick_();
    shares_.assign(state_.size(), 0);
    Bytes within = 0;
    for (size_t i = 0; i < sets_.size(); ++i) {
      if (kept_[i] > 0 || open_[i] == 0 || open_[i] > size) continue;
      within += sets_[i].bytes;
      const Bytes share = sets_[i].bytes / open_[i] + (sets_[i].bytes % open_[i] != 0);
      ForEachMember(sets_[i], [&](uint32_t place) {
        ++looked_;
        if (state_[place] == State::kOpen) shares_[place] += share;
      });
    }
    looked_ += sets_.size() + shares_.size();
    if (looked_ > looks_) return std::nullopt;
    Outlook outlook;
    const auto largest = std::max_element(shares_.begin(), shares_.end());
    if (largest != shares_.end() && *largest > 0)
      outlook.best = static_cast<uint32_t>(largest - shares_.begin());
    const size_t counted = std::min(size, shares_.size());
    std::nth_element(shares_.begin(), shares_.begin() + static_cast<ptrdiff_t>(counted),
                     shares_.end(), std::greater<>());
    const Bytes largestOnes = std::accumulate(
        shares_.begin(), shares_.begin() + static_cast<ptrdiff_t>(counted), Bytes{0});
    outlook.atMost = freed_ + std::min(within, largestOnes);
    return outlook;
  }

  void Choose(uint32_t place) {
    state_[place] = State::kChosen;
    for (const uint32_t set : setsOf_[place])
      if (--open_[set] == 0 && kept_[set] == 0) freed_ += sets_[set].bytes;
  }
  void Unchoose(uint32_t place) {
    state_[place] = State::kOpen;
    for (const uint32_t set : setsOf_[place])
      if (open_[set]++ == 0 && kept_[set] == 0) freed_ -= sets_[set].bytes;
  }
  void Keep(uint32_t place) {
    state_[place] = State::kKept;
    for (const uint32_t set : setsOf_[place]) {
      --open_[set];
      ++kept_[set];
    }
  }
  void Unkeep(uint32_t place) {
    state_[place] = State::kOpen;
    for (const uint32_t set : setsOf_[place]) {
      ++open_[set];
      --kept_[set];
    }
  }

  const std::vector<WeightedSet>& sets_;
  const std::vector<Places> setsOf_;
  const Bytes target_;
  const unsigned long long looks_;
  const Tick& tick_;
  unsigned long long looked_ = 0;
  std::vector<State> state_;
  std::vector<size_t> open_;  // members of each set that are open
  std::vector<size_t> kept_;  // members of each set that are kept
  std::vector<Bytes> shares_;
  Bytes freed_ = 0;
};

// Proves how few will do, from one upwards, as long as the limit lets it; `choice` is one that
// will.
void ProveBySearch(size_t count, const std::vector<WeightedSet>& sets, Bytes target,
                   unsigned long long looks, const Tick& tick, FewestChoice& choice) {
  Search search(count, sets, target, looks, tick);
  for (choice.atLeast = 1; choice.atLeast < choice.chosen.size(); ++choice.atLeast) {
    const Search::Answer answer = search.Find(choice.atLeast);
    if (answer == Search::Answer::kFound) choice.chosen = search.Chosen();
    if (answer != Search::Answer::kNone) return;
  }
}

}  // namespace

FewestChoice ChooseFewest(size_t count, const std::vector<WeightedSet>& sets,
                          unsigned long long target, const FewestLimits& limits, const Tick& tick) {
  FewestChoice choice;
  for (const WeightedSet& set : sets) choice.most += set.bytes;
  if (choice.most < target) return choice;
  choice.chosen = GiveUpOneByOne(count, sets, target, tick);
  choice.atLeast = 1;
  const bool runs = std::all_of(sets.begin(), sets.end(), IsOneRange);
  if (count <= limits.candidates) {
    // Sets of several ranges can only add to what runs free.
    std::optional<Places> chosen = RunChoice(count, sets).Fewest(target, tick);
    if (chosen && (runs || chosen->size() < choice.chosen.size())) choice.chosen = *chosen;
    if (runs) choice.atLeast = choice.chosen.size();
  }
  if (!choice.Proved()) ProveBySearch(count, sets, target, limits.looks, tick, choice);
  return choice;
}

}  // namespace ZorvSnapUsage
