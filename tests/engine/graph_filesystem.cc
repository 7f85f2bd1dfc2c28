#include "tests/engine/graph_filesystem.h"

#include <algorithm>

namespace ZorvTest {

using namespace ZorvEngine;

namespace {

constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kSystem = 1 * kMiB;
constexpr uint64_t kMetadata = 16 * kMiB;
constexpr uint64_t kMixed = 64 * kMiB;
constexpr uint64_t kBelow = 4 * kMiB;  // data on either side of the tree blocks

enum : uint8_t { kTreeRef = 176, kFileRef = 178, kBlockRef = 182, kLeafDataRef = 184 };
constexpr uint64_t kFullBackref = 1 << 8;

GraphTrees::Regions RegionsFor(const GraphShape& shape) {
  if (shape.mixed) return {kMixed, kMixed};
  return {kMetadata, kBelow};
}

Bytes Number(uint64_t value, size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i)
    bytes.push_back(i < 8 ? static_cast<uint8_t>(value >> (8 * i)) : 0);
  return bytes;
}

uint8_t TypeOf(const GraphExtent& extent, const GraphReference& reference) {
  if (extent.isTreeBlock) return reference.shared ? kBlockRef : kTreeRef;
  return reference.shared ? kLeafDataRef : kFileRef;
}

// What a named reference to data says, in an item or inside one.
Bytes FileReference(const GraphReference& reference, uint64_t count) {
  Bytes bytes = Number(reference.holder, 8);
  AppendTo(&bytes, Number(reference.inode, 8));
  AppendTo(&bytes, Number(reference.offset, 8));
  AppendTo(&bytes, Number(count, 4));
  return bytes;
}

Bytes InlineReference(uint8_t type, const GraphReference& reference, uint64_t count) {
  Bytes bytes = {type};
  AppendTo(&bytes,
           type == kFileRef ? FileReference(reference, count) : Number(reference.holder, 8));
  if (type == kLeafDataRef) AppendTo(&bytes, Number(count, 4));
  return bytes;
}

Item KeyedReference(uint64_t bytenr, uint8_t type, const GraphReference& reference,
                    uint64_t count) {
  // The kernel hashes the three numbers; any key that is not taken yet will do.
  if (type == kFileRef)
    return {{bytenr, type,
             reference.holder * 0x9E3779B97F4A7C15 + reference.inode * 31 + reference.offset},
            FileReference(reference, count)};
  return {{bytenr, type, reference.holder}, type == kLeafDataRef ? Number(count, 4) : Bytes()};
}

bool KeyBefore(const Item& a, const Item& b) { return a.first < b.first; }

// Puts generation and owner into a block and seals it.
Bytes Sealed(Bytes block, uint64_t generation, uint64_t owner) {
  HeaderOf(&block).generation.Set(generation);
  HeaderOf(&block).owner.Set(owner);
  Seal(&block);
  return block;
}

Bytes SealedNode(uint64_t bytenr, uint64_t generation, uint64_t owner, uint8_t level,
                 const std::vector<std::tuple<Key, uint64_t, uint64_t>>& children) {
  std::vector<Child> plain;
  for (const auto& [key, child, childGeneration] : children) plain.push_back({key, child});
  Bytes block = MakeNode(bytenr, level, plain);
  for (size_t i = 0; i < children.size(); ++i)
    ObjectAt<KeyPointer>(&block, sizeof(BlockHeader) + i * sizeof(KeyPointer))
        .generation.Set(std::get<2>(children[i]));
  return Sealed(std::move(block), generation, owner);
}

Key FirstKey(const GraphBlock& block) { return {block.inode, 1, 0}; }

Bytes SubvolumeBlock(const GraphBlock& block, const std::map<uint64_t, GraphBlock>& all) {
  if (block.level == 0) {
    std::vector<Item> items = {{FirstKey(block), Bytes(16)}};
    for (const GraphFile& file : block.files) {
      FileExtentHead head{};
      head.type.Set(file.offset % 8192 == 0 ? kFileExtentRegular : kFileExtentPreallocated);
      FileExtentPlace place{};
      place.diskBytenr.Set(file.extent);
      place.diskBytes.Set(4096);
      Bytes bytes = BytesOf(head);
      AppendTo(&bytes, BytesOf(place));
      items.push_back({{block.inode, kFileExtentType, file.offset}, bytes});
    }
    return SealedLeaf(block.bytenr, block.generation, block.owner, items);
  }
  std::vector<std::tuple<Key, uint64_t, uint64_t>> children;
  for (const uint64_t child : block.children)
    children.push_back({FirstKey(all.at(child)), child, all.at(child).generation});
  return SealedNode(block.bytenr, block.generation, block.owner, block.level, children);
}

}  // namespace

Bytes SealedLeaf(uint64_t bytenr, uint64_t generation, uint64_t owner,
                 const std::vector<Item>& items) {
  return Sealed(MakeLeaf(bytenr, items), generation, owner);
}

Status SparseDevice::ReadAt(uint64_t offset, uint8_t* buffer, size_t size) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (every_ != 0 && reads_ % every_ == every_ - 1) call_();
  ++reads_;
  memset(buffer, 0, size);
  for (uint64_t at = 0; at < size; at += kNodeSize)
    if (const auto found = blocks_.find(offset + at); found != blocks_.end())
      std::copy(found->second.begin(), found->second.end(), buffer + at);
  return Status();
}

void SparseDevice::Put(uint64_t offset, const Bytes& block) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  blocks_[offset] = block;
}

std::vector<uint64_t> SparseDevice::Places() const {
  std::vector<uint64_t> places;
  for (const auto& [offset, block] : blocks_) places.push_back(offset);
  std::ranges::sort(places);
  return places;
}

void SparseDevice::CallEvery(int reads, std::function<void()> call) {
  every_ = reads;
  call_ = std::move(call);
}

// Leaves keep their first keys, so that a change stays in its leaf; one that is full is cut in two.
std::vector<std::vector<Item>> KeptTree::Cut(const std::vector<Item>& items) const {
  std::vector<std::vector<Item>> leaves;
  size_t old = 0;
  const std::vector<Entry> none;
  const std::vector<Entry>& before = levels_.empty() ? none : levels_[0];
  for (const Item& item : items) {
    bool begins = leaves.empty() || leaves.back().size() == itemsPerLeaf_;
    while (old < before.size() && !(item.first < before[old].first)) {
      begins = true;
      ++old;
    }
    if (begins) leaves.emplace_back();
    leaves.back().push_back(item);
  }
  if (leaves.empty()) leaves.emplace_back();
  return leaves;
}

void KeptTree::Write(const std::vector<Item>& items, GraphTrees* places, SparseDevice* device) {
  std::map<std::pair<size_t, Key>, Entry,
           bool (*)(const std::pair<size_t, Key>&, const std::pair<size_t, Key>&)>
      old([](const std::pair<size_t, Key>& a, const std::pair<size_t, Key>& b) {
        return a.first != b.first ? a.first < b.first : a.second < b.second;
      });
  for (size_t level = 0; level < levels_.size(); ++level)
    for (const Entry& entry : levels_[level]) old[{level, entry.first}] = entry;

  // Gives an entry the place that it had when it says the same as before, else a new one.
  const uint64_t generation = places->Generation();
  const auto settle = [&](size_t level, Entry entry, const auto& makeBlock) {
    const auto found = old.find({level, entry.first});
    if (found != old.end() && found->second.items == entry.items &&
        found->second.children == entry.children) {
      entry = found->second;
      old.erase(found);
      return entry;
    }
    entry.bytenr = places->TakePlace();
    entry.generation = generation;
    device->Put(entry.bytenr, makeBlock(entry));
    return entry;
  };

  std::vector<std::vector<Entry>> levels(1);
  for (std::vector<Item>& leaf : Cut(items)) {
    const Key first = leaf.empty() ? Key() : leaf[0].first;
    levels[0].push_back(settle(0, {first, 0, 0, std::move(leaf), {}}, [&](const Entry& entry) {
      return SealedLeaf(entry.bytenr, generation, owner_, entry.items);
    }));
  }
  while (levels.back().size() > 1) {
    const std::vector<Entry> below = levels.back();
    const size_t level = levels.size();
    levels.emplace_back();
    for (size_t at = 0; at < below.size(); at += width_) {
      Entry node{below[at].first, 0, 0, {}, {}};
      std::vector<std::tuple<Key, uint64_t, uint64_t>> children;
      for (size_t i = at; i < std::min(below.size(), at + width_); ++i) {
        node.children.push_back({below[i].bytenr, below[i].generation});
        children.push_back({below[i].first, below[i].bytenr, below[i].generation});
      }
      levels.back().push_back(settle(level, node, [&](const Entry& entry) {
        return SealedNode(entry.bytenr, generation, owner_, static_cast<uint8_t>(level), children);
      }));
    }
  }
  for (const auto& [key, entry] : old) places->GivePlace(entry.bytenr);
  levels_ = std::move(levels);
  const Entry& root = levels_.back()[0];
  root_ = {root.bytenr, root.generation, static_cast<uint8_t>(levels_.size() - 1)};
}

size_t KeptTree::Blocks() const { return Places().size(); }

std::vector<uint64_t> KeptTree::Places() const {
  std::vector<uint64_t> places;
  for (const std::vector<Entry>& level : levels_)
    for (const Entry& entry : level) places.push_back(entry.bytenr);
  return places;
}

GraphShape GraphShape::Random(unsigned seed) {
  std::mt19937 random(seed * 7919 + 1);
  GraphShape shape;
  shape.mixed = random() % 4 == 0;
  shape.skinny = random() % 4 != 0;
  shape.inlineRefs = random() % 5;
  shape.itemsPerLeaf = 2 + random() % 14;
  shape.width = 4 + random() % 7;  // the trees must not become too high
  return shape;
}

GraphFilesystem::GraphFilesystem(unsigned seed, const GraphShape& shape)
    : shape_(shape),
      trees_(seed, RegionsFor(shape)),
      extentTree_(kExtentTreeId, shape.itemsPerLeaf, shape.width),
      rootTree_(1, 12, 5) {
  auto device = std::make_unique<SparseDevice>();
  device_ = device.get();
  devices_.Add(1, {std::move(device), {}, {}});
  PutChunks();
}

// Data lies below the tree blocks, in chunks of other profiles, whose devices need not be there: it
// is never read.  Both copies of a tree block are in one place.
void GraphFilesystem::PutChunks() {
  const auto system = MakeChunk(kMiB, kChunkSystem, {kSystem});
  std::vector<Item> items = {{ChunkKey(kSystem), system}};
  if (shape_.mixed) {
    items.push_back(
        {ChunkKey(kMixed), MakeChunk(64 * kMiB, kChunkMetadata | kChunkData, {kMixed})});
  } else {
    items.push_back(
        {ChunkKey(kBelow), MakeChunkOn(8 * kMiB, kChunkData | kRaid1, {{1, 0}, {2, 0}})});
    items.push_back({ChunkKey(kBelow + 8 * kMiB),
                     MakeChunkOn(4 * kMiB, kChunkData | kRaid5, {{2, 0}, {3, 0}, {4, 0}})});
    items.push_back(
        {ChunkKey(kMetadata), MakeChunk(4 * kMiB, kChunkMetadata | kDup, {kMetadata, kMetadata})});
    items.push_back(
        {ChunkKey(kMetadata + 4 * kMiB), MakeChunk(4 * kMiB, kChunkData, {kMetadata + 4 * kMiB})});
  }
  device_->Put(kSystem, SealedLeaf(kSystem, 1, 3, items));

  superblock_.chunkRoot.Set(kSystem);
  superblock_.chunkRootGeneration.Set(1);
  superblock_.numDevices.Set(1);
  superblock_.sectorSize.Set(4096);
  superblock_.nodeSize.Set(kNodeSize);
  superblock_.device.devid.Set(1);
  DiskKey key{};
  key.Set(ChunkKey(kSystem));
  Bytes array = BytesOf(key);
  AppendTo(&array, system);
  superblock_.systemChunkArraySize.Set(static_cast<uint32_t>(array.size()));
  std::copy(array.begin(), array.end(), superblock_.systemChunkArray);
}

std::vector<Item> GraphFilesystem::ExtentItems() const {
  std::vector<Item> items;
  for (const auto& [bytenr, extent] : trees_.Extents()) {
    ExtentItem head{};
    head.refs.Set(extent.Count());
    head.generation.Set(extent.generation);
    head.flags.Set((extent.isTreeBlock ? kExtentIsTreeBlock : kExtentIsData) |
                   (extent.fullBackref ? kFullBackref : 0));
    Bytes bytes = BytesOf(head);
    if (extent.isTreeBlock && !shape_.skinny) {
      TreeBlockInfo info{};
      info.level.Set(extent.level);
      AppendTo(&bytes, BytesOf(info));
    }
    size_t inlined = 0;
    for (const auto& [reference, count] : extent.references) {
      const uint8_t type = TypeOf(extent, reference);
      if (inlined++ < shape_.inlineRefs)
        AppendTo(&bytes, InlineReference(type, reference, count));
      else
        items.push_back(KeyedReference(bytenr, type, reference, count));
    }
    if (extent.isTreeBlock && shape_.skinny)
      items.push_back({{bytenr, kMetadataItemType, extent.level}, bytes});
    else
      items.push_back({{bytenr, kExtentItemType, extent.length}, bytes});
  }
  std::ranges::sort(items, KeyBefore);
  return items;
}

std::vector<Item> GraphFilesystem::RootItems() const {
  // The root tree is another one with each commit.
  std::vector<Item> items = {{{6, 1, 0}, Number(trees_.Generation(), 16)}};
  const auto add = [&](const GraphRootKey& key, const GraphRoot& at, uint64_t bytes) {
    RootItem root{};
    root.bytenr.Set(at.bytenr);
    root.generation.Set(at.generation);
    root.level.Set(at.level);
    root.bytesUsed.Set(bytes);
    root.refs.Set(key.first == kRelocationTreeId ? 0 : 1);
    items.push_back({{key.first, kRootItemType, key.second}, BytesOf(root)});
  };
  add({kExtentTreeId, 0}, extentTree_.Root(), extentTree_.Blocks() * kNodeSize);
  for (const auto& [key, root] : trees_.Roots()) add(key, root, kNodeSize);
  std::ranges::sort(items, KeyBefore);
  return items;
}

void GraphFilesystem::PutTrees() {
  for (const auto& [bytenr, block] : trees_.Blocks())
    if (block.generation == trees_.Generation())
      device_->Put(bytenr, SubvolumeBlock(block, trees_.Blocks()));
  extentTree_.Write(ExtentItems(), &trees_, device_);
  rootTree_.Write(RootItems(), &trees_, device_);
}

void GraphFilesystem::Commit() {
  PutTrees();
  superblock_.generation.Set(trees_.Generation());
  superblock_.root.Set(rootTree_.Root().bytenr);
  superblock_.rootLevel.Set(rootTree_.Root().level);
  holders_[trees_.Generation()] = trees_.Holders();
  trees_.Commit();
}

void GraphFilesystem::Change(std::mt19937* random, int steps, size_t most,
                             const std::set<uint64_t>& kept) {
  const auto below = [&](size_t end) { return (*random)() % end; };
  for (int step = 0; step < steps; ++step) {
    const std::vector<uint64_t> ids = trees_.Subvolumes();
    if (ids.empty()) {
      trees_.Create(4);
      continue;
    }
    const uint64_t id = ids[below(ids.size())];
    const size_t what = below(100);
    if (what < 55) {
      trees_.Write(id);
    } else if (what < 75 && ids.size() < most) {
      trees_.Snapshot(id);
    } else if (what < 80 && ids.size() < most) {
      trees_.Create(4);
    } else if (what < 88 && ids.size() > 1 && kept.count(id) == 0 && !trees_.IsRelocated(id)) {
      trees_.Delete(id);
    } else if (what < 96 && trees_.IsRelocated(id)) {
      below(3) == 0 ? trees_.EndRelocation(id) : trees_.RelocateBranch(id);
    } else if (what >= 98 && !trees_.IsRelocated(id)) {
      trees_.BeginRelocation(id);
    } else if (what == 97) {
      Commit();
    }
  }
}

Status GraphFilesystem::CommitAndReadSuperblock(Superblock* out, std::string* note) {
  note->clear();
  return ReadSuperblock(out);
}

Status GraphFilesystem::ReadSuperblock(Superblock* out) {
  *out = superblock_;
  return Status();
}

}  // namespace ZorvTest
