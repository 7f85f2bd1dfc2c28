#include "engine/size/top_down_walk.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "engine/io/tree_cursor.h"
#include "engine/size/extent_refs.h"
#include "engine/size/file_extents.h"
#include "engine/size/set_sums.h"

namespace ZorvEngine {
namespace {

// A reference to a tree block, by a root item or by a block that was reached.
struct BlockReference {
  BlockPointer pointer;
  HolderId holder;  // of what refers

  uint64_t Bytenr() const { return pointer.bytenr; }
};

// A reference to a data extent, by a leaf that was reached.
struct DataReference {
  uint64_t bytenr;
  HolderId holder;

  uint64_t Bytenr() const { return bytenr; }
};

// One walk.
class Walk {
 public:
  Walk(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress, BlockLimit& limit,
       bool afterScan)
      : trees_(trees),
        request_(request),
        stats_(progress.stats),
        limit_(limit),
        afterScan_(afterScan),
        refs_(trees.Reader(), trees.ExtentRoot(), limit),
        sums_(request, trees, progress),
        holders_(sums_.Sets()) {}

  Status Run(SizeTable* out) {
    ENGINE_TRY(FindRoots());
    ENGINE_TRY(CountBlocks());
    ENGINE_TRY(CountData());
    *out = sums_.Table();
    return Status();
  }

 private:
  Status FindRoots() {
    ENGINE_TRY(trees_.CheckSettled());
    ENGINE_TRY(CheckDataStays());
    size_t position = 0;
    for (const uint64_t id : request_.ids) {
      CommittedTrees::Subvolume subvolume;
      ENGINE_TRY(trees_.FindAskedSubvolume(id, &subvolume));
      levels_[subvolume.root.level].push_back({subvolume.root, HolderSets::Only(position++)});
    }
    for (const CommittedTrees::RelocationTree& tree : trees_.RelocationTrees()) {
      if (tree.id == kDataRelocationTreeId) continue;
      if (tree.beingDropped)
        return Status::Unsettled(
            "a balance is removing what it has moved, which this way of counting cannot follow; "
            "try again in a moment, or with --method scan");
      levels_[tree.root.level].push_back({tree.root, HolderSets::kNobody});
    }
    return Status();
  }

  // The new places of moved data are seen by who looks at all extents.
  Status CheckDataStays() {
    bool moves = false;
    if (!afterScan_) ENGINE_TRY(trees_.FindMovingData(&moves));
    return moves
               ? Status::Unsettled(
                     "a balance, or a device that shrinks or goes, is moving data, which this way "
                     "of counting cannot follow; try again when it has ended, or with --method "
                     "scan")
               : Status();
  }

  Status CountBlocks() {
    const PhaseTimer timer(stats_, "walking down");
    for (int level = kMaxLevel; level >= 0; --level) {
      ENGINE_TRY(KeepReached(static_cast<uint8_t>(level)));
      ENGINE_TRY(ReadReached(level));
    }
    return Status();
  }

  // Leaves those blocks of a level to which nothing else refers, once each with all their holders,
  // and counts them.
  Status KeepReached(uint8_t level) {
    std::vector<BlockReference>& blocks = levels_[level];
    size_t kept = 0;
    ENGINE_TRY(VisitReached(
        blocks,
        [&](const std::vector<uint64_t>& places, std::vector<ExtentEntry>* entries) {
          return refs_.OfTreeBlocks(places, level, entries);
        },
        [&](const BlockReference& block, HolderId holder, const ExtentEntry&) {
          sums_.AddTreeBlock(holder, block.Bytenr(), trees_.Reader().NodeSize());
          blocks[kept++] = {block.pointer, holder};
        }));
    blocks.resize(kept);
    return Status();
  }

  // Reads the blocks of a level, and takes what they refer to.
  Status ReadReached(int level) {
    const std::vector<BlockReference> blocks = std::move(levels_[level]);
    std::vector<BlockPointer> pointers;
    pointers.reserve(blocks.size());
    for (const BlockReference& block : blocks) pointers.push_back(block.pointer);

    ENGINE_TRY(limit_.Take(trees_.Reader(), pointers));
    return trees_.Reader().ReadMany(pointers, [&](const TreeBlockView& block) {
      const HolderId holder =
          std::ranges::lower_bound(blocks, block.Header().bytenr.Get(), {}, &BlockReference::Bytenr)
              ->holder;
      return block.IsLeaf() ? TakeLeaf(block, holder) : TakeNode(block, holder);
    });
  }

  Status TakeNode(const TreeBlockView& node, HolderId holder) {
    for (uint32_t slot = 0; slot < node.Count(); ++slot)
      levels_[node.Level() - 1].push_back({ChildPointer(node, slot), holder});
    return Status();
  }

  // Takes each reference to a data extent, whatever part of it the file uses.
  Status TakeLeaf(const TreeBlockView& leaf, HolderId holder) {
    return VisitFileExtents(leaf, [&](const FileExtent& extent) {
      data_.push_back({extent.bytenr, holder});
    });
  }

  Status CountData() {
    const PhaseTimer timer(stats_, "data of what was walked");
    return VisitReached(
        data_,
        [&](const std::vector<uint64_t>& places, std::vector<ExtentEntry>* entries) {
          return refs_.OfData(places, entries);
        },
        [&](const DataReference& extent, HolderId holder, const ExtentEntry& entry) {
          sums_.AddData(holder, extent.bytenr, entry.length);
        });
  }

  // Sorts the references, looks up what they refer to, and gives those objects all of whose
  // references are there to `visit`: with one of these, with their holders, and with the entry.
  // `visit` may overwrite references up to the one that it is given.
  template <typename Reference, typename LookUp, typename Visit>
  Status VisitReached(std::vector<Reference>& references, const LookUp& lookUp,
                      const Visit& visit) {
    std::ranges::sort(references, {}, &Reference::Bytenr);
    LeaveOutTooMany(&references);
    std::vector<uint64_t> places;
    std::vector<ExtentEntry> entries;
    for (auto next = references.begin(); next != references.end();) {
      places.clear();
      for (auto at = next; at != references.end() && places.size() < ExtentRefs::kBatch;) {
        places.push_back(at->Bytenr());
        at = EndOfObject(at, references.end());
      }
      ENGINE_TRY(lookUp(places, &entries));

      for (const ExtentEntry& entry : entries) {
        const auto end = EndOfObject(next, references.end());
        const auto found = static_cast<uint64_t>(end - next);
        if (found > entry.refs) return TooManyReferences(next->Bytenr());
        if (found == entry.refs) visit(*next, HoldersOf(next, end), entry);
        next = end;
      }
    }
    return Status();
  }

  // Leaves out objects whose holders are too many already; nothing more is looked up for them.
  template <typename Reference>
  void LeaveOutTooMany(std::vector<Reference>* references) {
    auto kept = references->begin();
    for (auto next = references->begin(); next != references->end();) {
      const auto end = EndOfObject(next, references->end());
      AddHoldersOf(next, end);
      if (!sums_.AreTooMany(holders_)) kept = kept == next ? end : std::move(next, end, kept);
      next = end;
    }
    references->erase(kept, references->end());
  }

  // The end of the references to the object of the first.
  template <typename At>
  static At EndOfObject(At at, At end) {
    const uint64_t bytenr = at->Bytenr();
    return std::find_if(at, end, [&](const auto& other) { return other.Bytenr() != bytenr; });
  }

  template <typename At>
  HolderId HoldersOf(At at, At end) {
    AddHoldersOf(at, end);
    return holders_.Id();
  }

  template <typename At>
  void AddHoldersOf(At at, At end) {
    holders_.Clear();
    for (; at != end; ++at) holders_.Add(at->holder);
  }

  static Status TooManyReferences(uint64_t bytenr) {
    return Status::Failed("the extent at " + std::to_string(bytenr) +
                          " has more references than its item counts; run btrfs check");
  }

  CommittedTrees& trees_;
  const SizeRequest& request_;
  RunStats& stats_;
  BlockLimit& limit_;
  const bool afterScan_;
  ExtentRefs refs_;
  SetSums sums_;
  HolderUnion holders_;
  std::array<std::vector<BlockReference>, kMaxLevel + 1> levels_;  // references to their blocks
  std::vector<DataReference> data_;
};

}  // namespace

Status TopDownWalk::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                        SizeTable* out) {
  BlockLimit limit(mostBlocks_);
  const Status done = Walk(trees, request, progress, limit, afterScan_).Run(out);
  blocks_ = limit.Taken();
  return done;
}

}  // namespace ZorvEngine
