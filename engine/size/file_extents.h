// file_extents.h: the data extents that a leaf of a subvolume refers to.
#ifndef ENGINE_SIZE_FILE_EXTENTS_H_
#define ENGINE_SIZE_FILE_EXTENTS_H_

#include <optional>

#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"
#include "engine/ondisk/tree_block.h"
#include "engine/size/damaged_item.h"

namespace ZorvEngine {

// A reference of a file to a data extent, whatever part of it the file uses.
struct FileExtent {
  uint64_t inode = 0;
  uint64_t bytenr = 0;
  uint64_t bytes = 0;  // of the whole extent, on disk
};

// Whether data can lie there: from one sector to another, of which the smallest have 4096 bytes,
// and within a block group, which has 10 GiB of data at most.
inline bool CanBeExtent(uint64_t bytenr, uint64_t bytes) {
  constexpr uint64_t kLeastSector = 4096;
  constexpr uint64_t kMostBytes = uint64_t{10} << 30;
  return bytenr % kLeastSector == 0 && bytes % kLeastSector == 0 && bytes > 0 &&
         bytes <= kMostBytes;
}

// What a file extent item refers to; nothing for inline data and holes.  Sets `wrong` to what is
// wrong with the item, if anything is.
inline std::optional<FileExtent> FileExtentOf(const Key& key, ByteView data, const char** wrong) {
  *wrong = nullptr;
  const FileExtentHead* head = data.At<FileExtentHead>(0);
  if (head != nullptr && head->type.Get() == kFileExtentInline) return std::nullopt;
  const FileExtentPlace* place = data.At<FileExtentPlace>(sizeof(FileExtentHead));
  if (place == nullptr || head->type.Get() > kFileExtentPreallocated) {
    *wrong = "is a damaged file extent";
    return std::nullopt;
  }
  if (place->diskBytenr.Get() == 0) return std::nullopt;
  const FileExtent extent{key.objectid, place->diskBytenr.Get(), place->diskBytes.Get()};
  if (CanBeExtent(extent.bytenr, extent.bytes)) return extent;
  *wrong = "is a damaged file extent";
  return std::nullopt;
}

// Gives the data extent of each file extent item to `visit`.
template <typename Visit>
Status VisitFileExtents(const TreeBlockView& leaf, const Visit& visit) {
  for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
    const Key key = leaf.KeyAt(slot);
    if (key.type != kFileExtentType) continue;
    const char* wrong = nullptr;
    const std::optional<FileExtent> extent = FileExtentOf(key, leaf.DataAt(slot), &wrong);
    if (wrong != nullptr) return DamagedItem(leaf, slot, wrong);
    if (extent) visit(*extent);
  }
  return Status();
}

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_FILE_EXTENTS_H_
