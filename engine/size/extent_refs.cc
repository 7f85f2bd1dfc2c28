#include "engine/size/extent_refs.h"

#include <string>

#include "engine/ondisk/format.h"

namespace ZorvEngine {

Status ExtentRefs::Damaged(uint64_t bytenr, const char* what) const {
  const std::string block =
      cursor_.AtItem() ? " (tree block " + std::to_string(cursor_.BlockNumber()) + ")" : "";
  return Status::Failed("the extent tree is damaged at " + std::to_string(bytenr) + block + ": " +
                        what + "; run btrfs scrub and btrfs check");
}

// Goes to the item of the extent at `bytenr`, whichever of the two key types it has.
Status ExtentRefs::Find(uint64_t bytenr, const ExtentItem** item) {
  ENGINE_TRY(cursor_.Seek(Key{bytenr, kExtentItemType, 0}));
  if (!cursor_.AtItem() || cursor_.ItemKey().objectid != bytenr ||
      cursor_.ItemKey().type > kMetadataItemType)
    return Damaged(bytenr, "an extent in use has no item");
  *item = cursor_.ItemData().At<ExtentItem>(0);
  return *item != nullptr ? Status() : Damaged(bytenr, "an extent item is short");
}

Status ExtentRefs::OfTreeBlock(uint64_t bytenr, uint8_t level, uint64_t* refs) {
  const ExtentItem* item = nullptr;
  ENGINE_TRY(Find(bytenr, &item));
  if ((item->flags.Get() & kExtentIsTreeBlock) == 0)
    return Damaged(bytenr, "a tree block is entered as data");

  uint64_t entered = cursor_.ItemKey().offset;
  if (cursor_.ItemKey().type == kExtentItemType) {
    const TreeBlockInfo* info = cursor_.ItemData().At<TreeBlockInfo>(sizeof(ExtentItem));
    if (info == nullptr) return Damaged(bytenr, "an extent item is short");
    entered = info->level.Get();
  }
  if (entered != level) return Damaged(bytenr, "a tree block is entered with another level");
  *refs = item->refs.Get();
  return Status();
}

Status ExtentRefs::OfData(uint64_t bytenr, uint64_t* refs, uint64_t* length) {
  const ExtentItem* item = nullptr;
  ENGINE_TRY(Find(bytenr, &item));
  if (cursor_.ItemKey().type != kExtentItemType || (item->flags.Get() & kExtentIsData) == 0)
    return Damaged(bytenr, "data is entered as a tree block");
  *refs = item->refs.Get();
  *length = cursor_.ItemKey().offset;
  return Status();
}

}  // namespace ZorvEngine
