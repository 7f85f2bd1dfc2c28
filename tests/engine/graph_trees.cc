#include "tests/engine/graph_trees.h"

#include <algorithm>
#include <stdexcept>

namespace ZorvTest {

using namespace ZorvEngine;

namespace {

// Inodes of neighbouring leaves at first: room for leaves that come between.
constexpr uint64_t kInodeStep = 1 << 20;

GraphReference ByTree(uint64_t id) { return {false, id}; }
GraphReference ByBlock(uint64_t bytenr) { return {true, bytenr}; }

// The reference that a leaf makes to data.  Files that are cut up refer to the same beginning of an
// extent more than once.
GraphReference FromLeaf(const GraphBlock& leaf, const GraphFile& file, bool shared) {
  if (shared) return ByBlock(leaf.bytenr);
  return {false, leaf.owner, leaf.inode, file.offset & 4096};
}

}  // namespace

uint64_t GraphExtent::Count() const {
  uint64_t count = 0;
  for (const auto& [reference, times] : references) count += times;
  return count;
}

GraphTrees::GraphTrees(unsigned seed, const Regions& regions) : random_(seed) {
  const bool mixed = regions.metadata == regions.data;
  for (size_t i = 0; i < regions.blocks; ++i) {
    const uint64_t slot = i / (kDataSlot / kNodeBytes);  // mixed: every other slot has blocks
    freePlaces_.insert(regions.metadata + i * kNodeBytes + (mixed ? slot * kDataSlot : 0));
  }
  for (size_t i = 0; i < regions.slots; ++i)
    freeSlots_.insert(regions.data + i * kDataSlot * (mixed ? 2 : 1) + (mixed ? kDataSlot : 0));
}

uint64_t GraphTrees::TakePlace() {
  if (freePlaces_.empty()) throw std::logic_error("the file system is full");
  const uint64_t place = *freePlaces_.begin();
  freePlaces_.erase(freePlaces_.begin());
  return place;
}

GraphBlock& GraphTrees::NewBlock(uint64_t owner, uint8_t level, const GraphReference& reference) {
  const uint64_t bytenr = TakePlace();
  const bool own = reference.shared && reference.holder == 0;  // the root of a relocation tree
  GraphExtent extent{true, kNodeBytes, generation_, level, owner == kRelocationTreeId, {}};
  extent.references[own ? ByBlock(bytenr) : reference] = 1;
  extents_[bytenr] = std::move(extent);
  return blocks_[bytenr] = {bytenr, generation_, owner, level, 0, {}, {}};
}

uint64_t GraphTrees::Create(int levels) {
  CreateAs(nextId_, levels, kFirstInode);
  return nextId_++;
}

void GraphTrees::CreateMovedData() { CreateAs(kDataRelocationTreeId, 1, kFirstInode + 1); }

void GraphTrees::CreateAs(uint64_t id, int levels, uint64_t firstInode) {
  const auto level = static_cast<uint8_t>(Below(static_cast<size_t>(levels)));
  roots_[{id, 0}] = {Build(id, level, firstInode, ByTree(id)), generation_, level};
}

uint64_t GraphTrees::Build(uint64_t owner, uint8_t level, uint64_t firstInode,
                           const GraphReference& reference) {
  GraphBlock& block = NewBlock(owner, level, reference);
  block.inode = firstInode;
  if (level == 0) {
    for (size_t files = Below(5); files > 0; --files) AddFile(&block);
    return block.bytenr;
  }
  uint64_t step = kInodeStep;
  for (int i = 1; i < level; ++i) step *= 16;
  for (size_t i = 0, count = 1 + Below(4); i < count; ++i) {
    const uint64_t child =
        Build(owner, static_cast<uint8_t>(level - 1), firstInode + i * step, ByTree(owner));
    block.children.push_back(child);
  }
  return block.bytenr;
}

void GraphTrees::AddFile(GraphBlock* leaf) {
  const uint64_t offset = leaf->files.empty() ? 0 : leaf->files.back().offset + 4096;
  const GraphFile file{offset, PickData()};
  leaf->files.push_back(file);
  Refer(file.extent, FromLeaf(*leaf, file, false));
}

// Data that is there already, or new.
uint64_t GraphTrees::PickData() {
  if (OneIn(2) || freeSlots_.empty()) {
    std::vector<uint64_t> there;
    for (const auto& [bytenr, extent] : extents_)
      if (!extent.isTreeBlock) there.push_back(bytenr);
    if (!there.empty()) return there[Below(there.size())];
  }
  if (freeSlots_.empty()) throw std::logic_error("the file system is full");
  const uint64_t bytenr = *freeSlots_.begin();
  freeSlots_.erase(freeSlots_.begin());
  extents_[bytenr] = {false, 4096 * (1 + Below(kDataSlot / 4096)), generation_, 0, false, {}};
  return bytenr;
}

void GraphTrees::Refer(uint64_t bytenr, const GraphReference& reference) {
  ++extents_.at(bytenr).references[reference];
}

void GraphTrees::Unrefer(uint64_t bytenr, const GraphReference& reference) {
  GraphExtent& extent = extents_.at(bytenr);
  const auto found = extent.references.find(reference);
  if (found == extent.references.end()) throw std::logic_error("no such reference");
  if (--found->second == 0) extent.references.erase(found);
  if (extent.references.empty()) Free(bytenr);
}

void GraphTrees::Free(uint64_t bytenr) {
  (blocks_.erase(bytenr) != 0 ? freedPlaces_ : freedSlots_).push_back(bytenr);
  extents_.erase(bytenr);
}

void GraphTrees::ReferToContent(const GraphBlock& block, bool shared, bool add) {
  const auto change = [&](uint64_t bytenr, const GraphReference& reference) {
    add ? Refer(bytenr, reference) : Unrefer(bytenr, reference);
  };
  for (const uint64_t child : block.children)
    change(child, shared ? ByBlock(block.bytenr) : ByTree(block.owner));
  for (const GraphFile& file : block.files) change(file.extent, FromLeaf(block, file, shared));
}

// The owner of a shared block leaves it to the others: from then on its content names the block.
// Who copies another's block makes references by his own name.  The last one takes the block's
// references away with it.
uint64_t GraphTrees::CopyForWrite(const GraphRootKey& tree, uint64_t bytenr, uint64_t parent) {
  const bool relocation = tree.first == kRelocationTreeId;
  const GraphBlock old = blocks_.at(bytenr);
  GraphExtent& extent = extents_.at(bytenr);
  const uint64_t count = extent.Count();
  const bool names = relocation || !extent.fullBackref;
  if (count == 1 && old.generation == generation_ && old.owner == tree.first && names)
    return bytenr;

  const GraphReference above = relocation ? ByBlock(parent) : ByTree(tree.first);
  GraphBlock& copy = NewBlock(tree.first, old.level, above);
  copy.inode = old.inode;
  copy.children = old.children;
  copy.files = old.files;
  if (count > 1) {
    if ((old.owner == tree.first || relocation) && !extent.fullBackref) {
      ReferToContent(old, /*shared=*/true, /*add=*/true);
      if (relocation) {
        ReferToContent(copy, true, true);
        ReferToContent(old, false, /*add=*/false);
      }
      extent.fullBackref = true;
    } else {
      ReferToContent(copy, relocation, true);
    }
  } else if (extent.fullBackref) {
    ReferToContent(copy, relocation, true);
    ReferToContent(old, true, /*add=*/false);
  } else if (relocation) {
    ReferToContent(copy, true, true);
    ReferToContent(old, false, false);
  }
  Unrefer(bytenr, relocation && parent == 0 ? ByBlock(bytenr) : above);
  return copy.bytenr;
}

// Makes a random branch of a tree, from its root down to a level, ready to be changed; returns its
// blocks from above.
std::vector<uint64_t> GraphTrees::CopyPath(const GraphRootKey& tree, uint8_t downTo) {
  GraphRoot& root = roots_.at(tree);
  root.bytenr = CopyForWrite(tree, root.bytenr, 0);
  root.generation = blocks_.at(root.bytenr).generation;
  std::vector<uint64_t> path = {root.bytenr};
  while (blocks_.at(path.back()).level > downTo) {
    const uint64_t parent = path.back();
    const size_t slot = Below(blocks_.at(parent).children.size());
    const uint64_t child = CopyForWrite(tree, blocks_.at(parent).children[slot], parent);
    blocks_.at(parent).children[slot] = child;
    path.push_back(child);
  }
  return path;
}

void GraphTrees::Write(uint64_t id) {
  const std::vector<uint64_t> path = CopyPath({id, 0}, 0);
  GraphBlock& leaf = blocks_.at(path.back());
  const bool removesLeaf = path.size() > 1 && OneIn(6);
  while (!leaf.files.empty() && (removesLeaf || OneIn(2))) {
    const auto at = leaf.files.begin() + static_cast<long>(Below(leaf.files.size()));
    const GraphFile file = *at;
    leaf.files.erase(at);
    Unrefer(file.extent, FromLeaf(leaf, file, false));
  }
  if (!removesLeaf) {
    for (size_t files = Below(4); files > 0 && leaf.files.size() < 30; --files) AddFile(&leaf);
    return;
  }
  std::vector<uint64_t>& siblings = blocks_.at(path[path.size() - 2]).children;
  if (siblings.front() == leaf.bytenr) return;
  siblings.erase(std::ranges::find(siblings, leaf.bytenr));
  Unrefer(leaf.bytenr, ByTree(id));
}

void GraphTrees::CopyRoot(const GraphRootKey& from, const GraphRootKey& to) {
  const GraphRoot root = roots_.at(from);
  const bool relocation = to.first == kRelocationTreeId;
  GraphBlock& copy = NewBlock(to.first, root.level, relocation ? ByBlock(0) : ByTree(to.first));
  const GraphBlock& old = blocks_.at(root.bytenr);
  copy.inode = old.inode;
  copy.children = old.children;
  copy.files = old.files;
  ReferToContent(copy, relocation, true);
  roots_[to] = {copy.bytenr, generation_, root.level};
}

uint64_t GraphTrees::Snapshot(uint64_t id) {
  GraphRoot& root = roots_.at({id, 0});
  root.bytenr = CopyForWrite({id, 0}, root.bytenr, 0);
  root.generation = blocks_.at(root.bytenr).generation;
  CopyRoot({id, 0}, {nextId_, 0});
  return nextId_++;
}

void GraphTrees::Delete(uint64_t id) {
  const GraphRoot root = roots_.at({id, 0});
  roots_.erase({id, 0});
  Drop(id, root.bytenr, ByTree(id));
}

// A block that others still hold no longer has an owner to name: its content names it from then on,
// and so on below.
void GraphTrees::Drop(uint64_t id, uint64_t bytenr, const GraphReference& reference) {
  if (extents_.at(bytenr).Count() > 1) {
    if (id != kRelocationTreeId) MarkFullBackref(id, bytenr);
    Unrefer(bytenr, reference);
    return;
  }
  const GraphBlock block = blocks_.at(bytenr);
  const bool shared = extents_.at(bytenr).fullBackref;
  for (const uint64_t child : block.children)
    Drop(id, child, shared ? ByBlock(bytenr) : ByTree(block.owner));
  for (const GraphFile& file : block.files) Unrefer(file.extent, FromLeaf(block, file, shared));
  Unrefer(bytenr, reference);
}

void GraphTrees::MarkFullBackref(uint64_t id, uint64_t bytenr) {
  const GraphBlock& block = blocks_.at(bytenr);
  if (block.owner != id) return;
  if (!extents_.at(bytenr).fullBackref) {
    ReferToContent(block, true, true);
    ReferToContent(block, false, false);
    extents_.at(bytenr).fullBackref = true;
  }
  for (const uint64_t child : block.children) MarkFullBackref(id, child);
}

void GraphTrees::BeginRelocation(uint64_t id) { CopyRoot({id, 0}, {kRelocationTreeId, id}); }

// Copies a branch in the relocation tree and exchanges its end with that of the subvolume, where
// both have come from the same block.
void GraphTrees::RelocateBranch(uint64_t id) {
  const GraphRootKey moved(kRelocationTreeId, id);
  const std::vector<uint64_t> path = CopyPath(moved, 0);
  if (path.size() < 2) return;
  const uint64_t above = path[path.size() - 2];
  const uint64_t copied = path.back();
  if (!OneIn(2)) return;

  GraphRoot& root = roots_.at({id, 0});
  root.bytenr = CopyForWrite({id, 0}, root.bytenr, 0);
  root.generation = blocks_.at(root.bytenr).generation;
  uint64_t at = root.bytenr;
  while (blocks_.at(at).level > 1) {
    std::vector<uint64_t>& children = blocks_.at(at).children;
    size_t slot = 0;
    while (slot + 1 < children.size() &&
           blocks_.at(children[slot + 1]).inode <= blocks_.at(copied).inode)
      ++slot;
    const uint64_t child = CopyForWrite({id, 0}, children[slot], at);
    blocks_.at(at).children[slot] = child;
    at = child;
  }
  if (blocks_.at(at).level != 1) return;
  std::vector<uint64_t>& children = blocks_.at(at).children;
  const auto slot = std::ranges::find_if(children, [&](uint64_t child) {
    return blocks_.at(child).inode == blocks_.at(copied).inode;
  });
  if (slot == children.end() || *slot == copied) return;
  const uint64_t old = *slot;
  // What a block names its owner for would count as the owner's, who no longer reaches it.
  if (!blocks_.at(old).files.empty() && !extents_.at(old).fullBackref) return;
  *slot = copied;
  *std::ranges::find(blocks_.at(above).children, copied) = old;
  Refer(old, ByBlock(above));
  Refer(copied, ByTree(id));
  Unrefer(copied, ByBlock(above));
  Unrefer(old, ByTree(id));
}

void GraphTrees::EndRelocation(uint64_t id) {
  const GraphRoot root = roots_.at({kRelocationTreeId, id});
  roots_.erase({kRelocationTreeId, id});
  Drop(kRelocationTreeId, root.bytenr, ByBlock(root.bytenr));
}

void GraphTrees::Commit() {
  freePlaces_.insert(freedPlaces_.begin(), freedPlaces_.end());
  freeSlots_.insert(freedSlots_.begin(), freedSlots_.end());
  freedPlaces_.clear();
  freedSlots_.clear();
  ++generation_;
}

std::vector<uint64_t> GraphTrees::Subvolumes() const {
  std::vector<uint64_t> ids;
  for (const auto& [key, root] : roots_)
    if (IsSubvolumeId(key.first)) ids.push_back(key.first);
  return ids;
}

bool GraphTrees::IsRelocated(uint64_t id) const {
  return roots_.count({kRelocationTreeId, id}) != 0;
}

void GraphTrees::Reach(uint64_t bytenr, std::set<uint64_t>* reached) const {
  if (!reached->insert(bytenr).second) return;
  const GraphBlock& block = blocks_.at(bytenr);
  for (const uint64_t child : block.children) Reach(child, reached);
  for (const GraphFile& file : block.files) reached->insert(file.extent);
}

HeldBytes GraphTrees::BytesOf(uint64_t bytenr) const {
  const GraphExtent& extent = extents_.at(bytenr);
  return extent.isTreeBlock ? HeldBytes{0, extent.length} : HeldBytes{extent.length, 0};
}

HolderSums GraphTrees::Holders() const {
  std::map<uint64_t, std::set<uint64_t>> holders;
  for (const auto& [key, root] : roots_) {
    std::set<uint64_t> reached;
    Reach(root.bytenr, &reached);
    const uint64_t id = IsSubvolumeId(key.first) ? key.first : kRelocationTreeId;
    for (const uint64_t bytenr : reached) holders[bytenr].insert(id);
  }
  HolderSums sums;
  for (const auto& [bytenr, who] : holders) sums[who] += BytesOf(bytenr);
  return sums;
}

HeldBytes GraphTrees::OnlyReachedBy(const std::set<uint64_t>& gone) const {
  std::set<uint64_t> kept, lost;
  for (const auto& [key, root] : roots_) {
    if (!IsSubvolumeId(key.first)) continue;
    Reach(root.bytenr, gone.count(key.first) != 0 ? &lost : &kept);
  }
  HeldBytes sum;
  for (const uint64_t bytenr : lost)
    if (kept.count(bytenr) == 0) sum += BytesOf(bytenr);
  return sum;
}

HeldBytes GraphTrees::Entered() const {
  HeldBytes sum;
  for (const auto& [bytenr, extent] : extents_) sum += BytesOf(bytenr);
  return sum;
}

}  // namespace ZorvTest
