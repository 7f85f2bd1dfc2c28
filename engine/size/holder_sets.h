// holder_sets.h: sets of subvolumes, each kept once and known by a number.
#ifndef ENGINE_SIZE_HOLDER_SETS_H_
#define ENGINE_SIZE_HOLDER_SETS_H_

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace ZorvEngine {

// Number of a set of subvolumes; the same set has the same number.
using HolderId = uint32_t;

// Who holds something, out of `subvolumes` many, known by their positions.
//
// All members of a set are kept as bits while they fit into `mostBytes`.  Of sets that come later,
// and of all but single ones when `mostBytes` is 0, just two things are known: that they have
// several members, and which is the last.  That is enough for what each subvolume holds alone, and
// for what comes free when they are deleted in their order.
class HolderSets {
 public:
  // Nobody that counts: what relocation trees alone hold.
  static constexpr HolderId kNobody = 0;

  HolderSets(size_t subvolumes, size_t mostBytes);

  // The set of the subvolume at `position` alone.
  static HolderId Only(size_t position) { return static_cast<HolderId>(position + 1); }

  size_t Subvolumes() const { return subvolumes_; }

  // Whether all members of a set are known.
  bool IsComplete(HolderId id) const { return (id & kSeveral) == 0; }

  // Whether a set has just one member.
  bool IsSingle(HolderId id) const { return id != kNobody && id <= subvolumes_; }

  // Position of the last member; not for kNobody.
  uint32_t Last(HolderId id) const;

  // Positions of all members, rising; of a set that is not complete, the last alone.
  std::vector<uint32_t> Members(HolderId id) const;

 private:
  friend class HolderUnion;

  // Marks a number that says "several, the last being this position" instead of a kept set.
  static constexpr HolderId kSeveral = 1u << 31;

  const uint64_t* Bits(HolderId id) const { return &bits_[size_t{id} * words_]; }
  HolderId Intern(const std::vector<uint64_t>& bits);

  size_t subvolumes_;
  size_t words_;  // of one set; 0 when only singles are kept
  size_t mostSets_;
  std::vector<uint64_t> bits_;  // of all kept sets, by number
  std::vector<uint32_t> last_;  // likewise
  std::unordered_multimap<uint64_t, HolderId> byHash_;
};

// Adds up the holders of one object, then says which set they are.
class HolderUnion {
 public:
  // The sets are the caller's and outlive the object.
  explicit HolderUnion(HolderSets& sets) : sets_(sets), bits_(sets.words_) {}

  // Begins anew with no member.
  void Clear();

  void Add(HolderId id);

  // Whether at least two subvolumes were added.
  bool AreSeveral() const {
    return several_ || (only_ != HolderSets::kNobody && !sets_.IsSingle(only_));
  }

  // The number of the union of all that was added.
  HolderId Id();

 private:
  void AddBits(HolderId id);

  HolderSets& sets_;
  HolderId only_ = HolderSets::kNobody;  // all that was added, while it is one number
  bool several_ = false;                 // more than one number was added:
  bool partial_ = false;                 // one that is not complete among them
  uint32_t last_ = 0;
  HolderId added_ = HolderSets::kNobody;  // by the last call
  std::vector<uint64_t> bits_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_HOLDER_SETS_H_
