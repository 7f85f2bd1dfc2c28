#include "engine/io/extent_leaves.h"

#include <algorithm>

#include "engine/io/tree_cursor.h"

namespace ZorvEngine {
namespace {

// The first range that does not end before `address`.
std::vector<LogicalRange>::const_iterator RangeAt(const std::vector<LogicalRange>& ranges,
                                                  uint64_t address) {
  return std::upper_bound(ranges.begin(), ranges.end(), address,
                          [](uint64_t at, const LogicalRange& range) { return at < range.end; });
}

}  // namespace

Status ExtentLeaves::Visit(const std::vector<LogicalRange>& ranges, const ItemSink& sink) {
  ranges_ = &ranges;
  sink_ = &sink;
  return root_.level == 0 ? VisitLeaves({root_}) : VisitBelow(root_);
}

// Whether keys from `first` up to `next` (null: the end) can be of a range.
bool ExtentLeaves::Wanted(const Key& first, const Key* next) const {
  const auto range = RangeAt(*ranges_, first.objectid);
  return range != ranges_->end() && (next == nullptr || range->begin <= next->objectid);
}

Status ExtentLeaves::VisitBelow(const BlockPointer& pointer) {
  TreeBlockPtr block;
  ENGINE_TRY(reader_.Read(pointer, &block));
  const TreeBlockView& node = *block->view;
  std::vector<BlockPointer> wanted;
  for (uint32_t slot = 0; slot < node.Count(); ++slot) {
    const bool last = slot + 1 == node.Count();
    const Key next = last ? Key() : node.KeyAt(slot + 1);
    if (Wanted(node.KeyAt(slot), last ? nullptr : &next))
      wanted.push_back(ChildPointer(node, slot));
  }
  if (node.Level() == 1) return VisitLeaves(wanted);
  for (const BlockPointer& child : wanted) ENGINE_TRY(VisitBelow(child));
  return Status();
}

Status ExtentLeaves::VisitLeaves(const std::vector<BlockPointer>& leaves) {
  std::vector<TreeBlockPtr> blocks;
  ENGINE_TRY(reader_.ReadAll(leaves, &blocks));
  for (const TreeBlockPtr& block : blocks) ENGINE_TRY(VisitItems(*block->view));
  return Status();
}

Status ExtentLeaves::VisitItems(const TreeBlockView& leaf) {
  for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
    const Key key = leaf.KeyAt(slot);
    const auto range = RangeAt(*ranges_, key.objectid);
    if (range == ranges_->end() || key.objectid < range->begin) continue;
    ENGINE_TRY((*sink_)(key, leaf.DataAt(slot)));
  }
  return Status();
}

}  // namespace ZorvEngine
