#include "engine/io/tree_cursor.h"

#include <string>

namespace ZorvEngine {

BlockPointer ChildPointer(const TreeBlockView& node, uint32_t slot) {
  const KeyPointer& pointer = node.PointerAt(slot);
  return BlockPointer{pointer.bytenr.Get(), pointer.generation.Get(),
                      static_cast<uint8_t>(node.Level() - 1), pointer.key.Get()};
}

// Whether the first item not below `key` is certainly in the leaf of the last search.
bool TreeCursor::LeafCovers(const Key& key) const {
  if (path_.empty() || !path_.back().block->view->IsLeaf()) return false;
  const TreeBlockView& leaf = Leaf();
  return leaf.Count() > 0 && !(key < leaf.KeyAt(0)) && !(leaf.KeyAt(leaf.Count() - 1) < key);
}

Status TreeCursor::Seek(const Key& key) {
  if (LeafCovers(key)) {
    path_.back().slot = Leaf().LowerBound(key);
    atItem_ = true;
    return Status();
  }
  atItem_ = false;
  path_.clear();
  ENGINE_TRY(Descend(root_, key));
  return SettleOnItem();
}

Status TreeCursor::Next() {
  ++path_.back().slot;
  return SettleOnItem();
}

// Goes from the block at `pointer` down to the leaf where `key` is or would be.
Status TreeCursor::Descend(BlockPointer pointer, const Key& key) {
  for (;;) {
    TreeBlockPtr block;
    const Status read = reader_.Read(pointer, &block);
    if (!read.Ok()) {
      path_.clear();  // a half-built path is no position
      return read;
    }
    const TreeBlockView& view = *block->view;
    uint32_t slot = view.LowerBound(key);
    if (!view.IsLeaf() && (slot == view.Count() || view.KeyAt(slot) != key) && slot > 0) --slot;
    path_.push_back({block, slot});
    if (view.IsLeaf()) return Status();
    pointer = ChildPointer(view, slot);
  }
}

// Moves on from the end of a leaf to the next leaf with an item.  Its keys must be higher: damaged
// nodes could share what is below them, so that the way through a few of them has no end.
Status TreeCursor::SettleOnItem() {
  atItem_ = false;
  while (path_.back().slot >= Leaf().Count()) {
    const Key last = Leaf().Count() > 0 ? Leaf().KeyAt(Leaf().Count() - 1) : Key();
    path_.pop_back();
    while (!path_.empty() && path_.back().slot + 1 >= path_.back().block->view->Count())
      path_.pop_back();
    if (path_.empty()) return Status();
    ++path_.back().slot;
    ENGINE_TRY(Descend(ChildPointer(*path_.back().block->view, path_.back().slot), Key()));
    if (Leaf().Count() == 0 || last < Leaf().KeyAt(0)) continue;
    const uint64_t bytenr = BlockNumber();
    path_.clear();
    return Status::Failed("tree block " + std::to_string(bytenr) +
                          " has keys that belong before it; run btrfs check");
  }
  atItem_ = true;
  return Status();
}

}  // namespace ZorvEngine
