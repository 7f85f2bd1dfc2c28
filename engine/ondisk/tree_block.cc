#include "engine/ondisk/tree_block.h"

namespace ZorvEngine {
namespace {

// Whether the keys of `count` entries rise strictly.
template <typename Entry>
bool KeysRise(const Entry* entries, uint32_t count) {
  for (uint32_t slot = 1; slot < count; ++slot)
    if (!(entries[slot - 1].key.Get() < entries[slot].key.Get())) return false;
  return true;
}

}  // namespace

const char* TreeBlockView::CheckLeaf(ByteView block, const LeafItem* items, uint32_t count) {
  if (!KeysRise(items, count)) return "its keys are out of order";

  ByteView body;
  if (!block.Sub(sizeof(BlockHeader), block.Size() - sizeof(BlockHeader), &body))
    return "it is short";
  const size_t itemsEnd = count * sizeof(LeafItem);
  for (uint32_t slot = 0; slot < count; ++slot) {
    ByteView data;
    const uint32_t offset = items[slot].offset.Get();
    if (offset < itemsEnd || !body.Sub(offset, items[slot].size.Get(), &data))
      return "an item lies outside it";
  }
  return nullptr;
}

const char* TreeBlockView::Parse(ByteView block, std::optional<TreeBlockView>* out) {
  const BlockHeader* header = block.At<BlockHeader>(0);
  if (header == nullptr) return "it is short";
  if (header->level.Get() > kMaxLevel) return "its level is impossible";

  const uint32_t count = header->nritems.Get();
  if (header->level.Get() == 0) {
    const LeafItem* items = block.At<LeafItem>(sizeof(BlockHeader), count);
    if (items == nullptr) return "it claims more items than fit";
    if (const char* wrong = CheckLeaf(block, items, count)) return wrong;
    *out = TreeBlockView(block, header, items, nullptr);
    return nullptr;
  }

  const KeyPointer* pointers = block.At<KeyPointer>(sizeof(BlockHeader), count);
  if (pointers == nullptr) return "it claims more pointers than fit";
  if (count == 0) return "it is a node without pointers";
  if (!KeysRise(pointers, count)) return "its keys are out of order";
  *out = TreeBlockView(block, header, nullptr, pointers);
  return nullptr;
}

ByteView TreeBlockView::DataAt(uint32_t slot) const {
  ByteView data;
  const LeafItem& item = items_[slot];
  (void)block_.Sub(sizeof(BlockHeader) + item.offset.Get(), item.size.Get(), &data);
  return data;
}

uint32_t TreeBlockView::LowerBound(const Key& key) const {
  uint32_t low = 0;
  uint32_t high = count_;
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (KeyAt(middle) < key)
      low = middle + 1;
    else
      high = middle;
  }
  return low;
}

}  // namespace ZorvEngine
