#include "engine/size/extent_refs.h"

#include <algorithm>
#include <string>

#include "engine/io/tree_cursor.h"
#include "engine/ondisk/format.h"

namespace ZorvEngine {
namespace {

Status Damaged(uint64_t bytenr, const std::string& block, const char* what) {
  return Status::Failed("the extent tree is damaged at " + std::to_string(bytenr) + block + ": " +
                        what + "; run btrfs scrub and btrfs check");
}

Status NoItem(uint64_t bytenr) { return Damaged(bytenr, "", "an extent in use has no item"); }

Status DamagedItem(const TreeBlockView& leaf, uint32_t slot, const char* what) {
  return Damaged(leaf.KeyAt(slot).objectid,
                 " (tree block " + std::to_string(leaf.Header().bytenr.Get()) + ")", what);
}

// Above both keys that the item of the extent at `bytenr` may have, and not above what follows it.
Key KeyBehindItem(uint64_t bytenr) { return {bytenr, kMetadataItemType + 1, 0}; }

// The slot of a block where the item of the extent at `bytenr` is, or below which it is, if it is
// there.
Status SlotOf(uint64_t bytenr, const TreeBlockView& block, uint32_t* slot) {
  const uint32_t behind = block.LowerBound(KeyBehindItem(bytenr));
  if (behind == 0) return NoItem(bytenr);
  *slot = behind - 1;
  return Status();
}

// The first of the places from `begin` up to `end` that a node does not have below `slot`.
size_t EndOfSlot(const TreeBlockView& node, uint32_t slot, const std::vector<uint64_t>& places,
                 size_t begin, size_t end) {
  if (slot + 1 == node.Count()) return end;
  const Key next = node.KeyAt(slot + 1);
  const auto at = [&](size_t index) { return places.begin() + static_cast<ptrdiff_t>(index); };
  return static_cast<size_t>(
      std::partition_point(at(begin), at(end),
                           [&](uint64_t place) { return !(next < KeyBehindItem(place)); }) -
      places.begin());
}

Status ReadTreeBlockItem(const TreeBlockView& leaf, uint32_t slot, uint8_t level,
                         ExtentEntry* out) {
  const ByteView data = leaf.DataAt(slot);
  const ExtentItem* item = data.At<ExtentItem>(0);
  if (item == nullptr) return DamagedItem(leaf, slot, "an extent item is short");
  if ((item->flags.Get() & kExtentIsTreeBlock) == 0)
    return DamagedItem(leaf, slot, "a tree block is entered as data");

  uint64_t entered = leaf.KeyAt(slot).offset;
  if (leaf.KeyAt(slot).type == kExtentItemType) {
    const TreeBlockInfo* info = data.At<TreeBlockInfo>(sizeof(ExtentItem));
    if (info == nullptr) return DamagedItem(leaf, slot, "an extent item is short");
    entered = info->level.Get();
  }
  if (entered != level)
    return DamagedItem(leaf, slot, "a tree block is entered with another level");
  out->refs = item->refs.Get();
  return Status();
}

Status ReadDataItem(const TreeBlockView& leaf, uint32_t slot, ExtentEntry* out) {
  const ExtentItem* item = leaf.DataAt(slot).At<ExtentItem>(0);
  if (item == nullptr) return DamagedItem(leaf, slot, "an extent item is short");
  if (leaf.KeyAt(slot).type != kExtentItemType || (item->flags.Get() & kExtentIsData) == 0)
    return DamagedItem(leaf, slot, "data is entered as a tree block");
  *out = {item->refs.Get(), leaf.KeyAt(slot).offset};
  return Status();
}

}  // namespace

Status ExtentRefs::OfTreeBlocks(const std::vector<uint64_t>& places, uint8_t level,
                                std::vector<ExtentEntry>* out) {
  out->resize(places.size());
  return FindItems(places, [&](const TreeBlockView& leaf, uint32_t slot, size_t index) {
    return ReadTreeBlockItem(leaf, slot, level, &(*out)[index]);
  });
}

Status ExtentRefs::OfData(const std::vector<uint64_t>& places, std::vector<ExtentEntry>* out) {
  out->resize(places.size());
  return FindItems(places, [&](const TreeBlockView& leaf, uint32_t slot, size_t index) {
    return ReadDataItem(leaf, slot, &(*out)[index]);
  });
}

// Gives the item of each extent to `visit`; fails when one is missing.
Status ExtentRefs::FindItems(const std::vector<uint64_t>& places, const ItemVisitor& visit) {
  if (places.empty()) return Status();
  std::vector<Path> paths = {{root_, 0, places.size()}};
  for (int level = root_.level; level > 0; --level) {
    std::vector<Path> below;
    ENGINE_TRY(ReadPaths(std::move(paths), [&](const TreeBlockView& node, const Path& path) {
      return AddPathsBelow(node, path, places, &below);
    }));
    paths = std::move(below);
  }
  return ReadPaths(std::move(paths), [&](const TreeBlockView& leaf, const Path& path) {
    for (size_t at = path.begin; at < path.end; ++at) {
      uint32_t slot = 0;
      ENGINE_TRY(SlotOf(places[at], leaf, &slot));
      const Key key = leaf.KeyAt(slot);
      if (key.objectid != places[at] || key.type < kExtentItemType) return NoItem(places[at]);
      ENGINE_TRY(visit(leaf, slot, at));
    }
    return Status();
  });
}

// Deals the places of a node's path to the children that lead to them.
Status ExtentRefs::AddPathsBelow(const TreeBlockView& node, const Path& path,
                                 const std::vector<uint64_t>& places, std::vector<Path>* below) {
  for (size_t at = path.begin; at < path.end; at = below->back().end) {
    uint32_t slot = 0;
    ENGINE_TRY(SlotOf(places[at], node, &slot));
    below->push_back({ChildPointer(node, slot), at, EndOfSlot(node, slot, places, at, path.end)});
  }
  return Status();
}

// Reads the blocks and gives each to `visit` with its path.
Status ExtentRefs::ReadPaths(std::vector<Path> paths, const PathVisitor& visit) {
  const auto bytenrOf = [](const Path& path) { return path.pointer.bytenr; };
  std::ranges::sort(paths, {}, bytenrOf);
  std::vector<BlockPointer> pointers;
  pointers.reserve(paths.size());
  for (const Path& path : paths) pointers.push_back(path.pointer);

  ENGINE_TRY(limit_.Take(reader_, pointers));
  return reader_.ReadMany(pointers, [&](const TreeBlockView& block) {
    const uint64_t bytenr = block.Header().bytenr.Get();
    // More than one only in a damaged tree.
    for (auto path = std::ranges::lower_bound(paths, bytenr, {}, bytenrOf);
         path != paths.end() && path->pointer.bytenr == bytenr; ++path)
      ENGINE_TRY(visit(block, *path));
    return Status();
  });
}

}  // namespace ZorvEngine
