// extent_refs.h: how often an extent is referenced, from the extent tree.
#ifndef ENGINE_SIZE_EXTENT_REFS_H_
#define ENGINE_SIZE_EXTENT_REFS_H_

#include <cstdint>

#include "engine/io/tree_cursor.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Look-ups in the extent tree.  Ask in rising order of addresses: then each leaf is read once.
class ExtentRefs {
 public:
  ExtentRefs(BlockReader& reader, const BlockPointer& extentRoot) : cursor_(reader, extentRoot) {}

  // References of the tree block at `bytenr`.  Fails when there is no such item, when it is that of
  // a data extent, or of another level.
  Status OfTreeBlock(uint64_t bytenr, uint8_t level, uint64_t* refs);

  // References and length on disk of the data extent at `bytenr`.
  Status OfData(uint64_t bytenr, uint64_t* refs, uint64_t* length);

 private:
  Status Find(uint64_t bytenr, const ExtentItem** item);
  Status Damaged(uint64_t bytenr, const char* what) const;

  TreeCursor cursor_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXTENT_REFS_H_
