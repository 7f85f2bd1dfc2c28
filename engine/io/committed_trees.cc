#include "engine/io/committed_trees.h"

#include <string>

#include "engine/io/chunk_map.h"
#include "engine/io/tree_cursor.h"

namespace ZorvEngine {
namespace {

Status ReadRootItem(const TreeCursor& cursor, const RootItem** out) {
  *out = cursor.ItemData().At<RootItem>(0);
  if (*out != nullptr && (*out)->level.Get() <= kMaxLevel) return Status();
  return Status::Failed("the root item of tree " + std::to_string(cursor.ItemKey().objectid) +
                        " in tree block " + std::to_string(cursor.BlockNumber()) + " is damaged");
}

BlockPointer RootOf(const RootItem& item) {
  return {item.bytenr.Get(), item.generation.Get(), item.level.Get(), {}};
}

}  // namespace

Status CommittedTrees::Load(const Superblock& superblock) {
  generation_ = superblock.generation.Get();
  reader_.UseState(generation_);
  rootTree_ = BlockPointer{superblock.root.Get(), generation_, superblock.rootLevel.Get(), {}};
  ENGINE_TRY(LoadChunks(superblock));

  bool found = false;
  Subvolume extentTree;
  ENGINE_TRY(FindRoot(kExtentTreeId, &found, &extentTree));
  if (!found) return Status::Failed("the file system has no extent tree");
  extentRoot_ = extentTree.root;
  extentTreeBytes_ = extentTree.bytesUsed;

  return FindRelocationTrees();
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

  const RootItem* item = nullptr;
  ENGINE_TRY(ReadRootItem(cursor, &item));
  out->root = RootOf(*item);
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

Status CommittedTrees::CheckSettled() const {
  for (const RelocationTree& tree : relocationTrees_)
    if (tree.beingMerged)
      return Status::Unsettled(
          "a balance, or a device that shrinks or goes, is giving subvolumes the blocks that it has "
          "moved; try again in a moment");
  return Status();
}

// The tree has a root directory always, and a file for the block group that is being emptied.
Status CommittedTrees::FindMovingData(bool* found) {
  *found = false;
  for (const RelocationTree& tree : relocationTrees_) {
    if (tree.id != kDataRelocationTreeId) continue;
    TreeCursor cursor(reader_, tree.root);
    ENGINE_TRY(cursor.Seek(Key{kFirstInode + 1, 0, 0}));
    *found = *found || cursor.AtItem();
  }
  return Status();
}

Status CommittedTrees::DataIsHandedOver() {
  return Status::Unsettled(
      "a balance, or a device that shrinks or goes, is giving subvolumes the new places of data that "
      "it has moved; try again in a moment");
}

// The numbers of both kinds of trees are neighbours.  One of tree blocks has references from the
// moment when all is moved until its subvolume has been given the moved blocks.
Status CommittedTrees::FindRelocationTrees() {
  static_assert(kRelocationTreeId == kDataRelocationTreeId + 1, "one search finds both");
  relocationTrees_.clear();
  TreeCursor cursor(reader_, rootTree_);
  ENGINE_TRY(cursor.Seek(Key{kDataRelocationTreeId, kRootItemType, 0}));
  for (; cursor.AtItem() && cursor.ItemKey().objectid <= kRelocationTreeId;) {
    if (cursor.ItemKey().type == kRootItemType) {
      const RootItem* item = nullptr;
      ENGINE_TRY(ReadRootItem(cursor, &item));
      // Merging leaves its progress there too; only in a tree that is going is something gone.
      const bool going = item->refs.Get() == 0 && item->dropProgress.Get() != Key();
      const uint64_t id = cursor.ItemKey().objectid;
      const bool merged = id == kRelocationTreeId && item->refs.Get() != 0;
      relocationTrees_.push_back({id, RootOf(*item), merged, going});
    }
    ENGINE_TRY(cursor.Next());
  }
  return Status();
}

}  // namespace ZorvEngine
