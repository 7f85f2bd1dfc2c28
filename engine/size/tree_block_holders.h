// tree_block_holders.h: finds out which subvolumes hold which tree blocks.
#ifndef ENGINE_SIZE_TREE_BLOCK_HOLDERS_H_
#define ENGINE_SIZE_TREE_BLOCK_HOLDERS_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "engine/io/array_memory.h"
#include "engine/ondisk/format.h"
#include "engine/size/address_map.h"
#include "engine/size/digest_reader.h"
#include "engine/size/held_references.h"
#include "engine/size/leaf_digest.h"
#include "engine/size/set_sums.h"

namespace ZorvEngine {

// The tree blocks of one state that asked subvolumes may hold.  Give it the roots and all tree
// blocks, then Resolve; from then on it knows who holds each block that nobody else holds.
//
// Memory: 44 bytes and 8 for each parent for each tree block given, 32 to 64 more for a node and
// for a leaf that is held, and 16 for each address that a block refers to which had to be read.
class TreeBlockHolders {
 public:
  // All are the caller's and outlive the object.
  TreeBlockHolders(BlockReader& blocks, DigestReader& digests, ArrayMemory& memory, SetSums& sums);

  // The root of a tree, which its root item refers to.
  void AddRoot(const BlockPointer& root, HolderId holder);

  // A tree block; by rising addresses, none twice.  Throws NoArrayMemory.
  void Add(const ExtentDigest& block);

  // Resolves all levels from the highest down, reads what must be read, and counts in the sums what
  // is held.  Status::kBadBlock when a block could not be read; throws NoArrayMemory.
  Status Resolve();

  // Who holds the leaf at `bytenr`; nothing when somebody outside does too, when these are too
  // many, or it is unknown.
  std::optional<HolderId> HolderOfLeaf(uint64_t bytenr) const { return leafHolders_.Find(bytenr); }

  // The data extents that blocks which were read refer to; sorted.
  HeldReferences& DataReferences() { return data_; }

  // Gives address and generation of each leaf that an asked subvolume reaches, whoever else does,
  // to `visit`, and whether it is marked FULL_BACKREF.
  template <typename Visit>
  void VisitLeaves(const Visit& visit) const {
    for (const uint32_t number : levels_[0]) {
      const Block& block = blocks_[number];
      if (block.touched) visit(block.bytenr, block.generation, block.fullBackref);
    }
  }

 private:
  struct Block {
    uint64_t bytenr;
    uint64_t generation;
    uint64_t refs;
    uint64_t firstParent;  // its parents in parents_, up to those of the next block
    HolderId holder;
    uint8_t level;
    bool fullBackref : 1;
    bool outside : 1;
    bool touched : 1;  // an asked subvolume reaches it
    bool held : 1;     // and nobody else does; of leaves, nor too many of them
  };

  Status ResolveLevel(int level);
  Status ResolveBlock(uint32_t number);
  bool IsLeafOfTooMany(const Block& block) const;
  uint64_t AddUpReferences(uint32_t number);
  WordSpan ParentsOf(uint32_t number) const;
  Status ReadBlocks(const BigArray<uint32_t>& numbers);
  void TakeReferences(const BigArray<uint32_t>& numbers);

  BlockReader& reader_;
  DigestReader& digests_;
  ArrayMemory& memory_;
  SetSums& sums_;
  HolderUnion union_;
  BigArray<Block> blocks_;      // by address
  BigArray<uint64_t> parents_;  // of all blocks, counted rows
  AddressMap numbers_;          // of nodes, by address: what tree blocks name as parents
  AddressMap leafHolders_;      // of leaves that are held, by address
  std::vector<BigArray<uint32_t>> levels_;  // numbers of the blocks of each level
  std::vector<HeldReferences> references_;  // to blocks of each level, from roots and blocks read
  HeldReferences data_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_TREE_BLOCK_HOLDERS_H_
