#include "engine/size/size_table.h"

#include <algorithm>

namespace ZorvEngine {
namespace {

constexpr size_t kNotPlanned = SIZE_MAX;

// Whether `order` is 0, 1, 2, ...
bool IsBeginning(const std::vector<uint32_t>& order) {
  for (size_t i = 0; i < order.size(); ++i)
    if (order[i] != i) return false;
  return true;
}

// The step at which the last member of a set goes; kNotPlanned when one stays.
size_t StepThatFrees(const SetRow& row, const std::vector<size_t>& stepOf) {
  size_t last = 0;
  for (const uint32_t member : row.members) last = std::max(last, stepOf[member]);
  return last;
}

}  // namespace

bool SizeTable::Complete() const {
  return countsSeveral &&
         std::all_of(rows.begin(), rows.end(), [](const SetRow& row) { return row.complete; });
}

HeldBytes SizeTable::Exclusive(size_t subvolume) const { return Sum(rows[subvolume].bytes); }

std::vector<ExclusiveSize> SizeTable::ExclusiveSizes() const {
  std::vector<ExclusiveSize> sizes;
  for (size_t i = 0; i < ids.size(); ++i) {
    const HeldBytes held = Exclusive(i);
    sizes.push_back({ids[i], held.data, held.metadata});
  }
  return sizes;
}

std::optional<std::vector<ForecastStep>> SizeTable::Forecast(
    const std::vector<uint32_t>& order) const {
  if (!countsSeveral || (!Complete() && !IsBeginning(order))) return std::nullopt;
  std::vector<size_t> stepOf(ids.size(), kNotPlanned);
  std::vector<ForecastStep> steps;
  for (const uint32_t subvolume : order) {
    stepOf[subvolume] = steps.size();
    steps.push_back({subvolume, std::vector<HeldBytes>(redundancies.size())});
  }
  for (const SetRow& row : rows) {
    const size_t step = StepThatFrees(row, stepOf);
    if (step == kNotPlanned) continue;
    for (size_t i = 0; i < row.bytes.size(); ++i) steps[step].bytes[i] += row.bytes[i];
  }
  return steps;
}

HeldBytes SizeTable::Sum(const std::vector<HeldBytes>& bytes) {
  HeldBytes sum;
  for (const HeldBytes& held : bytes) sum += held;
  return sum;
}

uint64_t SizeTable::RawBytes(const Redundancy& redundancy, uint64_t bytes) {
  const uint64_t rows = bytes / redundancy.dataStripes;
  const uint64_t rest = bytes % redundancy.dataStripes;
  return rows * redundancy.stripes + rest * redundancy.stripes / redundancy.dataStripes;
}

}  // namespace ZorvEngine
