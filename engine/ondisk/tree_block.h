// tree_block.h: one verified tree block, read through bounds that were checked once.
#ifndef ENGINE_ONDISK_TREE_BLOCK_H_
#define ENGINE_ONDISK_TREE_BLOCK_H_

#include <cstdint>
#include <optional>

#include "engine/ondisk/byte_view.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {

// A leaf or node over bytes that somebody else owns.  Parse proves that every item and pointer lies
// inside the block and that the keys rise, so that the accessors cannot leave it.
class TreeBlockView {
 public:
  // What is wrong with the block, in a few words for a message; null when it is sound.
  // Checks structure alone; checksum, place, generation and owner are the reader's to verify.
  static const char* Parse(ByteView block, std::optional<TreeBlockView>* out);

  // All bytes of the block.
  ByteView Bytes() const { return block_; }

  const BlockHeader& Header() const { return *header_; }
  uint8_t Level() const { return header_->level.Get(); }
  bool IsLeaf() const { return Level() == 0; }
  uint32_t Count() const { return count_; }

  // Key of the item or pointer at `slot` < Count().
  Key KeyAt(uint32_t slot) const {
    return IsLeaf() ? items_[slot].key.Get() : pointers_[slot].key.Get();
  }

  // Data of the item at `slot`; leaves only.
  ByteView DataAt(uint32_t slot) const;

  // Pointer at `slot`; nodes only.
  const KeyPointer& PointerAt(uint32_t slot) const { return pointers_[slot]; }

  // First slot whose key is not below `key`; Count() when there is none.
  uint32_t LowerBound(const Key& key) const;

 private:
  TreeBlockView(ByteView block, const BlockHeader* header, const LeafItem* items,
                const KeyPointer* pointers)
      : block_(block),
        header_(header),
        items_(items),
        pointers_(pointers),
        count_(header->nritems.Get()) {}

  static const char* CheckLeaf(ByteView block, const LeafItem* items, uint32_t count);

  ByteView block_;
  const BlockHeader* header_;
  const LeafItem* items_;       // null for nodes
  const KeyPointer* pointers_;  // null for leaves
  uint32_t count_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_TREE_BLOCK_H_
