// name_items.h: the items that tie files to their names.
#ifndef ENGINE_ONDISK_NAME_ITEMS_H_
#define ENGINE_ONDISK_NAME_ITEMS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "engine/ondisk/byte_view.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {

// A name of a file; it lives as long as the item.
struct FileName {
  uint64_t parent = 0;  // inode of the directory
  std::string_view name;
};

// An entry of a directory; it lives as long as the item.
struct DirectoryEntry {
  Key location;  // of an inode item, or of the root item of a nested subvolume
  std::string_view name;
};

// Gives each name of a kInodeRefType or kInodeExtrefType item to `visit`.  Returns what is wrong
// with the item, as the end of a sentence about it; null when nothing is.  Names before the wrong
// one have been given then.
const char* VisitFileNames(const Key& key, ByteView data,
                           const std::function<void(const FileName&)>& visit);

// Likewise each entry of a kDirItemType or kDirIndexType item.
const char* VisitDirectoryEntries(ByteView data,
                                  const std::function<void(const DirectoryEntry&)>& visit);

// The offset of the kDirItemType item in which an entry of this name stands, if there is one.
uint64_t DirItemOffset(std::string_view name);

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_NAME_ITEMS_H_
