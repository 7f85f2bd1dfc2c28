// tree_cursor.h: walks the items of one tree in key order.
#ifndef ENGINE_IO_TREE_CURSOR_H_
#define ENGINE_IO_TREE_CURSOR_H_

#include <vector>

#include "engine/io/block_reader.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {

// A position among the items of a tree.  Searching keys in rising order is cheap: a search that
// ends in the leaf of the last one does not go down again.
class TreeCursor {
 public:
  TreeCursor(BlockReader& reader, const BlockPointer& root) : reader_(reader), root_(root) {}

  // Goes to the first item whose key is not below `key`.
  Status Seek(const Key& key);

  // Goes to the next item.  Only when AtItem().
  Status Next();

  // Whether there is an item here; false after the last.
  bool AtItem() const { return atItem_; }
  Key ItemKey() const { return Leaf().KeyAt(path_.back().slot); }
  uint32_t ItemSlot() const { return path_.back().slot; }
  ByteView ItemData() const { return Leaf().DataAt(path_.back().slot); }

  // Number of the leaf's block, for messages.  Only when AtItem().
  uint64_t BlockNumber() const { return Leaf().Header().bytenr.Get(); }

 private:
  struct Step {
    TreeBlockPtr block;
    uint32_t slot;
  };

  const TreeBlockView& Leaf() const { return *path_.back().block->view; }
  bool LeafCovers(const Key& key) const;
  Status Descend(BlockPointer pointer, const Key& key);
  Status SettleOnItem();

  BlockReader& reader_;
  BlockPointer root_;
  std::vector<Step> path_;  // root to leaf
  bool atItem_ = false;
};

// The pointer in slot `slot` of a node.
BlockPointer ChildPointer(const TreeBlockView& node, uint32_t slot);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_TREE_CURSOR_H_
