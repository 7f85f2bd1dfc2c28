#include "engine/size/extent_tree_scan.h"

#include <algorithm>
#include <array>
#include <string>

#include "engine/io/extent_leaves.h"
#include "engine/ondisk/extent_item.h"
#include "engine/size/file_extents.h"
#include "engine/size/set_sums.h"

namespace ZorvEngine {
namespace {

// Who alone holds something: the index of a subvolume among those asked for.
using Holder = uint32_t;
constexpr Holder kNobody = UINT32_MAX;  // nobody alone

// A tree block that only asked trees may hold.
struct Block {
  uint64_t bytenr;
  uint64_t generation;
  uint64_t refs;
  size_t firstParent;  // its parents in Scan::parents_, up to those of the next block
  Holder holder;
  uint8_t level;
  bool fullBackref;
};

// One reference to the extent at `bytenr`, by something that `holder` alone holds.
struct Hold {
  uint64_t bytenr;
  Holder holder;
};
bool operator<(const Hold& a, const Hold& b) { return a.bytenr < b.bytenr; }

// References in rising order of what they refer to, taken by extents that come in that order.
class Holds {
 public:
  void Add(uint64_t bytenr, Holder holder) { holds_.push_back({bytenr, holder}); }

  // To be called once, after the last Add.
  void Sort() { std::sort(holds_.begin(), holds_.end()); }

  // Gives the holder of each reference to the extent at `bytenr` to `visit`.
  template <typename Visit>
  void Take(uint64_t bytenr, const Visit& visit) {
    while (next_ < holds_.size() && holds_[next_].bytenr < bytenr) ++next_;
    for (; next_ < holds_.size() && holds_[next_].bytenr == bytenr; ++next_)
      visit(holds_[next_].holder);
  }

 private:
  std::vector<Hold> holds_;
  size_t next_ = 0;
};

// Adds up the references to one extent that come from what one subvolume alone holds.
class Count {
 public:
  void Add(Holder holder, uint64_t references) {
    if (references_ == 0) holder_ = holder;
    if (holder != holder_) holder_ = kNobody;
    references_ += references;
  }

  // Who holds the extent alone, when it has `refs` references; kNobody when somebody else does too.
  Holder OfAll(uint64_t refs) const { return references_ == refs ? holder_ : kNobody; }

  uint64_t References() const { return references_; }

 private:
  Holder holder_ = kNobody;
  uint64_t references_ = 0;
};

// The root IDs asked for.
class Asked {
 public:
  explicit Asked(std::vector<uint64_t> ids) : ids_(std::move(ids)) {
    std::sort(ids_.begin(), ids_.end());
  }

  // Whether a tree that was not asked for refers to the extent.
  bool HasOutsideHolder(const ExtentRecord& extent) const {
    for (const ExtentReference& ref : extent.references)
      if ((ref.kind == ExtentReference::kTree || ref.kind == ExtentReference::kFile) &&
          !std::binary_search(ids_.begin(), ids_.end(), ref.holder))
        return true;
    return false;
  }

 private:
  std::vector<uint64_t> ids_;
};

// Gives the extents of `ranges` to `visit`, in the order of their places.
template <typename Visit>
Status VisitExtents(CommittedTrees& trees, const std::vector<LogicalRange>& ranges,
                    const Visit& visit) {
  ExtentAssembler assembler(trees.Reader().NodeSize());
  uint64_t at = 0;
  const ExtentRecord* complete = nullptr;
  const auto passOn = [&](const char* wrong) {
    if (wrong != nullptr)
      return Status::Failed("the extent tree is damaged at " + std::to_string(at) + ": " + wrong +
                            "; run btrfs scrub and btrfs check");
    return complete != nullptr ? visit(*complete) : Status();
  };
  ExtentLeaves leaves(trees.Reader(), trees.ExtentRoot());
  ENGINE_TRY(leaves.Visit(ranges, [&](const Key& key, ByteView data) {
    at = key.objectid;
    return passOn(assembler.Take(key, data, &complete));
  }));
  return passOn(assembler.Finish(&complete));
}

// One scan.
class Scan {
 public:
  Scan(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress)
      : trees_(trees), request_(request), sums_(request, trees, progress), asked_(request.ids) {}

  Status Run(SizeTable* out) {
    ENGINE_TRY(FindRoots());
    ENGINE_TRY(CollectBlocks());
    for (int level = kMaxLevel; level >= 0; --level) ENGINE_TRY(ResolveLevel(level));
    ENGINE_TRY(CountData());
    *out = sums_.Table();
    return Status();
  }

 private:
  Status FindRoots() {
    Holder index = 0;
    for (const uint64_t id : request_.ids) {
      CommittedTrees::Subvolume subvolume;
      ENGINE_TRY(trees_.FindAskedSubvolume(id, &subvolume));
      blockHolds_[subvolume.root.level].Add(subvolume.root.bytenr, index++);
    }
    return Status();
  }

  Status CollectBlocks() {
    return VisitExtents(trees_, trees_.MetadataRanges(), [&](const ExtentRecord& extent) {
      if (!extent.isTreeBlock || asked_.HasOutsideHolder(extent)) return Status();
      levels_[extent.level].push_back(blocks_.size());
      blocks_.push_back({extent.bytenr, extent.generation, extent.refs, parents_.size(), kNobody,
                         extent.level, extent.fullBackref});
      for (const ExtentReference& ref : extent.references)
        if (ref.kind == ExtentReference::kBlock) parents_.push_back(ref.holder);
      return Status();
    });
  }

  // Finds out who holds the blocks of a level, whose parents are all resolved, and what they hold.
  Status ResolveLevel(int level) {
    blockHolds_[level].Sort();
    std::vector<BlockPointer> toRead;
    for (const size_t index : levels_[level]) {
      Block& block = blocks_[index];
      const Count count = CountBlockReferences(index);
      if (count.References() > block.refs) return TooManyReferences(block.bytenr);
      block.holder = count.OfAll(block.refs);
      if (block.holder == kNobody) continue;
      sums_.AddTreeBlock(HolderSets::Only(block.holder), block.bytenr, trees_.Reader().NodeSize());
      if (!block.fullBackref) toRead.push_back({block.bytenr, block.generation, block.level, {}});
    }
    blockHolds_[level] = Holds();
    return trees_.Reader().ReadMany(std::move(toRead), [&](const TreeBlockView& block) {
      return block.IsLeaf() ? HoldExtents(block) : HoldChildren(block);
    });
  }

  // References from own blocks, whether they were read or stand in the extent tree.
  Count CountBlockReferences(size_t index) {
    const Block& block = blocks_[index];
    Count count;
    const size_t end =
        index + 1 < blocks_.size() ? blocks_[index + 1].firstParent : parents_.size();
    for (size_t at = block.firstParent; at < end; ++at) {
      const Holder holder = HolderOf(parents_[at]);
      if (holder != kNobody) count.Add(holder, 1);
    }
    blockHolds_[block.level].Take(block.bytenr, [&](Holder holder) { count.Add(holder, 1); });
    return count;
  }

  // Who alone holds the tree block at `bytenr`. Blocks were collected in the order of their places.
  Holder HolderOf(uint64_t bytenr) const {
    const auto found =
        std::lower_bound(blocks_.begin(), blocks_.end(), bytenr,
                         [](const Block& block, uint64_t at) { return block.bytenr < at; });
    return found != blocks_.end() && found->bytenr == bytenr ? found->holder : kNobody;
  }

  Status HoldChildren(const TreeBlockView& node) {
    const Holder holder = HolderOf(node.Header().bytenr.Get());
    for (uint32_t slot = 0; slot < node.Count(); ++slot)
      blockHolds_[node.Level() - 1].Add(node.PointerAt(slot).bytenr.Get(), holder);
    return Status();
  }

  Status HoldExtents(const TreeBlockView& leaf) {
    const Holder holder = HolderOf(leaf.Header().bytenr.Get());
    return VisitFileExtents(leaf, [&](uint64_t bytenr) { dataHolds_.Add(bytenr, holder); });
  }

  Status CountData() {
    dataHolds_.Sort();
    return VisitExtents(trees_, trees_.DataRanges(), [&](const ExtentRecord& extent) {
      if (extent.isTreeBlock || asked_.HasOutsideHolder(extent)) return Status();
      Count count;
      for (const ExtentReference& ref : extent.references) {
        if (ref.kind != ExtentReference::kLeafData) continue;
        const Holder holder = HolderOf(ref.holder);
        if (holder != kNobody) count.Add(holder, ref.count);
      }
      dataHolds_.Take(extent.bytenr, [&](Holder holder) { count.Add(holder, 1); });
      if (count.References() > extent.refs) return TooManyReferences(extent.bytenr);
      const Holder holder = count.OfAll(extent.refs);
      if (holder != kNobody) sums_.AddData(HolderSets::Only(holder), extent.bytenr, extent.length);
      return Status();
    });
  }

  static Status TooManyReferences(uint64_t bytenr) {
    return Status::Failed("the extent at " + std::to_string(bytenr) +
                          " has more references than its item counts; run btrfs check");
  }

  CommittedTrees& trees_;
  const SizeRequest& request_;
  SetSums sums_;
  const Asked asked_;
  std::vector<Block> blocks_;                              // by place
  std::vector<uint64_t> parents_;                          // of all blocks, in their order
  std::array<std::vector<size_t>, kMaxLevel + 1> levels_;  // blocks of each level, by place
  std::array<Holds, kMaxLevel + 1> blockHolds_;            // from root items and blocks read
  Holds dataHolds_;                                        // from leaves read
};

}  // namespace

Status ExtentTreeScan::Run(CommittedTrees& trees, const SizeRequest& request,
                           SizeProgress& progress, SizeTable* out) {
  return Scan(trees, request, progress).Run(out);
}

}  // namespace ZorvEngine
