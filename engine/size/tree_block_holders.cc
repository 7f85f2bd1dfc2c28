#include "engine/size/tree_block_holders.h"

#include <string>

namespace ZorvEngine {

TreeBlockHolders::TreeBlockHolders(BlockReader& reader, DigestReader& digests, ArrayMemory& memory,
                                   SetSums& sums)
    : reader_(reader),
      digests_(digests),
      memory_(memory),
      sums_(sums),
      union_(sums.Sets()),
      blocks_(memory),
      parents_(memory),
      numbers_(memory),
      leafHolders_(memory),
      data_(memory) {
  for (int level = 0; level <= kMaxLevel; ++level) {
    levels_.emplace_back(memory);
    references_.emplace_back(memory);
  }
}

void TreeBlockHolders::AddRoot(const BlockPointer& root, HolderId holder) {
  references_[root.level].Add({root.bytenr, holder, 1});
}

void TreeBlockHolders::Add(const ExtentDigest& block) {
  const auto number = static_cast<uint32_t>(blocks_.Size());
  blocks_.Add({block.bytenr, block.generation, block.refs, parents_.Size(), HolderSets::kNobody,
               block.level, block.fullBackref, block.outside, block.asked, false});
  for (const uint64_t word : block.parents) parents_.Add(word);
  if (block.level > 0) numbers_.Set(block.bytenr, number);
  levels_[block.level].Add(number);
}

Status TreeBlockHolders::Resolve() {
  for (int level = kMaxLevel; level >= 0; --level) ENGINE_TRY(ResolveLevel(level));
  data_.Sort();
  return Status();
}

// The parents of these blocks are all resolved.
Status TreeBlockHolders::ResolveLevel(int level) {
  references_[level].Sort();
  BigArray<uint32_t> toRead(memory_);
  for (const uint32_t number : levels_[level]) {
    ENGINE_TRY(ResolveBlock(number));
    if (blocks_[number].held && !blocks_[number].fullBackref) toRead.Add(number);
  }
  references_[level].Clear();
  ENGINE_TRY(ReadBlocks(toRead));
  TakeReferences(toRead);
  return Status();
}

Status TreeBlockHolders::ResolveBlock(uint32_t number) {
  Block& block = blocks_[number];
  const uint64_t found = AddUpReferences(number);
  if (found > block.refs)
    return Status::Failed("the tree block at " + std::to_string(block.bytenr) +
                          " has more references than its item counts; run btrfs check");
  block.held = !block.outside && found == block.refs && !IsLeafOfTooMany(block);
  if (!block.held) return Status();
  block.holder = union_.Id();
  if (block.level == 0) leafHolders_.Set(block.bytenr, block.holder);
  sums_.AddTreeBlock(block.holder, block.bytenr, reader_.NodeSize());
  return Status();
}

// What such a leaf refers to need not be known.  Nodes are few, and are read as with tables.
bool TreeBlockHolders::IsLeafOfTooMany(const Block& block) const {
  return block.level == 0 && sums_.AreTooMany(union_);
}

// Puts those who hold what refers to the block into the union; returns how many references that
// are, and notes whether asked subvolumes reach the block at all.  A block that names itself as its
// parent is the root of a relocation tree: its root item is meant.
uint64_t TreeBlockHolders::AddUpReferences(uint32_t number) {
  Block& block = blocks_[number];
  uint64_t found = 0;
  union_.Clear();
  for (WordSpan parents = ParentsOf(number); !parents.empty();) {
    const CountedAddress parent = TakeCounted(&parents);
    const std::optional<uint32_t> above = numbers_.Find(parent.bytenr);
    const bool isRoot = parent.bytenr == block.bytenr;
    if (isRoot || (above && blocks_[*above].touched)) block.touched = true;
    if (isRoot || (above && blocks_[*above].held)) {
      union_.Add(isRoot ? HolderSets::kNobody : blocks_[*above].holder);
      found += parent.count;
    }
  }
  references_[block.level].Take(block.bytenr, [&](const HeldReference& reference) {
    union_.Add(reference.holder);
    found += reference.count;
    block.touched = true;
  });
  return found;
}

WordSpan TreeBlockHolders::ParentsOf(uint32_t number) const {
  const uint64_t begin = blocks_[number].firstParent;
  const uint64_t end =
      number + 1 < blocks_.Size() ? blocks_[number + 1].firstParent : parents_.Size();
  return {parents_.begin() + begin, parents_.begin() + end};
}

Status TreeBlockHolders::ReadBlocks(const BigArray<uint32_t>& numbers) {
  std::vector<BlockPointer> pointers;
  for (size_t i = 0; i < numbers.Size(); ++i) {
    const Block& block = blocks_[numbers[i]];
    if (!digests_.Store().Find(block.bytenr, block.generation))
      pointers.push_back({block.bytenr, block.generation, block.level, {}});
    if (pointers.size() == DigestReader::kMostAtOnce || i + 1 == numbers.Size())
      ENGINE_TRY(digests_.Read(reader_, &pointers, DigestOwnBlock, false));
  }
  return digests_.Outcome();
}

void TreeBlockHolders::TakeReferences(const BigArray<uint32_t>& numbers) {
  for (const uint32_t number : numbers) {
    const Block& block = blocks_[number];
    HeldReferences& below = block.level == 0 ? data_ : references_[block.level - 1];
    WordSpan digest = *digests_.Store().Find(block.bytenr, block.generation);
    while (!digest.empty()) {
      const CountedAddress reference = TakeCounted(&digest);
      below.Add({reference.bytenr, block.holder, static_cast<uint32_t>(reference.count)});
    }
  }
}

}  // namespace ZorvEngine
