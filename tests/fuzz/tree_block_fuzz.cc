// A tree block of any size and content, and every decoder that takes one.
#include <optional>

#include "engine/ondisk/tree_block.h"
#include "engine/size/file_extents.h"
#include "engine/size/leaf_digest.h"
#include "tests/fuzz/guarded_bytes.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

void LookAtSlots(const TreeBlockView& block, const GuardedBytes& bytes) {
  FUZZ_LAW(block.Level() <= kMaxLevel && (block.IsLeaf() || block.Count() > 0));
  for (uint32_t slot = 0; slot < block.Count(); ++slot) {
    const Key key = block.KeyAt(slot);
    FUZZ_LAW(slot == 0 || block.KeyAt(slot - 1) < key);
    FUZZ_LAW(block.LowerBound(key) == slot);
    Key next = key;
    FUZZ_LAW(!Increment(&next) || block.LowerBound(next) == slot + 1);
    if (block.IsLeaf()) {
      FUZZ_LAW(bytes.Holds(block.DataAt(slot)));
    } else {
      (void)block.PointerAt(slot).generation.Get();
    }
  }
}

// Lower 12 bits are free in addresses that a digest gives.
void ExpectAddresses(WordSpan row) {
  while (!row.empty()) FUZZ_LAW((TakeCounted(&row).bytenr & 4095) == 0);
}

void Digest(const TreeBlockView& block) {
  Words own;
  const Status done = DigestOwnBlock(block, &own);
  FUZZ_LAW(done.Ok() == done.Text().empty());
  if (done.Ok()) ExpectAddresses(own);
  if (!done.Ok())
    FUZZ_LAW(done.Text().find(std::to_string(block.Header().bytenr.Get())) != std::string::npos);
}

void DigestAsExtentTree(const TreeBlockView& leaf) {
  static const std::vector<uint64_t> asked = {5, 256, 257};
  Words words;
  if (!DigestExtentLeaf(leaf, static_cast<uint32_t>(leaf.Bytes().Size()), {asked, {}}, &words).Ok())
    return;
  ExtentJoiner joiner([](const ExtentDigest& extent) {
    FUZZ_LAW(extent.found == extent.refs);
    ExpectAddresses(extent.parents);
    return Status();
  });
  if (joiner.Take(words).Ok()) (void)joiner.Finish();
}

}  // namespace

FUZZ_TARGET(tree_block) {
  if (input.size() > 65536) return;
  const GuardedBytes bytes(input);
  std::optional<TreeBlockView> block;
  const char* const wrong = TreeBlockView::Parse(bytes.View(), &block);
  FUZZ_LAW((wrong == nullptr) == block.has_value());
  if (wrong != nullptr) return;
  LookAtSlots(*block, bytes);
  Digest(*block);
  if (block->IsLeaf()) DigestAsExtentTree(*block);
}
