// file_extents.h: the data extents that a leaf of a subvolume refers to.
#ifndef ENGINE_SIZE_FILE_EXTENTS_H_
#define ENGINE_SIZE_FILE_EXTENTS_H_

#include <string>

#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"
#include "engine/ondisk/tree_block.h"

namespace ZorvEngine {

// Gives the address of the data extent of each file extent item to `visit`, whatever part of the
// extent the file uses; inline data and holes have none.
template <typename Visit>
Status VisitFileExtents(const TreeBlockView& leaf, const Visit& visit) {
  for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
    if (leaf.KeyAt(slot).type != kFileExtentType) continue;
    const ByteView data = leaf.DataAt(slot);
    const FileExtentHead* head = data.At<FileExtentHead>(0);
    if (head != nullptr && head->type.Get() == kFileExtentInline) continue;
    const FileExtentPlace* place = data.At<FileExtentPlace>(sizeof(FileExtentHead));
    if (place == nullptr || head->type.Get() > kFileExtentPreallocated)
      return Status::Failed("item " + std::to_string(slot) + " of tree block " +
                            std::to_string(leaf.Header().bytenr.Get()) +
                            " is a damaged file extent; run btrfs scrub and btrfs check");
    if (place->diskBytenr.Get() != 0) visit(place->diskBytenr.Get());
  }
  return Status();
}

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_FILE_EXTENTS_H_
