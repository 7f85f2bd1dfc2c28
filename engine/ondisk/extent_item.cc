#include "engine/ondisk/extent_item.h"

#include <utility>

namespace ZorvEngine {
namespace {

// Item and inline reference types, as in <linux/btrfs_tree.h>.
constexpr uint8_t kOwnerRefType = 172;  // who wrote it first (simple quotas): no reference
constexpr uint8_t kTreeBlockRefType = 176;
constexpr uint8_t kExtentDataRefType = 178;
constexpr uint8_t kSharedBlockRefType = 182;
constexpr uint8_t kSharedDataRefType = 184;
constexpr uint8_t kBlockGroupType = 192;

constexpr uint64_t kExtentFullBackref = 1ULL << 8;

// Of the files of a tree: which file, and where in it the extent would begin.
struct ExtentDataRef {
  Le64 root;
  Le64 objectid;
  Le64 offset;
  Le32 count;
};
static_assert(sizeof(ExtentDataRef) == 28 && alignof(ExtentDataRef) == 1, "28 bytes, unpadded");

// Head of the other inline references; a count follows that of a leaf.
struct InlineHead {
  Le8 type;
  Le64 offset;
};
static_assert(sizeof(InlineHead) == 9 && alignof(InlineHead) == 1, "9 bytes, unpadded");

}  // namespace

const char* ExtentAssembler::Take(const Key& key, ByteView data, const ExtentRecord** ended) {
  *ended = nullptr;
  switch (key.type) {
    case kExtentItemType:
    case kMetadataItemType: {
      if (open_ && !current_.continued && current_.found != current_.refs)
        return "the references found are not as many as the item counts";
      End(ended);
      return Begin(key, data);
    }
    case kTreeBlockRefType:
    case kExtentDataRefType:
    case kSharedBlockRefType:
    case kSharedDataRefType:
      if (!seen_) Open(key.objectid, true);
      if (!open_ || key.objectid != current_.bytenr) return "a reference without an extent";
      return TakeKeyed(key, data);
    case kBlockGroupType:  // stands between the extents that lie in the group
    case kOwnerRefType:
      return nullptr;
    default:
      return "an item of an unknown type";
  }
}

const char* ExtentAssembler::Finish(const ExtentRecord** ended) {
  *ended = nullptr;
  if (open_ && !current_.continued && current_.found > current_.refs)
    return "the references found are more than the item counts";
  End(ended);
  return nullptr;
}

void ExtentAssembler::Open(uint64_t bytenr, bool continued) {
  current_.bytenr = bytenr;
  current_.continued = continued;
  current_.found = 0;
  current_.references.clear();
  open_ = seen_ = true;
}

void ExtentAssembler::End(const ExtentRecord** ended) {
  *ended = nullptr;
  if (!open_) return;
  open_ = false;
  std::swap(ended_, current_);
  *ended = &ended_;
}

const char* ExtentAssembler::Begin(const Key& key, ByteView data) {
  const ExtentItem* item = data.At<ExtentItem>(0);
  if (item == nullptr) return "an extent item is short";
  const uint64_t flags = item->flags.Get();
  Open(key.objectid, false);
  current_.refs = item->refs.Get();
  current_.generation = item->generation.Get();
  current_.isTreeBlock = (flags & kExtentIsTreeBlock) != 0;
  current_.fullBackref = (flags & kExtentFullBackref) != 0;
  if (current_.isTreeBlock == ((flags & kExtentIsData) != 0))
    return "an extent is neither data nor a tree block";

  size_t offset = sizeof(ExtentItem);
  current_.length = current_.isTreeBlock ? nodeSize_ : key.offset;
  current_.level = 0;
  if (key.type == kMetadataItemType) {
    if (!current_.isTreeBlock || key.offset > kMaxLevel) return "a metadata item is no tree block";
    current_.level = static_cast<uint8_t>(key.offset);
  } else if (current_.isTreeBlock) {
    const TreeBlockInfo* info = data.At<TreeBlockInfo>(offset);
    if (info == nullptr || info->level.Get() > kMaxLevel) return "an extent item is short";
    current_.level = info->level.Get();
    offset += sizeof(TreeBlockInfo);
  }
  return TakeInline(data, offset);
}

const char* ExtentAssembler::TakeInline(ByteView data, size_t offset) {
  while (offset < data.Size()) {
    const Le8* type = data.At<Le8>(offset);
    if (type->Get() == kExtentDataRefType) {
      const ExtentDataRef* ref = data.At<ExtentDataRef>(offset + 1);
      if (ref == nullptr) return "an inline reference is cut";
      Add(ExtentReference::kFile, ref->root.Get(), ref->count.Get());
      offset += 1 + sizeof(ExtentDataRef);
      continue;
    }
    const InlineHead* head = data.At<InlineHead>(offset);
    if (head == nullptr) return "an inline reference is cut";
    offset += sizeof(InlineHead);
    switch (head->type.Get()) {
      case kTreeBlockRefType:
        Add(ExtentReference::kTree, head->offset.Get(), 1);
        break;
      case kSharedBlockRefType:
        Add(ExtentReference::kBlock, head->offset.Get(), 1);
        break;
      case kSharedDataRefType: {
        const Le32* count = data.At<Le32>(offset);
        if (count == nullptr) return "an inline reference is cut";
        Add(ExtentReference::kLeafData, head->offset.Get(), count->Get());
        offset += sizeof(Le32);
        break;
      }
      case kOwnerRefType:
        break;
      default:
        return "an inline reference of an unknown type";
    }
  }
  return nullptr;
}

const char* ExtentAssembler::TakeKeyed(const Key& key, ByteView data) {
  switch (key.type) {
    case kTreeBlockRefType:
      Add(ExtentReference::kTree, key.offset, 1);
      return nullptr;
    case kSharedBlockRefType:
      Add(ExtentReference::kBlock, key.offset, 1);
      return nullptr;
    case kExtentDataRefType: {
      const ExtentDataRef* ref = data.At<ExtentDataRef>(0);
      if (ref == nullptr) return "a reference item is short";
      Add(ExtentReference::kFile, ref->root.Get(), ref->count.Get());
      return nullptr;
    }
    default: {
      const Le32* count = data.At<Le32>(0);
      if (count == nullptr) return "a reference item is short";
      Add(ExtentReference::kLeafData, key.offset, count->Get());
      return nullptr;
    }
  }
}

void ExtentAssembler::Add(ExtentReference::Kind kind, uint64_t holder, uint64_t count) {
  current_.references.push_back({kind, holder, count});
  current_.found += count;
}

}  // namespace ZorvEngine
