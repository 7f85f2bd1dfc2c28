#include "engine/size/cross_check.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <string>

namespace ZorvEngine {
namespace {

bool Same(const HeldBytes& a, const HeldBytes& b) {
  return a.data == b.data && a.metadata == b.metadata;
}

// The rows that are not empty, by their members.
std::map<std::vector<uint32_t>, HeldBytes> HeldBySets(const SizeTable& table) {
  std::map<std::vector<uint32_t>, HeldBytes> held;
  for (const SetRow& row : table.rows) {
    const HeldBytes sum = SizeTable::Sum(row.bytes);
    if (!Same(sum, {})) held[row.members] = sum;
  }
  return held;
}

Status Disagree(const std::string& about) {
  return Status::Failed("two ways of counting disagree on " + about +
                        "; run btrfs check, and report this when it finds nothing");
}

// What comes free in the order in which the subvolumes were asked; all but those without sets of
// several know it.
std::vector<ForecastStep> InAskedOrder(const SizeTable& table) {
  std::vector<uint32_t> order(table.ids.size());
  std::iota(order.begin(), order.end(), 0);
  return *table.Forecast(order);
}

Status Compare(const SizeTable& first, const SizeTable& second) {
  for (size_t i = 0; i < first.ids.size(); ++i)
    if (!Same(first.Exclusive(i), second.Exclusive(i)))
      return Disagree("subvolume " + std::to_string(first.ids[i]));

  if (!first.countsSeveral) return Status();
  const std::vector<ForecastStep> steps = InAskedOrder(first);
  const std::vector<ForecastStep> again = InAskedOrder(second);
  for (size_t i = 0; i < steps.size(); ++i)
    if (!Same(SizeTable::Sum(steps[i].bytes), SizeTable::Sum(again[i].bytes)))
      return Disagree("what comes free with subvolume " + std::to_string(first.ids[i]));

  if (!first.Complete() || !second.Complete()) return Status();
  const auto held = HeldBySets(first);
  const bool equal = std::ranges::equal(held, HeldBySets(second), [](const auto& a, const auto& b) {
    return a.first == b.first && Same(a.second, b.second);
  });
  return equal ? Status() : Disagree("what sets of subvolumes hold together");
}

}  // namespace

Status CrossCheck::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                       SizeTable* out) {
  SizeTable table;
  ENGINE_TRY(first_.Run(trees, request, progress, &table));
  SizeTable again;
  SizeProgress unseen;
  ENGINE_TRY(second_.Run(trees, request, unseen, &again));
  ENGINE_TRY(Compare(table, again));
  *out = std::move(table);
  return Status();
}

}  // namespace ZorvEngine
