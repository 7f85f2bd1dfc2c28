#include "engine/size/path_content.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "engine/io/tree_cursor.h"
#include "engine/ondisk/name_items.h"
#include "engine/size/address_map.h"
#include "engine/size/file_extents.h"

namespace ZorvEngine {
namespace {

std::vector<std::string> NamesOf(const std::string& path) {
  std::vector<std::string> names;
  for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = path.find('/', begin);
    const std::string name = path.substr(begin, end - begin);
    if (!name.empty() && name != ".") names.push_back(name);
  }
  return names;
}

class ContentReader {
 public:
  ContentReader(BlockReader& reader, const BlockPointer& root, ArrayMemory& memory,
                PathContent* out)
      : cursor_(reader, root), inodes_(memory), seen_(memory), facts_(memory), out_(*out) {}

  Status Run(const std::string& path) {
    uint64_t inode = kFirstInode;
    ENGINE_TRY(FindInode(path, &inode));
    if (out_.kind != PathContent::kFound) return Status();
    out_.numbers.inode = inode;
    out_.numbers.files = 0;
    ENGINE_TRY(TakeInode(inode));
    // Grows while it is gone through, when there are directories.
    for (size_t i = 0; i < inodes_.Size(); ++i) ENGINE_TRY(TakeInode(inodes_[i]));
    SortExtents();
    out_.hash = HashOfAll();
    return Status();
  }

 private:
  Status FindInode(const std::string& path, uint64_t* inode) {
    out_.kind = PathContent::kFound;
    for (const std::string& name : NamesOf(path)) {
      std::optional<Key> location;
      ENGINE_TRY(FindEntry(*inode, name, &location));
      if (!location || location->type != kInodeItemType) {
        const bool nested = location && location->type == kRootItemType;
        out_.kind = nested ? PathContent::kNested : PathContent::kNotThere;
        return Status();
      }
      *inode = location->objectid;
    }
    return Status();
  }

  // Names with the same hash stand in one item.
  Status FindEntry(uint64_t directory, const std::string& name, std::optional<Key>* location) {
    const Key key{directory, kDirItemType, DirItemOffset(name)};
    ENGINE_TRY(cursor_.Seek(key));
    if (!cursor_.AtItem() || cursor_.ItemKey() != key) return Status();
    const char* wrong = VisitDirectoryEntries(cursor_.ItemData(), [&](const DirectoryEntry& entry) {
      if (entry.name == name) *location = entry.location;
    });
    return wrong == nullptr ? Status() : DamagedItem(cursor_, wrong);
  }

  // The path's own inode first.
  Status TakeInode(uint64_t inode) {
    const Key key{inode, kInodeItemType, 0};
    ENGINE_TRY(cursor_.Seek(key));
    if (!cursor_.AtItem() || cursor_.ItemKey() != key)
      return Status::Failed("inode " + std::to_string(inode) +
                            " has a name and is not there; run btrfs check");
    const InodeItem* item = cursor_.ItemData().At<InodeItem>(0);
    if (item == nullptr) return DamagedItem(cursor_, "is a damaged inode");
    const bool isDirectory = S_ISDIR(item->mode.Get());
    if (inode == out_.numbers.inode) {
      out_.numbers.generation = item->generation.Get();
      out_.numbers.modified = static_cast<int64_t>(item->modified.seconds.Get());
      out_.numbers.nanoseconds = item->modified.nanoseconds.Get();
      out_.numbers.isDirectory = isDirectory;
    }
    if (isDirectory) return TakeDirectory(inode);

    ++out_.numbers.files;
    out_.numbers.size += item->size.Get();
    for (const uint64_t fact :
         {inode, item->generation.Get(), item->size.Get(), item->modified.seconds.Get(),
          uint64_t{item->modified.nanoseconds.Get()}})
      facts_.Add(fact);
    return TakeExtents(inode);
  }

  // A file with several names counts once; a damaged directory may be below itself.
  Status TakeDirectory(uint64_t inode) {
    ENGINE_TRY(cursor_.Seek(Key{inode, kDirIndexType, 0}));
    for (; IsAt(inode, kDirIndexType);) {
      const char* wrong =
          VisitDirectoryEntries(cursor_.ItemData(), [&](const DirectoryEntry& entry) {
            const uint64_t below = entry.location.objectid;
            if (entry.location.type != kInodeItemType || seen_.Find(below)) return;
            seen_.Set(below, 0);
            inodes_.Add(below);
          });
      if (wrong != nullptr) return DamagedItem(cursor_, wrong);
      ENGINE_TRY(cursor_.Next());
    }
    return Status();
  }

  Status TakeExtents(uint64_t inode) {
    ENGINE_TRY(cursor_.Seek(Key{inode, kFileExtentType, 0}));
    for (; IsAt(inode, kFileExtentType);) {
      const char* wrong = nullptr;
      const std::optional<FileExtent> extent =
          FileExtentOf(cursor_.ItemKey(), cursor_.ItemData(), &wrong);
      if (wrong != nullptr) return DamagedItem(cursor_, wrong);
      if (extent) out_.extents.Add({extent->bytenr, extent->bytes});
      ENGINE_TRY(cursor_.Next());
    }
    return Status();
  }

  bool IsAt(uint64_t inode, uint8_t type) const {
    return cursor_.AtItem() && cursor_.ItemKey().objectid == inode &&
           cursor_.ItemKey().type == type;
  }

  void SortExtents() {
    BigArray<DataExtent>& extents = out_.extents;
    std::sort(extents.begin(), extents.end());
    extents.Shorten(
        static_cast<size_t>(std::unique(extents.begin(), extents.end()) - extents.begin()));
    for (const DataExtent& extent : extents) out_.numbers.bytes += extent.bytes;
  }

  Hash256 HashOfAll() {
    facts_.Add(out_.numbers.inode);
    facts_.Add(facts_.Size());
    for (const DataExtent& extent : out_.extents) facts_.Add(extent.bytenr);
    return Blake2b256(ByteView(reinterpret_cast<const uint8_t*>(facts_.begin()),
                               facts_.Size() * sizeof(uint64_t)));
  }

  TreeCursor cursor_;
  BigArray<uint64_t> inodes_;  // below the path's directory
  AddressMap seen_;            // likewise
  BigArray<uint64_t> facts_;   // that tell versions apart
  PathContent& out_;
};

}  // namespace

Status ReadPathContent(BlockReader& reader, const BlockPointer& root, const std::string& path,
                       ArrayMemory& memory, PathContent* out) {
  return ContentReader(reader, root, memory, out).Run(path);
}

}  // namespace ZorvEngine
