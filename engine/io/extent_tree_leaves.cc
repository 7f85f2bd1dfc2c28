#include "engine/io/extent_tree_leaves.h"

#include <algorithm>

#include "engine/io/leaf_search.h"

namespace ZorvEngine {
namespace {

// Whether one of `ranges` has an address from `first` up to and including `last`.
bool Touches(const std::vector<LogicalRange>& ranges, uint64_t first, uint64_t last) {
  const auto range = std::ranges::upper_bound(ranges, first, {}, &LogicalRange::end);
  return range != ranges.end() && range->begin <= last;
}

// What a leaf can speak of, by its keys.  That of a tree which is one leaf can speak of all.
ExtentTreeLeaf LeafOf(const CommittedTrees& trees, const TreeBlockRange& leaf) {
  const uint64_t first = leaf.pointer.firstKey ? leaf.pointer.firstKey->objectid : 0;
  const uint64_t last = leaf.end ? leaf.end->objectid : UINT64_MAX;
  return {leaf.pointer.bytenr, leaf.pointer.generation,
          Touches(trees.MetadataRanges(), first, last), Touches(trees.DataRanges(), first, last)};
}

}  // namespace

Status ListExtentTreeLeaves(CommittedTrees& trees, BigArray<ExtentTreeLeaf>* out) {
  const auto add = [&](const std::vector<TreeBlockRange>& leaves) {
    for (const TreeBlockRange& range : leaves) {
      const ExtentTreeLeaf leaf = LeafOf(trees, range);
      if (leaf.treeBlocks || leaf.data) out->Add(leaf);
    }
    return Status();
  };
  return LeafSearch(trees.Reader(), add).Run(trees.ExtentRoot());
}

}  // namespace ZorvEngine
