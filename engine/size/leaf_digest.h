// leaf_digest.h: what the scan keeps of a tree block that it has read, as a row of 64-bit words.
#ifndef ENGINE_SIZE_LEAF_DIGEST_H_
#define ENGINE_SIZE_LEAF_DIGEST_H_

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "engine/ondisk/extent_item.h"
#include "engine/ondisk/status.h"
#include "engine/ondisk/tree_block.h"

namespace ZorvEngine {

using Words = std::vector<uint64_t>;
using WordSpan = std::span<const uint64_t>;

// References to or from an address.
struct CountedAddress {
  uint64_t bytenr = 0;
  uint64_t count = 0;
};

// A row of addresses with counts, one word each as long as the count is below 4096: addresses are
// multiples of that.
void AppendCounted(const CountedAddress& address, Words* words);

// Takes the first of the row off it; `words` must not be empty.
CountedAddress TakeCounted(WordSpan* words);

// An extent that may belong to the subvolumes asked for, as one leaf of the extent tree shows it,
// or as several do together.
struct ExtentDigest {
  uint64_t bytenr = 0;
  bool isTreeBlock = false;
  bool fullBackref = false;
  bool outside = false;     // somebody who was not asked for holds it by name
  bool asked = false;       // somebody who was asked for holds it by name
  bool continued = false;   // its item stands in an earlier leaf
  uint8_t level = 0;        // of a tree block
  uint64_t length = 0;      // of data, in bytes
  uint64_t generation = 0;  // of a tree block
  uint64_t refs = 0;        // references that there are
  uint64_t found = 0;       // references found, of any kind
  uint64_t moving = 0;      // of these, from data that a balance moves
  WordSpan parents;         // blocks that hold it, a counted row
};

// Which extents of a leaf of the extent tree are worth keeping.  Extents that somebody outside
// holds by name are not, but for tree blocks that other blocks hold too, and data that a balance
// moves.
struct DigestFilter {
  // Root IDs of the trees that are asked for, rising.
  const std::vector<uint64_t>& asked;
  // Whether data that the leaf at an address holds can matter; none: all does.
  std::function<bool(uint64_t bytenr)> leafMatters;
};

// Makes the digest of a leaf of the extent tree.  Fails when the leaf does not make sense.
Status DigestExtentLeaf(const TreeBlockView& leaf, uint32_t nodeSize, const DigestFilter& filter,
                        Words* out);

// Makes the digest of a block of a subvolume: the addresses that it refers to, as a counted row.
Status DigestOwnBlock(const TreeBlockView& block, Words* out);

// Gives the extents of leaves on, by rising addresses, each put together from all leaves that speak
// of it.  Fails when addresses do not rise, from leaf to leaf too.
class ExtentJoiner {
 public:
  // Takes an extent; it lives during the call.
  using Sink = std::function<Status(const ExtentDigest& extent)>;

  explicit ExtentJoiner(Sink sink) : sink_(std::move(sink)) {}

  // Takes the digest of the next leaf.
  Status Take(WordSpan digest);

  // Takes the digest of a leaf after others that were left out.  What it goes on with from there is
  // left out too, and so is what was to go on there.
  Status TakeAfterGap(WordSpan digest);

  // Ends the last extent, when no leaf was left out after it.
  Status Finish();

 private:
  Status TakeExtent(const ExtentDigest& extent);
  Status Continue(const ExtentDigest& more);

  Sink sink_;
  uint64_t lowest_ = 0;   // address that the next extent can have
  bool pending_ = false;  // one that may go on in the next leaf:
  ExtentDigest open_;
  Words openParents_;
};

// The failure of a damaged extent tree; `what` says what is wrong at `bytenr`.
Status ExtentTreeDamaged(uint64_t bytenr, const char* what);

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_LEAF_DIGEST_H_
