// size_table.h: the outcome of counting: how many bytes each set of subvolumes holds.
#ifndef ENGINE_SIZE_SIZE_TABLE_H_
#define ENGINE_SIZE_SIZE_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "engine/io/chunk_map.h"

namespace ZorvEngine {

// Bytes on disk, one copy of each.
struct HeldBytes {
  uint64_t data = 0;      // data extents, each with its whole length
  uint64_t metadata = 0;  // tree blocks
};

inline HeldBytes& operator+=(HeldBytes& sum, const HeldBytes& more) {
  sum.data += more.data;
  sum.metadata += more.metadata;
  return sum;
}

// Bytes that one subvolume alone reaches.
struct ExclusiveSize {
  uint64_t id = 0;
  uint64_t dataBytes = 0;
  uint64_t metadataBytes = 0;
};

// Which set of subvolumes, tables beyond their limit know only in part.
struct SetRow {
  // Positions in SizeTable::ids, rising.  Of a set that is known in part: its last member alone.
  std::vector<uint32_t> members;
  // False: there are other members, all before the last one.  Such a row sums up several sets, and
  // may have bytes of a set of several members that has a row of its own.
  bool complete = true;
  std::vector<HeldBytes> bytes;  // one for each of SizeTable::redundancies
};

// What comes free with one subvolume of a plan, when those before it have gone already.
struct ForecastStep {
  uint32_t subvolume = 0;        // position in SizeTable::ids
  std::vector<HeldBytes> bytes;  // one for each of SizeTable::redundancies
};

// The bytes that only subvolumes asked about hold, by the set of those that hold them.  Each byte
// is in one row, unless only those of one subvolume were counted; what somebody else holds too is in
// none.
//
// A value: made by SetSums, passed between processes, read by whoever prints it.
class SizeTable {
 public:
  std::vector<uint64_t> ids;             // the subvolumes, in the order in which they were asked
  std::vector<Redundancy> redundancies;  // of the chunks of the file system, different ones only
  std::vector<SetRow> rows;              // no set twice; the sets of one member first, all of them
  bool countsSeveral = true;             // false: nothing was looked for that several hold together

  // Whether a row says something: one of several members without bytes does not.
  static bool IsWorthSaying(const SetRow& row) {
    const HeldBytes held = Sum(row.bytes);
    return (row.complete && row.members.size() == 1) || held.data != 0 || held.metadata != 0;
  }

  // Whether all sets are known, each with all its members.
  bool Complete() const;

  // What the subvolume at a position holds alone, over all redundancies.
  HeldBytes Exclusive(size_t subvolume) const;

  // Exclusive sizes of all subvolumes, in their order.
  std::vector<ExclusiveSize> ExclusiveSizes() const;

  // What comes free when the subvolumes at the positions `order` (none twice) are deleted in this
  // order, each step by itself; the last members of a set bring its bytes.  Nothing when sets of
  // several were not counted, and when the table is not complete and `order` is no beginning of
  // `ids`: ask with the IDs in that order then.
  std::optional<std::vector<ForecastStep>> Forecast(const std::vector<uint32_t>& order) const;

  // Sum over all redundancies.
  static HeldBytes Sum(const std::vector<HeldBytes>& bytes);

  // What `bytes` of a redundancy take on all devices together, copies and parity included.
  static uint64_t RawBytes(const Redundancy& redundancy, uint64_t bytes);
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_SIZE_TABLE_H_
