#include "cli/plan.h"

#include <utility>

#include "cli/fewest.h"

namespace ZorvSnapUsage {
namespace {

using Places = std::vector<uint32_t>;

constexpr uint32_t kNoCandidate = UINT32_MAX;

// The sets that candidates alone hold, by their places among them.
std::vector<WeightedSet> SetsOfCandidates(const SizeTable& table, const Places& candidates) {
  Places candidateAt(table.subvolumeIDs.size(), kNoCandidate);
  for (uint32_t i = 0; i < candidates.size(); ++i) candidateAt[candidates[i]] = i;
  std::vector<WeightedSet> sets;
  for (const HeldSet& set : table.sets) {
    Places members;
    bool others = false;
    for (const PlaceRange& range : set.members)
      for (uint32_t place = range.first; place <= range.last && !others; ++place) {
        others = candidateAt[place] == kNoCandidate;
        members.push_back(candidateAt[place]);
      }
    if (!others) sets.push_back({MembersOf(members), set.bytes.Total()});
  }
  return sets;
}

// The beginning of a plan that is enough; nothing when the whole is not.
std::optional<size_t> StepsUntil(const std::vector<FreedBytes>& steps, unsigned long long target) {
  unsigned long long freed = 0;
  for (size_t i = 0; i < steps.size(); ++i)
    if ((freed += steps[i].Total()) >= target) return i + 1;
  return std::nullopt;
}

// All candidates, those before the others whose places among them are chosen.
Places ChosenFirst(const Places& candidates, const Places& chosen) {
  Places order, others;
  auto next = chosen.begin();
  for (uint32_t i = 0; i < candidates.size(); ++i) {
    const bool isChosen = next != chosen.end() && *next == i;
    (isChosen ? order : others).push_back(candidates[i]);
    if (isChosen) ++next;
  }
  order.insert(order.end(), others.begin(), others.end());
  return order;
}

}  // namespace

Plan PlanDeletion(const SizeTable& table, const Places& order, const AskInOrder& ask) {
  Plan plan;
  plan.order = order;
  if (std::optional<std::vector<FreedBytes>> steps = FreedInOrder(table, order)) {
    plan.generation = table.generation;
    plan.steps = std::move(*steps);
  } else {
    Forecast forecast = ask(order);
    plan.generation = forecast.generation;
    plan.steps = std::move(forecast.steps);
  }
  plan.most = plan.Together();
  return plan;
}

Plan PlanInOrder(const SizeTable& table, const Places& candidates, unsigned long long target,
                 const AskInOrder& ask) {
  Plan plan = PlanDeletion(table, candidates, ask);
  const std::optional<size_t> steps = StepsUntil(plan.steps, target);
  plan.reached = steps.has_value();
  plan.order.resize(steps.value_or(0));
  plan.steps.resize(steps.value_or(0));
  return plan;
}

Plan PlanFewest(const SizeTable& table, const Places& candidates, unsigned long long target,
                const AskInOrder& ask, const std::function<void()>& tick) {
  const FewestChoice choice =
      ChooseFewest(candidates.size(), SetsOfCandidates(table, candidates), target, {}, tick);
  Plan inOrder = PlanInOrder(table, candidates, target, ask);
  // What is summed up comes on top of the sets: their choice is enough, and may not be the best.
  const size_t atLeast = table.Complete() ? choice.atLeast : 1;
  if (inOrder.reached) inOrder.atLeast = atLeast;
  if (!choice.Reached()) return inOrder;
  // The others behind it say what all free together, in the same state.
  Plan plan = PlanInOrder(table, ChosenFirst(candidates, choice.chosen), target, ask);
  plan.atLeast = atLeast;
  plan.overtaken = !plan.reached || plan.order.size() > choice.chosen.size();
  const bool worse = inOrder.reached && inOrder.order.size() < plan.order.size();
  return worse && !plan.overtaken ? inOrder : plan;
}

}  // namespace ZorvSnapUsage
