#include "cli/size_table.h"

#include <algorithm>

namespace ZorvSnapUsage {
namespace {

constexpr uint32_t kNotDeleted = UINT32_MAX;

// At which step the last member of a set goes; kNotDeleted when one of them stays.
uint32_t LastStep(const Members& members, const std::vector<uint32_t>& stepOf) {
  uint32_t last = 0;
  for (const PlaceRange& range : members)
    for (uint32_t place = range.first; place <= range.last; ++place)
      last = std::max(last, stepOf[place]);
  return last;
}

// Whether the order is the beginning of the table's own, for which sums are as good as sets.
bool IsOrderOfTable(const std::vector<uint32_t>& order) {
  for (uint32_t step = 0; step < order.size(); ++step)
    if (order[step] != step) return false;
  return true;
}

}  // namespace

FreedBytes& FreedBytes::operator+=(const FreedBytes& other) {
  data += other.data;
  metadata += other.metadata;
  return *this;
}

Members MembersOf(const std::vector<uint32_t>& places) {
  Members members;
  for (const uint32_t place : places) {
    if (!members.empty() && members.back().last + 1 == place)
      members.back().last = place;
    else
      members.push_back({place, place});
  }
  return members;
}

size_t CountOf(const Members& members) {
  size_t count = 0;
  for (const PlaceRange& range : members) count += range.last - range.first + 1;
  return count;
}

std::optional<std::vector<FreedBytes>> FreedInOrder(const SizeTable& table,
                                                    const std::vector<uint32_t>& order) {
  if (!table.Complete() && !IsOrderOfTable(order)) return std::nullopt;
  std::vector<uint32_t> stepOf(table.subvolumeIDs.size(), kNotDeleted);
  for (uint32_t step = 0; step < order.size(); ++step) stepOf[order[step]] = step;
  std::vector<FreedBytes> steps(order.size());
  for (const HeldSet& set : table.sets) {
    const uint32_t step = LastStep(set.members, stepOf);
    if (step != kNotDeleted) steps[step] += set.bytes;
  }
  for (const SummedSets& sum : table.sums)
    if (stepOf[sum.last] != kNotDeleted) steps[stepOf[sum.last]] += sum.bytes;
  return steps;
}

FreedBytes SumOf(const std::vector<FreedBytes>& steps) {
  FreedBytes sum;
  for (const FreedBytes& step : steps) sum += step;
  return sum;
}

std::vector<SnapshotShares> SharesOf(const SizeTable& table) {
  std::vector<SnapshotShares> shares(table.subvolumeIDs.size());
  if (table.Complete())
    for (SnapshotShares& share : shares) share.newSinceOlder.emplace();
  for (const HeldSet& set : table.sets) {
    if (CountOf(set.members) == 1) shares[set.members[0].first].alone += set.bytes;
    shares[set.members.back().last].withAllOlder += set.bytes;
    // Each range begins with a snapshot whose predecessor is no member.
    for (const PlaceRange& range : set.members)
      if (shares[range.first].newSinceOlder) *shares[range.first].newSinceOlder += set.bytes;
  }
  for (const SummedSets& sum : table.sums) shares[sum.last].withAllOlder += sum.bytes;
  for (size_t i = 1; i < shares.size(); ++i) shares[i].withAllOlder += shares[i - 1].withAllOlder;
  return shares;
}

TableTotals TotalsOf(const SizeTable& table) {
  TableTotals totals;
  for (const HeldSet& set : table.sets) {
    totals.all += set.bytes;
    if (CountOf(set.members) > 1) totals.heldBySeveral += set.bytes;
  }
  for (const SummedSets& sum : table.sums) {
    totals.all += sum.bytes;
    totals.heldBySeveral += sum.bytes;
  }
  return totals;
}

}  // namespace ZorvSnapUsage
