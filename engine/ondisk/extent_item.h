// extent_item.h: what a leaf of the extent tree says of an extent and its references.
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

// What one leaf of the extent tree says of an extent: a tree block or a piece of data.
struct ExtentRecord {
  uint64_t bytenr = 0;
  // The extent's item stands in an earlier leaf; here are further references, and nothing else of
  // what follows is known but `found`.
  bool continued = false;
  uint64_t found = 0;   // references in this leaf, all kinds together
  uint64_t length = 0;  // bytes on disk
  uint64_t refs = 0;    // references that there are, in this leaf and later ones
  uint64_t generation = 0;
  uint8_t level = 0;  // of a tree block
  bool isTreeBlock = false;
  bool fullBackref = false;  // the block's children name it, not its owner, as their holder
  std::vector<ExtentReference> references;
};

// Puts extents together from the items of one leaf of the extent tree, given in key order.  What
// belongs to one extent may go on in the next leaf: then the last extent here has fewer references
// than its item counts, and the first one there is a continued one.
class ExtentAssembler {
 public:
  explicit ExtentAssembler(uint32_t nodeSize) : nodeSize_(nodeSize) {}

  // Takes the next item. `ended` is set to the extent that ended before it, or to null; it lives
  // until the next call. Returns what is wrong with the item or that extent; null when nothing is.
  const char* Take(const Key& key, ByteView data, const ExtentRecord** ended);

  // Ends the last extent of the leaf, as Take does for the others.
  const char* Finish(const ExtentRecord** ended);

 private:
  const char* Begin(const Key& key, ByteView data);
  const char* TakeInline(ByteView data, size_t offset);
  const char* TakeKeyed(const Key& key, ByteView data);
  void Open(uint64_t bytenr, bool continued);
  void End(const ExtentRecord** ended);
  void Add(ExtentReference::Kind kind, uint64_t holder, uint64_t count);

  uint32_t nodeSize_;
  bool open_ = false;  // an extent has begun and not ended
  bool seen_ = false;  // one has begun in this leaf
  ExtentRecord current_;
  ExtentRecord ended_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_EXTENT_ITEM_H_
