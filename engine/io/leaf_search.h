// leaf_search.h: finds leaves of a tree from its nodes, without reading them one after the other.
#ifndef ENGINE_IO_LEAF_SEARCH_H_
#define ENGINE_IO_LEAF_SEARCH_H_

#include <functional>
#include <optional>
#include <vector>

#include "engine/io/block_reader.h"

namespace ZorvEngine {

// A block of a tree, with the first key that lies behind it; none behind the last block.
struct TreeBlockRange {
  BlockPointer pointer;
  std::optional<Key> end;
};

// Goes down from the root of a tree, a few nodes at a time, and finds the leaves below in key
// order.
class LeafSearch {
 public:
  // Whether a block, or what is below it, is wanted.
  using Wants = std::function<bool(const TreeBlockRange& block)>;

  // Takes neighbouring leaves, all that are wanted below one node; not read.
  using Sink = std::function<Status(const std::vector<TreeBlockRange>& leaves)>;

  // Without `wants` all blocks are wanted.
  LeafSearch(BlockReader& reader, Sink sink, Wants wants = nullptr)
      : reader_(reader), sink_(std::move(sink)), wants_(std::move(wants)) {}

  // Searches the tree with this root.  Fails at the first block that cannot be read, with the
  // sink's failure, and for nodes whose keys pass those of the node above.
  Status Run(const BlockPointer& root);

 private:
  Status VisitNodes(const std::vector<TreeBlockRange>& nodes);
  Status Visit(const std::vector<TreeBlockRange>& blocks);
  Status ChildrenOf(const TreeBlockView& node, const std::optional<Key>& end,
                    std::vector<TreeBlockRange>* out) const;

  BlockReader& reader_;
  Sink sink_;
  Wants wants_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_LEAF_SEARCH_H_
