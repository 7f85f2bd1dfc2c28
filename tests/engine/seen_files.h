// The files of a mounted file system as the kernel shows the items of its trees: which data they
// refer to, and how they are called.  An independent reader, for tests.
#ifndef TESTS_ENGINE_SEEN_FILES_H_
#define TESTS_ENGINE_SEEN_FILES_H_

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/btrfs_ioctls.h"

namespace ZorvTest {

using SeenId = unsigned long long;

// The trees of some subvolumes.
class SeenFiles {
 public:
  struct Extent {
    uint64_t bytes = 0;
    std::map<SeenId, std::set<uint64_t>> inodes;  // that refer to it, by subvolume
  };
  using Names = std::set<std::pair<uint64_t, std::string>>;  // parent and name

  SeenFiles(const std::string& mountPoint, const std::vector<SeenId>& subvolumes) {
    for (const SeenId id : subvolumes)
      ForEachItem(mountPoint, id, [&](const TreeItem& item) { Take(id, item); });
  }

  const std::map<uint64_t, Extent>& Extents() const { return extents_; }

  // Bytes of each file that `id` alone holds: of an extent with several files the lowest has all.
  std::map<uint64_t, uint64_t> OwnBytes(SeenId id) const {
    std::map<uint64_t, uint64_t> bytes;
    for (const auto& [bytenr, extent] : extents_)
      if (extent.inodes.size() == 1 && extent.inodes.begin()->first == id)
        bytes[*extent.inodes.begin()->second.begin()] += extent.bytes;
    return bytes;
  }

  // The same of extents to which several files refer, and the most that refer to one.
  std::pair<uint64_t, size_t> Shared(SeenId id, uint64_t inode) const {
    std::pair<uint64_t, size_t> shared{0, 1};
    for (const auto& [bytenr, extent] : extents_) {
      if (extent.inodes.size() != 1 || extent.inodes.begin()->first != id) continue;
      const std::set<uint64_t>& inodes = extent.inodes.begin()->second;
      if (*inodes.begin() != inode || inodes.size() == 1) continue;
      shared.first += extent.bytes;
      shared.second = std::max(shared.second, inodes.size());
    }
    return shared;
  }

  Names NamesOf(SeenId id, uint64_t inode) const {
    const auto found = names_.find({id, inode});
    return found == names_.end() ? Names() : found->second;
  }

  // By the first name of the file and of each directory above it; empty without a name.
  std::string PathOf(SeenId id, uint64_t inode) const {
    std::string path;
    for (; inode != 256;) {
      const Names names = NamesOf(id, inode);
      if (names.empty()) return "";
      path = path.empty() ? names.begin()->second : names.begin()->second + "/" + path;
      inode = names.begin()->first;
    }
    return path;
  }

  // The inode that a path leads to; 0: none.
  uint64_t InodeOf(SeenId id, const std::string& path) const {
    for (const auto& [where, names] : names_)
      if (where.first == id && PathsOf(id, where.second).contains(path)) return where.second;
    return 0;
  }

  // Every path of an inode.
  std::set<std::string> PathsOf(SeenId id, uint64_t inode) const {
    if (inode == 256) return {""};
    std::set<std::string> paths;
    for (const auto& [parent, name] : NamesOf(id, inode))
      for (const std::string& above : PathsOf(id, parent))
        paths.insert(above.empty() ? name : above + "/" + name);
    return paths;
  }

 private:
  void Take(SeenId id, const TreeItem& item) {
    if (item.type == BTRFS_EXTENT_DATA_KEY) TakeExtent(id, item);
    if (item.type == BTRFS_INODE_REF_KEY && item.objectId != 256) {
      for (uint32_t at = 0; at + sizeof(btrfs_inode_ref) <= item.size;) {
        btrfs_inode_ref ref;
        memcpy(&ref, item.data + at, sizeof ref);
        at += sizeof ref;
        names_[{id, item.objectId}].insert(
            {item.offset, std::string(item.data + at, le16toh(ref.name_len))});
        at += le16toh(ref.name_len);
      }
    }
    if (item.type == BTRFS_INODE_EXTREF_KEY) {
      for (uint32_t at = 0; at + sizeof(btrfs_inode_extref) <= item.size;) {
        btrfs_inode_extref ref;
        memcpy(&ref, item.data + at, sizeof ref);
        at += sizeof ref;
        names_[{id, item.objectId}].insert(
            {le64toh(ref.parent_objectid), std::string(item.data + at, le16toh(ref.name_len))});
        at += le16toh(ref.name_len);
      }
    }
  }

  void TakeExtent(SeenId id, const TreeItem& item) {
    btrfs_file_extent_item extent{};
    memcpy(&extent, item.data, std::min<size_t>(item.size, sizeof extent));
    if (extent.type == BTRFS_FILE_EXTENT_INLINE || extent.disk_bytenr == 0) return;
    Extent& seen = extents_[le64toh(extent.disk_bytenr)];
    seen.bytes = le64toh(extent.disk_num_bytes);
    seen.inodes[id].insert(item.objectId);
  }

  std::map<uint64_t, Extent> extents_;
  std::map<std::pair<SeenId, uint64_t>, Names> names_;
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_SEEN_FILES_H_
