#include "tests/engine/tree_shapes.h"

#include <endian.h>
#include <string.h>

#include <map>

#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {
namespace {

template <typename T>
T At(const TreeItem& item, uint32_t offset) {
  T value{};
  if (offset + sizeof value <= item.size) memcpy(&value, item.data + offset, sizeof value);
  return value;
}

bool IsSubvolume(uint64_t root) {
  return root == BTRFS_FS_TREE_OBJECTID ||
         (root >= BTRFS_FIRST_FREE_OBJECTID &&
          root <= static_cast<uint64_t>(BTRFS_LAST_FREE_OBJECTID));
}

const std::map<uint32_t, std::string> kReferences = {
    {BTRFS_TREE_BLOCK_REF_KEY, "TreeBlockRef"},
    {BTRFS_SHARED_BLOCK_REF_KEY, "SharedBlockRef"},
    {BTRFS_EXTENT_DATA_REF_KEY, "ExtentDataRef"},
    {BTRFS_SHARED_DATA_REF_KEY, "SharedDataRef"},
};

// Bytes of an inline reference: its type and what belongs to it.
uint32_t InlineSize(uint8_t type) {
  if (type == BTRFS_EXTENT_DATA_REF_KEY) return 1 + sizeof(btrfs_extent_data_ref);
  if (type == BTRFS_SHARED_DATA_REF_KEY) return 1 + 8 + sizeof(btrfs_shared_data_ref);
  return 1 + 8;
}

// Looks at the item of one extent.
void ReadExtent(const TreeItem& item, ExtentTreeShape* shape) {
  const btrfs_extent_item extent = At<btrfs_extent_item>(item, 0);
  const uint64_t flags = le64toh(extent.flags);
  const bool isTreeBlock = flags & BTRFS_EXTENT_FLAG_TREE_BLOCK;
  uint32_t at = sizeof extent;
  if (isTreeBlock && item.type == BTRFS_EXTENT_ITEM_KEY) at += sizeof(btrfs_tree_block_info);
  uint64_t ofOtherTrees = 0;
  uint64_t ofTopLevel = 0;
  while (at < item.size) {
    const uint8_t type = At<uint8_t>(item, at);
    const auto name = kReferences.find(type);
    if (name != kReferences.end()) ++shape->features[name->second];
    const uint64_t root = le64toh(At<uint64_t>(item, at + 1));
    if (type == BTRFS_TREE_BLOCK_REF_KEY && !IsSubvolume(root)) ++ofOtherTrees;
    if (type == BTRFS_TREE_BLOCK_REF_KEY && root == BTRFS_FS_TREE_OBJECTID) ++ofTopLevel;
    at += InlineSize(type);
  }
  if (!isTreeBlock) return;
  if (flags & BTRFS_BLOCK_FLAG_FULL_BACKREF) ++shape->features["FullBackref"];
  const uint64_t references = le64toh(extent.refs);
  if (ofOtherTrees < references) ++shape->fileTreeBlocks;
  if (ofTopLevel == references) ++shape->topLevelBlocks;
}

const std::map<uint8_t, std::string> kCompressions = {
    {1, "ZlibExtent"}, {2, "LzoExtent"}, {3, "ZstdExtent"}};

void ReadFileExtent(const TreeItem& item, Features* features) {
  const btrfs_file_extent_item extent = At<btrfs_file_extent_item>(item, 0);
  const auto compression = kCompressions.find(extent.compression);
  if (compression != kCompressions.end()) ++(*features)[compression->second];
  if (extent.type == BTRFS_FILE_EXTENT_INLINE) {
    ++(*features)["InlineExtent"];
    return;
  }
  if (extent.disk_bytenr == 0)
    ++(*features)["HoleExtent"];
  else if (extent.type == BTRFS_FILE_EXTENT_PREALLOC)
    ++(*features)["PreallocatedExtent"];
  else if (le64toh(extent.num_bytes) < le64toh(extent.ram_bytes))
    ++(*features)["PartOfAnExtent"];
}

}  // namespace

ExtentTreeShape ReadExtentTree(const std::string& mountPoint) {
  ExtentTreeShape shape;
  ForEachItem(mountPoint, BTRFS_EXTENT_TREE_OBJECTID, [&](const TreeItem& item) {
    if (item.type == BTRFS_EXTENT_ITEM_KEY || item.type == BTRFS_METADATA_ITEM_KEY)
      return ReadExtent(item, &shape);
    const auto name = kReferences.find(item.type);
    if (name != kReferences.end()) ++shape.features["Keyed" + name->second];
  });
  return shape;
}

Features ReadFileExtents(const std::string& mountPoint, const std::vector<uint64_t>& subvolumes) {
  Features features;
  for (const uint64_t subvolume : subvolumes)
    ForEachItem(mountPoint, subvolume, [&](const TreeItem& item) {
      if (item.type == BTRFS_EXTENT_DATA_KEY) ReadFileExtent(item, &features);
    });
  return features;
}

}  // namespace ZorvTest
