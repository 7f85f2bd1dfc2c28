#include "engine/size/inode_names.h"

#include <algorithm>

#include "engine/io/leaf_search.h"
#include "engine/size/damaged_item.h"

namespace ZorvEngine {
namespace {

using Inodes = std::span<const uint64_t>;

// The items of one inode that are names are neighbours.
Key FirstNameKey(uint64_t inode) { return {inode, kInodeRefType, 0}; }
Key LastNameKey(uint64_t inode) { return {inode, kInodeExtrefType, UINT64_MAX}; }

// Whether names of one of `inodes` may stand in the block.
bool MayHaveNamesOf(Inodes inodes, const TreeBlockRange& block) {
  auto next = inodes.begin();
  if (block.pointer.firstKey)
    next = std::ranges::partition_point(
        inodes, [&](uint64_t inode) { return LastNameKey(inode) < *block.pointer.firstKey; });
  return next != inodes.end() && (!block.end || FirstNameKey(*next) < *block.end);
}

Status TakeLeaf(const TreeBlockView& leaf, Inodes inodes, const NameSink& sink) {
  for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
    const Key key = leaf.KeyAt(slot);
    if (key.type != kInodeRefType && key.type != kInodeExtrefType) continue;
    if (!std::ranges::binary_search(inodes, key.objectid)) continue;
    const char* wrong = VisitFileNames(key, leaf.DataAt(slot),
                                       [&](const FileName& name) { sink(key.objectid, name); });
    if (wrong != nullptr) return DamagedItem(leaf, slot, wrong);
  }
  return Status();
}

}  // namespace

Status VisitNamesOf(BlockReader& reader, const BlockPointer& root, Inodes inodes,
                    const NameSink& sink) {
  const auto read = [&](const std::vector<TreeBlockRange>& leaves) {
    std::vector<BlockPointer> pointers;
    for (const TreeBlockRange& leaf : leaves) pointers.push_back(leaf.pointer);
    return reader.ReadMany(pointers,
                           [&](const TreeBlockView& leaf) { return TakeLeaf(leaf, inodes, sink); });
  };
  return LeafSearch(reader, read,
                    [&](const TreeBlockRange& block) { return MayHaveNamesOf(inodes, block); })
      .Run(root);
}

}  // namespace ZorvEngine
