#include "engine/io/extent_tree_leaves.h"

#include <algorithm>
#include <optional>
#include <string>

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

// A block of the extent tree, with the first key that lies behind it; none behind the last block.
struct Below {
  BlockPointer pointer;
  std::optional<Key> end;
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
    return VisitNodes({{root, {}}});
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
        return ChildrenOf(node, nodes[at + index].end, &children[index]);
      }));
      for (const std::vector<Below>& below : children) ENGINE_TRY(Visit(below));
    }
    return Status();
  }

  Status Visit(const std::vector<Below>& blocks) {
    if (!blocks.empty() && blocks.front().pointer.level > 0) return VisitNodes(blocks);
    for (const Below& leaf : blocks) {
      const uint64_t first = leaf.pointer.firstKey->objectid;
      const uint64_t last = leaf.end ? leaf.end->objectid : UINT64_MAX;
      const bool treeBlocks = Touches(trees_.MetadataRanges(), first, last);
      const bool data = Touches(trees_.DataRanges(), first, last);
      if (treeBlocks || data)
        out_.Add({leaf.pointer.bytenr, leaf.pointer.generation, treeBlocks, data});
    }
    return Status();
  }

  // A node whose keys pass its end is refused: damaged nodes could share what is below them, so
  // that the few of them lead to leaves without number.
  static Status ChildrenOf(const TreeBlockView& node, const std::optional<Key>& end,
                           std::vector<Below>* out) {
    if (end && !(node.KeyAt(node.Count() - 1) < *end))
      return Status::Failed("tree block " + std::to_string(node.Header().bytenr.Get()) +
                            " has keys that belong behind it; run btrfs check");
    for (uint32_t slot = 0; slot < node.Count(); ++slot) {
      const bool isLast = slot + 1 == node.Count();
      out->push_back({ChildPointer(node, slot), isLast ? end : node.KeyAt(slot + 1)});
    }
    return Status();
  }

  CommittedTrees& trees_;
  BigArray<ExtentTreeLeaf>& out_;
};

}  // namespace

Status ListExtentTreeLeaves(CommittedTrees& trees, BigArray<ExtentTreeLeaf>* out) {
  return Lister(trees, out).Run();
}

}  // namespace ZorvEngine
