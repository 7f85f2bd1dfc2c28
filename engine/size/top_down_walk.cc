#include "engine/size/top_down_walk.h"

#include <algorithm>
#include <string>

#include "engine/io/tree_cursor.h"
#include "engine/size/extent_refs.h"
#include "engine/size/file_extents.h"
#include "engine/size/set_sums.h"

namespace ZorvEngine {
namespace {

// The walk of one subvolume.
class SubvolumeWalk {
 public:
  SubvolumeWalk(CommittedTrees& trees, HolderId holder, SetSums& sums)
      : reader_(trees.Reader()),
        refs_(trees.Reader(), trees.ExtentRoot()),
        holder_(holder),
        sums_(sums) {}

  Status Run(const BlockPointer& root) {
    level_.assign(1, root);
    for (int level = root.level; level >= 0 && !level_.empty(); --level) {
      ENGINE_TRY(DropShared());
      CountTreeBlocks();
      ENGINE_TRY(ReadLevel());
    }
    return CountData();
  }

 private:
  // Leaves those blocks of the level that nobody else refers to.
  Status DropShared() {
    std::sort(level_.begin(), level_.end(),
              [](const BlockPointer& a, const BlockPointer& b) { return a.bytenr < b.bytenr; });
    size_t kept = 0;
    for (size_t i = 0; i < level_.size(); ++i) {
      uint64_t refs = 0;
      ENGINE_TRY(refs_.OfTreeBlock(level_[i].bytenr, level_[i].level, &refs));
      if (refs == 1) level_[kept++] = level_[i];
    }
    level_.resize(kept);
    return Status();
  }

  void CountTreeBlocks() {
    for (const BlockPointer& block : level_)
      sums_.AddTreeBlock(holder_, block.bytenr, reader_.NodeSize());
  }

  // Replaces the level by the children of its blocks; of leaves, takes the references to data.
  Status ReadLevel() {
    std::vector<BlockPointer> children;
    const Status read = reader_.ReadMany(level_, [&](const TreeBlockView& block) {
      if (block.IsLeaf()) return TakeLeaf(block);
      for (uint32_t slot = 0; slot < block.Count(); ++slot)
        children.push_back(ChildPointer(block, slot));
      return Status();
    });
    level_ = std::move(children);
    return read;
  }

  // Notes each reference to a data extent, whatever part of it the file uses.
  Status TakeLeaf(const TreeBlockView& leaf) {
    return VisitFileExtents(leaf, [&](uint64_t bytenr) { dataReferences_.push_back(bytenr); });
  }

  // Counts the extents all of whose references were noted.
  Status CountData() {
    std::sort(dataReferences_.begin(), dataReferences_.end());
    for (size_t at = 0; at < dataReferences_.size();) {
      const uint64_t bytenr = dataReferences_[at];
      uint64_t noted = 0;
      for (; at < dataReferences_.size() && dataReferences_[at] == bytenr; ++at) ++noted;

      uint64_t refs = 0;
      uint64_t length = 0;
      ENGINE_TRY(refs_.OfData(bytenr, &refs, &length));
      if (noted > refs)
        return Status::Failed("the extent at " + std::to_string(bytenr) +
                              " has more references than its item counts; run btrfs check");
      if (noted < refs) continue;
      sums_.AddData(holder_, bytenr, length);
    }
    return Status();
  }

  BlockReader& reader_;
  ExtentRefs refs_;
  const HolderId holder_;
  SetSums& sums_;
  std::vector<BlockPointer> level_;
  std::vector<uint64_t> dataReferences_;
};

}  // namespace

Status TopDownWalk::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                        SizeTable* out) {
  SetSums sums(request, trees, progress);
  size_t position = 0;
  for (const uint64_t id : request.ids) {
    CommittedTrees::Subvolume subvolume;
    ENGINE_TRY(trees.FindAskedSubvolume(id, &subvolume));
    SubvolumeWalk walk(trees, HolderSets::Only(position++), sums);
    ENGINE_TRY(walk.Run(subvolume.root));
  }
  *out = sums.Table();
  return Status();
}

}  // namespace ZorvEngine
