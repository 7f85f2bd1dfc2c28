// What snapshots hold together, and what comes free when some of them go.
#ifndef CLI_SIZE_TABLE_H_
#define CLI_SIZE_TABLE_H_

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <vector>

namespace ZorvSnapUsage {

// Bytes that come free, metadata (tree blocks) apart.
struct FreedBytes {
  unsigned long long data = 0;
  unsigned long long metadata = 0;

  unsigned long long Total() const { return data + metadata; }
  FreedBytes& operator+=(const FreedBytes& other);
  friend bool operator==(const FreedBytes&, const FreedBytes&) = default;
};

// Snapshots that follow one another, by their places in the table: `first` to `last`.
struct PlaceRange {
  uint32_t first;
  uint32_t last;
  friend bool operator==(const PlaceRange&, const PlaceRange&) = default;
};

// Some snapshots of a table as few ranges, in their order, none next to another: a set of history
// is nearly always one.
using Members = std::vector<PlaceRange>;

// Ascending places as ranges.
Members MembersOf(const std::vector<uint32_t>& places);

size_t CountOf(const Members& members);

// Bytes that all members hold and nobody else does.
struct HeldSet {
  Members members;
  FreedBytes bytes;
};

// The sum over sets that are not known one by one: in the order of the table `last` is the last
// member of each.
struct SummedSets {
  uint32_t last;
  FreedBytes bytes;
};

// One state of a file system, as far as it is about some of its snapshots.
struct SizeTable {
  unsigned long long generation = 0;  // the state, as the file system counts them
  std::vector<unsigned long long> subvolumeIDs;
  std::vector<HeldSet> sets;
  std::vector<SummedSets> sums;  // none: each set is known

  bool Complete() const { return sums.empty(); }
};

// What comes free with each of these snapshots, given by their places, when they are deleted in
// this order. Nothing when the table does not have every set and thus cannot say.
std::optional<std::vector<FreedBytes>> FreedInOrder(const SizeTable& table,
                                                    const std::vector<uint32_t>& order);

FreedBytes SumOf(const std::vector<FreedBytes>& steps);

// What the table says of one of its snapshots.
struct SnapshotShares {
  FreedBytes alone;         // comes free when it alone goes
  FreedBytes withAllOlder;  // when it and all before it in the table go
  // What it holds and the one before it does not; nothing when not every set is known.
  std::optional<FreedBytes> newSinceOlder;
};

// For each snapshot in the order of the table.
std::vector<SnapshotShares> SharesOf(const SizeTable& table);

// What comes free when all of the table's snapshots go, and the part of it that several of them
// hold together: the difference between that sum and the sum of what they hold alone.
struct TableTotals {
  FreedBytes all;
  FreedBytes heldBySeveral;
};

TableTotals TotalsOf(const SizeTable& table);

}  // namespace ZorvSnapUsage

#endif  // CLI_SIZE_TABLE_H_
