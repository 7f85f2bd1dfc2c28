#include "engine/io/extent_tree_leaves.h"

#include <algorithm>

#include "engine/io/tree_cursor.h"

namespace ZorvEngine {
namespace {

// How many nodes are held in memory at a time.
constexpr size_t kNodesAtOnce = 64;

// Whether one of `ranges` has an address from `first` up to and including `last`.
bool Touches(const std::vector<LogicalRange>& ranges, uint64_t first, uint64_t last) {
  const auto range = std::ranges::upper_bound(ranges, first, {}, &LogicalRange::end);
  return range != ranges.end() && range->begin <= last;
}

// A block of the extent tree, with the highest address that its keys can have.
struct Below {
  BlockPointer pointer;
  uint64_t last;
};

class Lister {
 public:
  Lister(CommittedTrees& trees, BigArray<ExtentTreeLeaf>* out) : trees_(trees), out_(*out) {}

  Status Run() {
    const BlockPointer& root = trees_.ExtentRoot();
    if (root.level == 0) {
      out_.Add({root.bytenr, root.generation, true, true});
      return Status();
    }
    return VisitNodes({{root, UINT64_MAX}});
  }

 private:
  // Nodes of one level in key order; a few at a time are read together, then what is below them.
  Status VisitNodes(const std::vector<Below>& nodes) {
    for (size_t at = 0; at < nodes.size(); at += kNodesAtOnce) {
      const size_t end = std::min(nodes.size(), at + kNodesAtOnce);
      std::vector<std::vector<Below>> children(end - at);
      std::vector<BlockPointer> pointers;
      for (size_t i = at; i < end; ++i) pointers.push_back(nodes[i].pointer);
      ENGINE_TRY(trees_.Reader().ReadMany(pointers, [&](const TreeBlockView& node) {
        const auto found =
            std::ranges::find(pointers, node.Header().bytenr.Get(), &BlockPointer::bytenr);
        const auto index = static_cast<size_t>(found - pointers.begin());
        children[index] = ChildrenOf(node, nodes[at + index].last);
        return Status();
      }));
      for (const std::vector<Below>& below : children) ENGINE_TRY(Visit(below));
    }
    return Status();
  }

  Status Visit(const std::vector<Below>& blocks) {
    if (!blocks.empty() && blocks.front().pointer.level > 0) return VisitNodes(blocks);
    for (const Below& leaf : blocks) {
      const uint64_t first = leaf.pointer.firstKey->objectid;
      const bool treeBlocks = Touches(trees_.MetadataRanges(), first, leaf.last);
      const bool data = Touches(trees_.DataRanges(), first, leaf.last);
      if (treeBlocks || data)
        out_.Add({leaf.pointer.bytenr, leaf.pointer.generation, treeBlocks, data});
    }
    return Status();
  }

  static std::vector<Below> ChildrenOf(const TreeBlockView& node, uint64_t last) {
    std::vector<Below> children;
    for (uint32_t slot = 0; slot < node.Count(); ++slot) {
      const bool end = slot + 1 == node.Count();
      children.push_back({ChildPointer(node, slot), end ? last : node.KeyAt(slot + 1).objectid});
    }
    return children;
  }

  CommittedTrees& trees_;
  BigArray<ExtentTreeLeaf>& out_;
};

}  // namespace

Status ListExtentTreeLeaves(CommittedTrees& trees, BigArray<ExtentTreeLeaf>* out) {
  return Lister(trees, out).Run();
}

}  // namespace ZorvEngine
