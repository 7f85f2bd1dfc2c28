// extent_refs.h: how often extents are referenced, from the extent tree.
#ifndef ENGINE_SIZE_EXTENT_REFS_H_
#define ENGINE_SIZE_EXTENT_REFS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/ondisk/status.h"
#include "engine/size/block_limit.h"

namespace ZorvEngine {

// What the extent tree says of one extent.
struct ExtentEntry {
  uint64_t refs = 0;
  uint64_t length = 0;  // bytes on disk; of data only
};

// Look-ups in the extent tree, many at a time: from its root down, level by level, only the blocks
// that lead to one of the extents, each once, in the order of their places on the devices.
//
// Memory of a look-up: what the caller gives and gets (24 bytes for each extent), and about 150
// bytes for each block of one level that leads to some.
class ExtentRefs {
 public:
  // Extents that callers look up together, when they have more.
  static constexpr size_t kBatch = 256u << 10;

  // Reader and limit are the caller's and outlive the object; blocks that are read count for the
  // limit.
  ExtentRefs(BlockReader& reader, const BlockPointer& extentRoot, BlockLimit& limit)
      : reader_(reader), root_(extentRoot), limit_(limit) {}

  // Looks up the tree blocks of `level` at `places`, which rise; `out` gets an entry for each.
  // Fails when one has no item, or that of a data extent or of another level.
  Status OfTreeBlocks(const std::vector<uint64_t>& places, uint8_t level,
                      std::vector<ExtentEntry>* out);

  // Likewise the data extents at `places`.
  Status OfData(const std::vector<uint64_t>& places, std::vector<ExtentEntry>* out);

 private:
  // A block and the places that it leads to: those from `begin` up to `end`.
  struct Path {
    BlockPointer pointer;
    size_t begin;
    size_t end;
  };
  using PathVisitor = std::function<Status(const TreeBlockView& block, const Path& path)>;

  // Takes the item that is found for the place at `index`, in a leaf.
  using ItemVisitor = std::function<Status(const TreeBlockView& leaf, uint32_t slot, size_t index)>;

  Status FindItems(const std::vector<uint64_t>& places, const ItemVisitor& visit);
  static Status AddPathsBelow(const TreeBlockView& node, const Path& path,
                              const std::vector<uint64_t>& places, std::vector<Path>* below);
  Status ReadPaths(std::vector<Path> paths, const PathVisitor& visit);

  BlockReader& reader_;
  BlockPointer root_;
  BlockLimit& limit_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXTENT_REFS_H_
