// Subvolumes, snapshots and relocation trees in memory, changed by the rules by which the kernel
// copies blocks and counts references, and what a plain search through them says.
#ifndef TESTS_ENGINE_GRAPH_TREES_H_
#define TESTS_ENGINE_GRAPH_TREES_H_

#include <compare>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "engine/ondisk/keys.h"
#include "engine/size/size_table.h"

namespace ZorvTest {

// One reference to an extent: by name of a tree, or by the address of a block.
struct GraphReference {
  bool shared;
  uint64_t holder;      // address of a block, or number of a tree
  uint64_t inode = 0;   // of named references to data: the file,
  uint64_t offset = 0;  // and where in it

  auto operator<=>(const GraphReference&) const = default;
};

// What the extent tree says of a tree block or a piece of data.
struct GraphExtent {
  bool isTreeBlock;
  uint64_t length;
  uint64_t generation;
  uint8_t level = 0;
  bool fullBackref = false;
  std::map<GraphReference, uint64_t> references;  // with their counts

  uint64_t Count() const;
};

// A reference from a leaf to data.
struct GraphFile {
  uint64_t offset;
  uint64_t extent;
};

// A block of a tree.  Its first key is an inode item in its leftmost leaf, which always stays.
struct GraphBlock {
  uint64_t bytenr;
  uint64_t generation;
  uint64_t owner;  // the tree in its header
  uint8_t level;
  uint64_t inode;
  std::vector<uint64_t> children;  // of nodes: addresses
  std::vector<GraphFile> files;    // of leaves
};

// Where a tree begins.  The offset of the key tells relocation trees apart: it is their subvolume.
struct GraphRoot {
  uint64_t bytenr;
  uint64_t generation;
  uint8_t level;
};
using GraphRootKey = std::pair<uint64_t, uint64_t>;  // number and offset

// Bytes by the trees from whose roots they can be reached, all relocation trees being one.
using HolderSums = std::map<std::set<uint64_t>, ZorvEngine::HeldBytes>;

// The trees.  A change copies the blocks on its way; places that it frees can be used again after
// the commit.
class GraphTrees {
 public:
  static constexpr uint64_t kFirstId = 256;
  static constexpr uint64_t kNodeBytes = 4096;
  static constexpr uint64_t kDataSlot = 64 << 10;  // bytes of data are multiples of 4096 up to this

  // Tree blocks and data lie from these addresses on, for as many blocks and slots.  When both
  // begin at the same address, they lie mixed.
  struct Regions {
    uint64_t metadata;
    uint64_t data;
    size_t blocks = 1024;
    size_t slots = 190;
  };

  GraphTrees(unsigned seed, const Regions& regions);

  // Makes a subvolume of random shape, with up to `levels` levels; returns its number.
  uint64_t Create(int levels);

  // Makes the tree of data that a balance moves; subvolumes may have its data already.
  void CreateMovedData();

  // Makes a snapshot of a subvolume; returns its number.
  uint64_t Snapshot(uint64_t id);

  // Changes the files of one leaf of a subvolume at random, or takes a leaf out.
  void Write(uint64_t id);

  // Removes a subvolume at once, with all that only it holds.
  void Delete(uint64_t id);

  // Begins to move the blocks of a subvolume; moves one branch; removes the relocation tree.
  void BeginRelocation(uint64_t id);
  void RelocateBranch(uint64_t id);
  void EndRelocation(uint64_t id);

  // Ends a transaction: what it has freed can be used from now on.
  void Commit();

  // Subvolumes that there are.
  std::vector<uint64_t> Subvolumes() const;
  bool IsRelocated(uint64_t id) const;

  uint64_t Generation() const { return generation_; }  // of the transaction that is open
  const std::map<GraphRootKey, GraphRoot>& Roots() const { return roots_; }
  const std::map<uint64_t, GraphBlock>& Blocks() const { return blocks_; }
  const std::map<uint64_t, GraphExtent>& Extents() const { return extents_; }

  // A place for a block of another tree, which is not entered as an extent.
  uint64_t TakePlace();
  void GivePlace(uint64_t bytenr) { freedPlaces_.push_back(bytenr); }

  // Who reaches what.
  HolderSums Holders() const;

  // Bytes of what no root reaches when those of `gone` and all relocation trees are left out, but
  // one of `gone` does.
  ZorvEngine::HeldBytes OnlyReachedBy(const std::set<uint64_t>& gone) const;

  // Bytes of all that there is.
  ZorvEngine::HeldBytes Entered() const;

 private:
  void CreateAs(uint64_t id, int levels, uint64_t firstInode);
  size_t Below(size_t end) { return random_() % end; }
  bool OneIn(size_t n) { return Below(n) == 0; }

  GraphBlock& NewBlock(uint64_t owner, uint8_t level, const GraphReference& reference);
  uint64_t Build(uint64_t owner, uint8_t level, uint64_t firstInode, const GraphReference& ref);
  void AddFile(GraphBlock* leaf);
  uint64_t PickData();

  // Adds (or takes away) the references that the content of a block makes, by its address or by
  // its owner's name.
  void ReferToContent(const GraphBlock& block, bool shared, bool add);
  void Refer(uint64_t bytenr, const GraphReference& reference);
  void Unrefer(uint64_t bytenr, const GraphReference& reference);
  void Free(uint64_t bytenr);

  // Copies a block for a tree, unless it is the tree's alone since this transaction; `parent` is
  // the block above, 0 for a root.  Returns the address of what the tree has now.
  uint64_t CopyForWrite(const GraphRootKey& tree, uint64_t bytenr, uint64_t parent);
  std::vector<uint64_t> CopyPath(const GraphRootKey& tree, uint8_t downTo);
  void CopyRoot(const GraphRootKey& from, const GraphRootKey& to);

  // Takes away a reference of tree `id`, and what nothing refers to then.
  void Drop(uint64_t id, uint64_t bytenr, const GraphReference& reference);
  void MarkFullBackref(uint64_t id, uint64_t bytenr);

  void Reach(uint64_t bytenr, std::set<uint64_t>* reached) const;
  ZorvEngine::HeldBytes BytesOf(uint64_t bytenr) const;

  std::mt19937 random_;
  uint64_t generation_ = 100;
  uint64_t nextId_ = kFirstId;
  std::set<uint64_t> freePlaces_;
  std::set<uint64_t> freeSlots_;
  std::vector<uint64_t> freedPlaces_;  // in this transaction
  std::vector<uint64_t> freedSlots_;   // likewise
  std::map<GraphRootKey, GraphRoot> roots_;
  std::map<uint64_t, GraphBlock> blocks_;
  std::map<uint64_t, GraphExtent> extents_;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_GRAPH_TREES_H_
