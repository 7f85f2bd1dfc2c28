#include "engine/io/committed_trees.h"

#include <string>

#include "engine/io/chunk_map.h"
#include "engine/io/tree_cursor.h"

namespace ZorvEngine {
namespace {

const char kBalanceRuns[] =
    "a balance is running or paused, or a device is being shrunk or removed; try again when it has "
    "ended (btrfs balance status)";

}  // namespace

Status CommittedTrees::Load(const Superblock& superblock) {
  generation_ = superblock.generation.Get();
  rootTree_ = BlockPointer{superblock.root.Get(), generation_, superblock.rootLevel.Get(), {}};
  ENGINE_TRY(LoadChunks(superblock));

  bool found = false;
  Subvolume extentTree;
  ENGINE_TRY(FindRoot(kExtentTreeId, &found, &extentTree));
  if (!found) return Status::Failed("the file system has no extent tree");
  extentRoot_ = extentTree.root;
  extentTreeBytes_ = extentTree.bytesUsed;

  ENGINE_TRY(RefuseBalance());
  return RefuseDataRelocation();
}

// The superblock's own chunks lead to the chunk tree, which has all of them.
Status CommittedTrees::LoadChunks(const Superblock& superblock) {
  ChunkMap bootstrap;
  ENGINE_TRY(bootstrap.AddSystemChunks(superblock));
  reader_.UseChunks(std::move(bootstrap));

  const BlockPointer chunkRoot{superblock.chunkRoot.Get(),
                               superblock.chunkRootGeneration.Get(),
                               superblock.chunkRootLevel.Get(),
                               {}};
  TreeBlockPtr block;
  ENGINE_TRY(reader_.Read(chunkRoot, &block));
  reader_.ExpectChunkTree(block->view->Header().chunkTreeUuid);

  ChunkMap all;
  TreeCursor cursor(reader_, chunkRoot);
  ENGINE_TRY(cursor.Seek(Key()));
  while (cursor.AtItem()) {
    const Key key = cursor.ItemKey();
    if (key.type == kChunkItemType) ENGINE_TRY(all.Add(key, cursor.ItemData()));
    ENGINE_TRY(cursor.Next());
  }
  metadataRanges_ = all.Ranges(kChunkMetadata);
  dataRanges_ = all.Ranges(kChunkData);
  redundancies_.clear();
  redundantRanges_ = all.RedundantRanges(&redundancies_);
  reader_.UseChunks(std::move(all));
  return Status();
}

Status CommittedTrees::FindRoot(uint64_t id, bool* found, Subvolume* out) {
  TreeCursor cursor(reader_, rootTree_);
  ENGINE_TRY(cursor.Seek(Key{id, kRootItemType, 0}));
  *found =
      cursor.AtItem() && cursor.ItemKey().objectid == id && cursor.ItemKey().type == kRootItemType;
  if (!*found) return Status();

  const RootItem* item = cursor.ItemData().At<RootItem>(0);
  if (item == nullptr || item->level.Get() > kMaxLevel)
    return Status::Failed("the root item of tree " + std::to_string(id) + " in tree block " +
                          std::to_string(cursor.BlockNumber()) + " is damaged");
  out->root = BlockPointer{item->bytenr.Get(), item->generation.Get(), item->level.Get(), {}};
  out->bytesUsed = item->bytesUsed.Get();
  out->beingDeleted = item->refs.Get() == 0;
  return Status();
}

Status CommittedTrees::FindSubvolume(uint64_t id, Subvolume* out) {
  bool found = false;
  if (IsSubvolumeId(id)) ENGINE_TRY(FindRoot(id, &found, out));
  if (!found)
    return Status::Failed("there is no subvolume " + std::to_string(id) +
                          " on the file system; see btrfs subvolume list");
  return Status();
}

Status CommittedTrees::FindAskedSubvolume(uint64_t id, Subvolume* out) {
  ENGINE_TRY(FindSubvolume(id, out));
  if (out->beingDeleted)
    return Status::Failed("subvolume " + std::to_string(id) +
                          " is being deleted; wait with btrfs subvolume sync");
  return Status();
}

// Each subvolume that is being deleted has an orphan item in the root tree; one whose subvolume is
// gone already, or was not to go, means nothing.
Status CommittedTrees::FindDeletion(bool* found) {
  *found = false;
  TreeCursor cursor(reader_, rootTree_);
  ENGINE_TRY(cursor.Seek(Key{kOrphanId, kOrphanItemType, 0}));
  while (cursor.AtItem() && cursor.ItemKey().objectid == kOrphanId &&
         cursor.ItemKey().type == kOrphanItemType && !*found) {
    bool exists = false;
    Subvolume subvolume;
    ENGINE_TRY(FindRoot(cursor.ItemKey().offset, &exists, &subvolume));
    *found = exists && subvolume.beingDeleted;
    ENGINE_TRY(cursor.Next());
  }
  return Status();
}

// While blocks are being moved, relocation trees hold what subvolumes hold; counted without them,
// numbers would be too low, and nothing would show it.
Status CommittedTrees::RefuseBalance() {
  TreeCursor cursor(reader_, rootTree_);
  ENGINE_TRY(cursor.Seek(Key{kBalanceId, kTemporaryItemType, 0}));
  if (cursor.AtItem() && cursor.ItemKey().objectid == kBalanceId &&
      cursor.ItemKey().type == kTemporaryItemType)
    return Status::Failed(kBalanceRuns);

  bool found = false;
  Subvolume relocation;
  ENGINE_TRY(FindRoot(kRelocationTreeId, &found, &relocation));
  return found ? Status::Failed(kBalanceRuns) : Status();
}

// Data on its way to another place is held by files in this tree; at rest it has its top directory
// and nothing more.
Status CommittedTrees::RefuseDataRelocation() {
  bool found = false;
  Subvolume tree;
  ENGINE_TRY(FindRoot(kDataRelocationTreeId, &found, &tree));
  if (!found) return Status();

  TreeCursor cursor(reader_, tree.root);
  ENGINE_TRY(cursor.Seek(Key{kFirstInode + 1, 0, 0}));
  return cursor.AtItem() ? Status::Failed(kBalanceRuns) : Status();
}

}  // namespace ZorvEngine
