#include "tests/fuzz/engine_seeds.h"

#include <string.h>

#include <fstream>
#include <optional>
#include <stdexcept>

#include "engine/ondisk/tree_block.h"
#include "tests/engine/graph_run.h"
#include "tests/engine/mini_filesystem.h"

namespace ZorvTest {
namespace {

using namespace ZorvEngine;

std::string AsText(ByteView bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.Data()), bytes.Size());
}
std::string AsText(const Bytes& bytes) { return AsText(View(bytes)); }

void AppendNumber(uint64_t number, size_t size, std::string* out) {
  for (size_t i = 0; i < size; ++i) out->push_back(static_cast<char>(number >> (8 * i)));
}

bool IsOfExtents(uint8_t type) {
  return type == kExtentItemType || type == kMetadataItemType || (type >= 172 && type <= 192);
}

// Writes the items of leaves in the forms of the targets.
class LeafSeeds {
 public:
  explicit LeafSeeds(SeedsByTarget* seeds) : seeds_(*seeds) {}

  void Take(const TreeBlockView& leaf) {
    std::string chunks, extents, roots;
    uint64_t before = 0;
    for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
      const Key key = leaf.KeyAt(slot);
      const ByteView data = leaf.DataAt(slot);
      if (key.type == kChunkItemType) AppendChunk(key, data, &chunks);
      if (IsOfExtents(key.type) && data.Size() < 256) {
        AppendExtent(key, key.objectid - before, data, &extents);
        before = key.objectid;
      }
      if (key.type == kRootItemType) AppendRoot(key, data, &roots);
      if (key.type == kInodeRefType) Enter("name_items", NameItem(0, key, data));
      if (key.type == kDirItemType) Enter("name_items", NameItem(2, key, data));
    }
    Enter("chunk_items", chunks);
    Enter("extent_items", extents);
    Enter("root_items", roots);
  }

  // `kind` is the target's number for the type of the item.
  static std::string NameItem(uint8_t kind, const Key& key, ByteView data) {
    std::string seed;
    AppendNumber(kind, 1, &seed);
    AppendNumber(key.offset, 8, &seed);
    return seed + AsText(data);
  }

  static void AppendRoot(const Key& key, ByteView data, std::string* out) {
    AppendNumber(key.objectid, 8, out);
    AppendNumber(key.type, 1, out);
    AppendNumber(key.offset, 8, out);
    AppendNumber(data.Size(), 2, out);
    out->append(AsText(data));
  }

  static void AppendChunk(const Key& key, ByteView data, std::string* out) {
    AppendNumber(key.offset, 8, out);
    AppendNumber(data.Size(), 2, out);
    out->append(AsText(data));
  }

 private:
  static void AppendExtent(const Key& key, uint64_t step, ByteView data, std::string* out) {
    AppendNumber(key.type, 1, out);
    AppendNumber(step == 0 ? 0 : 1 + step / 4096 % 200, 1, out);
    AppendNumber(key.offset, 8, out);
    AppendNumber(data.Size(), 1, out);
    out->append(AsText(data));
  }

  void Enter(const char* target, const std::string& seed) {
    if (!seed.empty()) seeds_[target].insert(seed);
  }

  SeedsByTarget& seeds_;
};

// A tree block, and what its items say to other targets.
void TakeBlock(const Bytes& bytes, SeedsByTarget* seeds) {
  std::optional<TreeBlockView> block;
  if (TreeBlockView::Parse(View(bytes), &block) != nullptr) return;
  (*seeds)["tree_block"].insert(AsText(bytes));
  if (block->IsLeaf()) LeafSeeds(seeds).Take(*block);
}

void TakeGraph(SeedsByTarget* seeds) {
  RandomGraph graph(7, 8, 40);
  SparseDevice& device = graph.filesystem.Device();
  for (const uint64_t place : device.Places()) TakeBlock(device.Get(place), seeds);
}

// Every profile, with as many stripes as it wants.
void TakeChunks(SeedsByTarget* seeds) {
  const struct {
    uint64_t profile;
    size_t stripes;
  } kProfiles[] = {{0, 1},      {kDup, 2},   {kRaid0, 3},   {kRaid1, 2},  {kRaid10, 4},
                   {kRaid5, 3}, {kRaid6, 4}, {kRaid1c3, 3}, {kRaid1c4, 4}};
  for (const auto& [profile, stripes] : kProfiles) {
    std::vector<Place> places;
    for (uint64_t devid = 1; devid <= stripes; ++devid) places.push_back({devid, devid << 20});
    const Bytes item = MakeChunkOn(8 << 20, kChunkMetadata | profile, places);
    std::string seed;
    LeafSeeds::AppendChunk(ChunkKey(16 << 20), View(item), &seed);
    LeafSeeds::AppendChunk(ChunkKey(24 << 20), View(item), &seed);
    LeafSeeds::AppendChunk(ChunkKey(UINT64_MAX - (4 << 20)), View(item), &seed);  // wraps around
    (*seeds)["chunk_items"].insert(seed);
  }
}

// Roots of all kinds: of subvolumes, one of them going with its orphan item, and of a balance.
void TakeRoots(SeedsByTarget* seeds) {
  MiniFilesystem filesystem;
  filesystem.AddRoot(258, MiniFilesystem::kSubvolume, /*refs=*/0);
  filesystem.AddRoot(kRelocationTreeId, MiniFilesystem::kSubvolume);
  filesystem.AddRoot(kDataRelocationTreeId, MiniFilesystem::kSubvolume);
  filesystem.Roots().push_back({{kOrphanId, kOrphanItemType, 258}, {}});
  std::string seed;
  for (const auto& [key, data] : filesystem.Roots()) LeafSeeds::AppendRoot(key, View(data), &seed);
  (*seeds)["root_items"].insert(seed);
}

// Names with directories of their own, which the stock programs make only when there are very many.
void TakeNames(SeedsByTarget* seeds) {
  std::string item;
  for (const std::string& name : {std::string("a"), std::string("name\n")}) {
    AppendNumber(257, 8, &item);
    AppendNumber(2, 8, &item);
    AppendNumber(name.size(), 2, &item);
    item += name;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(item.data());
  (*seeds)["name_items"].insert(
      LeafSeeds::NameItem(1, Key{258, kInodeExtrefType, 7}, ByteView(bytes, item.size())));
}

// Blocks, each with one field of its head, or the first of its pointers, saying something else.
void TakeDamage(SeedsByTarget* seeds) {
  constexpr size_t kFirstPlace = sizeof(BlockHeader) + offsetof(KeyPointer, bytenr);
  const struct {
    size_t offset;
    std::string bytes;
  } kFields[] = {
      {offsetof(BlockHeader, nritems), std::string(4, '\0')},
      {offsetof(BlockHeader, nritems), "\xff\xff\xff\xff"},
      {offsetof(BlockHeader, level), "\7"},
      {offsetof(BlockHeader, generation), std::string(8, '\xff')},
      {kFirstPlace, std::string(8, '\0')},
      {kFirstPlace, std::string(8, '\xff')},
  };
  (*seeds)["damaged_blocks"].insert("");
  for (uint64_t block = 0; block < 24; ++block) {
    for (const auto& [offset, bytes] : kFields) {
      std::string seed;
      AppendNumber(block, 1, &seed);
      AppendNumber(offset - kChecksumSize, 2, &seed);
      AppendNumber(bytes.size(), 1, &seed);
      (*seeds)["damaged_blocks"].insert(seed + bytes);
    }
  }
}

// Every block of the image that carries its file system's uuid.
void TakeImage(const std::string& path, SeedsByTarget* seeds) {
  std::ifstream image(path, std::ios::binary);
  Bytes bytes(kSuperblockSize);
  const auto read = [&](uint64_t offset) {
    image.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(image.read(reinterpret_cast<char*>(bytes.data()),
                                        static_cast<std::streamsize>(bytes.size())));
  };
  if (!read(kSuperblockOffsets[0])) throw std::runtime_error("no superblock in " + path);
  const Superblock superblock = ObjectAt<Superblock>(&bytes, 0);
  (*seeds)["superblock"].insert(AsText(bytes));
  for (uint64_t at = 1 << 20; read(at); at += kNodeSize)
    if (memcmp(HeaderOf(&bytes).fsid, superblock.fsid, kUuidSize) == 0) TakeBlock(bytes, seeds);
}

}  // namespace

SeedsByTarget MakeEngineSeeds(const std::string& image) {
  SeedsByTarget seeds;
  TakeGraph(&seeds);
  TakeChunks(&seeds);
  TakeRoots(&seeds);
  TakeNames(&seeds);
  seeds["superblock"].insert(AsText(BytesOf(MiniFilesystem().MakeSuperblock())));
  TakeDamage(&seeds);
  TakeImage(image, &seeds);
  return seeds;
}

}  // namespace ZorvTest
