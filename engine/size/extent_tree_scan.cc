#include "engine/size/extent_tree_scan.h"

#include <algorithm>
#include <string>

#include "engine/io/extent_tree_leaves.h"
#include "engine/size/digest_reader.h"
#include "engine/size/leaf_digest.h"
#include "engine/size/tree_block_holders.h"

namespace ZorvEngine {

// What one run leaves to the next.
struct ExtentTreeScan::Kept {
  explicit Kept(const SizeRequest& request)
      : memory(request.mostArrayBytes),
        digests(memory),
        blockDigests(memory),
        leaves(memory),
        asked(request.ids) {
    std::ranges::sort(asked);
  }

  ArrayMemory memory;
  DigestReader digests;         // of leaves of the extent tree,
  DigestReader blockDigests;    // and of blocks of subvolumes: a damaged tree may claim the other's
  AddressMap leaves;            // of subvolumes, that any run knew when it chose what to keep
  std::vector<uint64_t> asked;  // root IDs, rising
  uint64_t generation = 0;      // of the last run that chose
};

// One run, on one state of the file system.
class ExtentTreeScan::Pass {
 public:
  Pass(Kept& kept, CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress)
      : kept_(kept),
        trees_(trees),
        request_(request),
        meter_(progress.meter),
        stats_(progress.stats),
        sums_(request, trees, progress),
        leaves_(kept.memory),
        holders_(trees.Reader(), kept.blockDigests, kept.memory, sums_) {}

  Status Run(SizeTable* out) {
    kept_.digests.BeginPass();
    kept_.blockDigests.BeginPass();
    ++stats_.passes;
    ENGINE_TRY(trees_.CheckSettled());
    ENGINE_TRY(ListLeaves());
    ENGINE_TRY(FindHoldersOfTreeBlocks());
    ENGINE_TRY(FindHoldersOfData());
    *out = sums_.Table();
    return Status();
  }

 private:
  using Kind = bool ExtentTreeLeaf::*;

  // Lists the leaves of the extent tree; how much there is to read is known from then on.
  Status ListLeaves() {
    const PhaseTimer timer(stats_, "finding the extent tree's leaves");
    ENGINE_TRY(ListExtentTreeLeaves(trees_, &leaves_));
    const auto unread = std::ranges::count_if(leaves_, [&](const ExtentTreeLeaf& leaf) {
      return !kept_.digests.Store().Find(leaf.bytenr, leaf.generation);
    });
    meter_.Expect(static_cast<uint64_t>(unread) * trees_.Reader().NodeSize());
    return Status();
  }

  Status FindHoldersOfTreeBlocks() {
    ENGINE_TRY(AddRoots());
    ENGINE_TRY(ReadLeaves(&ExtentTreeLeaf::treeBlocks, nullptr));
    const PhaseTimer timer(stats_, "tree blocks: who holds them");
    ENGINE_TRY(VisitExtents(&ExtentTreeLeaf::treeBlocks, [&](const ExtentDigest& extent) {
      if (extent.isTreeBlock) holders_.Add(extent);
      return Status();
    }));
    return holders_.Resolve();
  }

  // Relocation trees are known by their roots' own references.
  Status AddRoots() {
    for (size_t i = 0; i < request_.ids.size(); ++i) {
      CommittedTrees::Subvolume subvolume;
      ENGINE_TRY(trees_.FindAskedSubvolume(request_.ids[i], &subvolume));
      holders_.AddRoot(subvolume.root, HolderSets::Only(i));
    }
    return Status();
  }

  Status FindHoldersOfData() {
    NoteLeavesThatMatter();
    ENGINE_TRY(ReadLeaves(&ExtentTreeLeaf::data, [this](uint64_t bytenr) {
      return kept_.leaves.Find(bytenr).has_value();
    }));
    const PhaseTimer timer(stats_, "data: who holds it");
    HolderUnion together(sums_.Sets());
    return VisitExtents(&ExtentTreeLeaf::data, [&](const ExtentDigest& extent) {
      if (IsHandedOver(extent)) return CommittedTrees::DataIsHandedOver();
      return extent.isTreeBlock || extent.outside ? Status() : CountExtent(extent, &together);
    });
  }

  // Whether a subvolume, asked for or not, has been given the new place of what a balance moves:
  // others that share it may hold the old place still.
  static bool IsHandedOver(const ExtentDigest& extent) {
    return extent.moving != 0 && extent.moving != extent.refs;
  }

  // Data that is held by leaves which no asked subvolume reaches is left out of digests.  A leaf
  // that was there before and is reached only now may have been left out wrongly: then what was
  // chosen is forgotten.  Only a leaf marked FULL_BACKREF is named by what it holds; of the others
  // many come within reach whenever a passing snapshot of an asked subvolume goes.
  void NoteLeavesThatMatter() {
    bool missed = false;
    holders_.VisitLeaves([&](uint64_t bytenr, uint64_t generation, bool fullBackref) {
      if (kept_.leaves.Find(bytenr)) return;
      kept_.leaves.Set(bytenr, 0);
      missed = missed || (fullBackref && generation <= kept_.generation);
    });
    if (missed) kept_.digests.Store().DropFiltered();
    kept_.generation = trees_.Generation();
  }

  // One leaf that is not held, or holders that are too many, settle it.
  Status CountExtent(const ExtentDigest& extent, HolderUnion* together) {
    uint64_t found = 0;
    together->Clear();
    for (WordSpan parents = extent.parents; !parents.empty();) {
      const CountedAddress parent = TakeCounted(&parents);
      const std::optional<HolderId> holder = HolderOf(parent.bytenr);
      if (!holder) return Status();
      together->Add(*holder);
      if (sums_.AreTooMany(*together)) return Status();
      found += parent.count;
    }
    holders_.DataReferences().Take(extent.bytenr, [&](const HeldReference& reference) {
      together->Add(reference.holder);
      found += reference.count;
    });
    if (found > extent.refs)
      return Status::Failed("the extent at " + std::to_string(extent.bytenr) +
                            " has more references than its item counts; run btrfs check");
    if (found == extent.refs) sums_.AddData(together->Id(), extent.bytenr, extent.length);
    return Status();
  }

  // Neighbours often have the same parent.
  std::optional<HolderId> HolderOf(uint64_t leaf) {
    if (leaf != lastLeaf_) {
      lastLeaf_ = leaf;
      lastHolder_ = holders_.HolderOfLeaf(leaf);
    }
    return lastHolder_;
  }

  // Makes digests of all leaves of a kind that have none.
  Status ReadLeaves(Kind kind, const std::function<bool(uint64_t)>& leafMatters) {
    const PhaseTimer timer(stats_, "reading the extent tree");
    const DigestFilter filter{kept_.asked, leafMatters};
    const auto make = [&](const TreeBlockView& leaf, Words* digest) {
      return DigestExtentLeaf(leaf, trees_.Reader().NodeSize(), filter, digest);
    };
    std::vector<BlockPointer> pointers;
    for (const ExtentTreeLeaf& leaf : leaves_) {
      if (!(leaf.*kind) || kept_.digests.Store().Find(leaf.bytenr, leaf.generation)) continue;
      pointers.push_back({leaf.bytenr, leaf.generation, 0, {}});
      if (pointers.size() == DigestReader::kMostAtOnce)
        ENGINE_TRY(kept_.digests.Read(trees_.Reader(), &pointers, make, leafMatters != nullptr));
    }
    ENGINE_TRY(kept_.digests.Read(trees_.Reader(), &pointers, make, leafMatters != nullptr));
    return kept_.digests.Outcome();
  }

  // Gives the extents of all leaves of a kind to `visit`, in key order.  An extent that goes on in
  // leaves of the other kind alone is of that kind.
  Status VisitExtents(Kind kind, const ExtentJoiner::Sink& visit) {
    ExtentJoiner joiner(visit);
    bool gap = true;
    for (const ExtentTreeLeaf& leaf : leaves_) {
      const bool wanted = leaf.*kind;
      if (wanted) {
        const auto digest = kept_.digests.Store().Find(leaf.bytenr, leaf.generation);
        if (!digest) return ExtentTreeDamaged(leaf.bytenr, "two leaves lie in one place");
        ENGINE_TRY(gap ? joiner.TakeAfterGap(*digest) : joiner.Take(*digest));
      }
      gap = !wanted;
    }
    return gap ? Status() : joiner.Finish();
  }

  Kept& kept_;
  CommittedTrees& trees_;
  const SizeRequest& request_;
  ReadMeter& meter_;
  RunStats& stats_;
  SetSums sums_;
  BigArray<ExtentTreeLeaf> leaves_;
  TreeBlockHolders holders_;
  uint64_t lastLeaf_ = UINT64_MAX;
  std::optional<HolderId> lastHolder_;
};

ExtentTreeScan::ExtentTreeScan() = default;
ExtentTreeScan::~ExtentTreeScan() = default;

Status ExtentTreeScan::Run(CommittedTrees& trees, const SizeRequest& request,
                           SizeProgress& progress, SizeTable* out) {
  try {
    if (kept_ == nullptr) kept_ = std::make_unique<Kept>(request);
    const Status done = Pass(*kept_, trees, request, progress).Run(out);
    progress.stats.repairs = kept_->digests.BadBlocks() + kept_->blockDigests.BadBlocks();
    return done;
  } catch (const NoArrayMemory& error) {
    return Status::Failed(error.what());
  }
}

}  // namespace ZorvEngine
