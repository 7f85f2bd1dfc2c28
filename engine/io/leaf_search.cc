#include "engine/io/leaf_search.h"

#include <algorithm>
#include <string>

#include "engine/io/tree_cursor.h"

namespace ZorvEngine {
namespace {

// How many nodes are held in memory at a time.
constexpr size_t kNodesAtOnce = 64;

}  // namespace

Status LeafSearch::Run(const BlockPointer& root) {
  const TreeBlockRange all{root, {}};
  return wants_ && !wants_(all) ? Status() : Visit({all});
}

// Nodes of one level in key order; a few at a time are read together, then what is below them.
Status LeafSearch::VisitNodes(const std::vector<TreeBlockRange>& nodes) {
  for (size_t at = 0; at < nodes.size(); at += kNodesAtOnce) {
    const size_t end = std::min(nodes.size(), at + kNodesAtOnce);
    std::vector<std::vector<TreeBlockRange>> children(end - at);
    std::vector<BlockPointer> pointers;
    for (size_t i = at; i < end; ++i) pointers.push_back(nodes[i].pointer);
    ENGINE_TRY(reader_.ReadMany(pointers, [&](const TreeBlockView& node) {
      const auto found =
          std::ranges::find(pointers, node.Header().bytenr.Get(), &BlockPointer::bytenr);
      const auto index = static_cast<size_t>(found - pointers.begin());
      return ChildrenOf(node, nodes[at + index].end, &children[index]);
    }));
    for (const std::vector<TreeBlockRange>& below : children) ENGINE_TRY(Visit(below));
  }
  return Status();
}

Status LeafSearch::Visit(const std::vector<TreeBlockRange>& blocks) {
  if (blocks.empty()) return Status();
  return blocks.front().pointer.level > 0 ? VisitNodes(blocks) : sink_(blocks);
}

// A node whose keys pass its end is refused: damaged nodes could share what is below them, so that
// the few of them lead to leaves without number.
Status LeafSearch::ChildrenOf(const TreeBlockView& node, const std::optional<Key>& end,
                              std::vector<TreeBlockRange>* out) const {
  if (end && !(node.KeyAt(node.Count() - 1) < *end))
    return Status::Failed("tree block " + std::to_string(node.Header().bytenr.Get()) +
                          " has keys that belong behind it; run btrfs check");
  for (uint32_t slot = 0; slot < node.Count(); ++slot) {
    const bool isLast = slot + 1 == node.Count();
    TreeBlockRange child{ChildPointer(node, slot), isLast ? end : node.KeyAt(slot + 1)};
    if (!wants_ || wants_(child)) out->push_back(child);
  }
  return Status();
}

}  // namespace ZorvEngine
