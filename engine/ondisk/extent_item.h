// extent_item.h: an extent of the extent tree with all its references.
#ifndef ENGINE_ONDISK_EXTENT_ITEM_H_
#define ENGINE_ONDISK_EXTENT_ITEM_H_

#include <cstdint>
#include <vector>

#include "engine/ondisk/byte_view.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {

// One or more references of the same kind to an extent.
struct ExtentReference {
  enum Kind {
    kTree,      // from the tree with root ID `holder`: one pointer in a block that it owns
    kBlock,     // from the node at address `holder`
    kFile,      // from files of the tree with root ID `holder`, in leaves that it owns
    kLeafData,  // from the leaf at address `holder`
  };
  Kind kind;
  uint64_t holder;
  uint64_t count;
};

// What the extent tree says of one extent: a tree block or a piece of data.
struct ExtentRecord {
  uint64_t bytenr = 0;
  uint64_t length = 0;  // bytes on disk
  uint64_t refs = 0;    // references, all kinds together
  uint64_t generation = 0;
  uint8_t level = 0;  // of a tree block
  bool isTreeBlock = false;
  bool fullBackref = false;  // the block's children name it, not its owner, as their holder
  std::vector<ExtentReference> references;
};

// Puts extents together from the items of the extent tree, given in key order: what belongs to one
// extent may be spread over several leaves.
class ExtentAssembler {
 public:
  explicit ExtentAssembler(uint32_t nodeSize) : nodeSize_(nodeSize) {}

  // Takes the next item. `complete` is set to the extent that ended before it, or to null; it lives
  // until the next call. Returns what is wrong with the item or that extent; null when nothing is.
  const char* Take(const Key& key, ByteView data, const ExtentRecord** complete);

  // Ends the last extent, as Take does for the others.
  const char* Finish(const ExtentRecord** complete);

 private:
  const char* Begin(const Key& key, ByteView data);
  const char* TakeInline(ByteView data, size_t offset);
  const char* TakeKeyed(const Key& key, ByteView data);
  void Add(ExtentReference::Kind kind, uint64_t holder, uint64_t count);

  uint32_t nodeSize_;
  bool open_ = false;
  uint64_t found_ = 0;  // references added to `current_`
  ExtentRecord current_;
  ExtentRecord ended_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_EXTENT_ITEM_H_
