// extent_leaves.h: the leaves of the extent tree over chosen ranges, in key order, read ahead.
#ifndef ENGINE_IO_EXTENT_LEAVES_H_
#define ENGINE_IO_EXTENT_LEAVES_H_

#include <functional>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/io/chunk_map.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Reads the extent tree's leaves that speak of certain logical ranges: all below one node of level
// 1 at a time, in the order of their places, and gives them on in key order.
class ExtentLeaves {
 public:
  // Takes an item; its data lives during the call.
  using ItemSink = std::function<Status(const Key& key, ByteView data)>;

  // The reader is the caller's and outlives the object.
  ExtentLeaves(BlockReader& reader, const BlockPointer& extentRoot)
      : reader_(reader), root_(extentRoot) {}

  // Gives the items whose objects lie in `ranges` (sorted, apart) to `sink`, in key order.
  Status Visit(const std::vector<LogicalRange>& ranges, const ItemSink& sink);

 private:
  Status VisitBelow(const BlockPointer& pointer);
  Status VisitLeaves(const std::vector<BlockPointer>& leaves);
  Status VisitItems(const TreeBlockView& leaf);
  bool Wanted(const Key& first, const Key* next) const;

  BlockReader& reader_;
  BlockPointer root_;
  const std::vector<LogicalRange>* ranges_ = nullptr;
  const ItemSink* sink_ = nullptr;
};

}  // namespace ZorvEngine

#endif  // ENGINE_IO_EXTENT_LEAVES_H_
