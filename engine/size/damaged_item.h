// damaged_item.h: the failure of an item that does not make sense in a block that verifies.
#ifndef ENGINE_SIZE_DAMAGED_ITEM_H_
#define ENGINE_SIZE_DAMAGED_ITEM_H_

#include <cstdint>
#include <string>

#include "engine/io/tree_cursor.h"
#include "engine/ondisk/status.h"
#include "engine/ondisk/tree_block.h"

namespace ZorvEngine {

// `what` says what the item is or has.
inline Status DamagedItem(uint64_t block, uint32_t slot, const char* what) {
  return Status::Failed("item " + std::to_string(slot) + " of tree block " + std::to_string(block) +
                        " " + what + "; run btrfs scrub and btrfs check");
}
inline Status DamagedItem(const TreeBlockView& leaf, uint32_t slot, const char* what) {
  return DamagedItem(leaf.Header().bytenr.Get(), slot, what);
}
inline Status DamagedItem(const TreeCursor& cursor, const char* what) {
  return DamagedItem(cursor.BlockNumber(), cursor.ItemSlot(), what);
}

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_DAMAGED_ITEM_H_
