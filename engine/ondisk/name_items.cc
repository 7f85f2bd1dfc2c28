#include "engine/ondisk/name_items.h"

#include "engine/ondisk/crc32c.h"
#include "engine/ondisk/format.h"

namespace ZorvEngine {
namespace {

// The state that hashes of names begin with.
constexpr uint32_t kNameHashBegin = ~uint32_t{1};

// Takes the name of `size` bytes at `offset`, which is moved behind it.  Returns what is wrong with
// it: names are parts of paths, and a part that cannot be one would lead elsewhere.
const char* TakeName(ByteView data, size_t size, size_t* offset, std::string_view* name) {
  ByteView bytes;
  if (size == 0 || size > kMostNameSize) return "has a name of an impossible length";
  if (!data.Sub(*offset, size, &bytes)) return "has a name that is cut";
  *name = {reinterpret_cast<const char*>(bytes.Data()), bytes.Size()};
  if (name->find('/') != std::string_view::npos || name->find('\0') != std::string_view::npos)
    return "has a name with an impossible character";
  *offset += size;
  return nullptr;
}

}  // namespace

const char* VisitFileNames(const Key& key, ByteView data,
                           const std::function<void(const FileName&)>& visit) {
  for (size_t offset = 0; offset < data.Size();) {
    FileName found;
    size_t size = 0;
    if (key.type == kInodeRefType) {
      const InodeRef* ref = data.At<InodeRef>(offset);
      if (ref == nullptr) return "has a name that is cut";
      found.parent = key.offset;
      size = ref->nameSize.Get();
      offset += sizeof(InodeRef);
    } else {
      const InodeExtref* ref = data.At<InodeExtref>(offset);
      if (ref == nullptr) return "has a name that is cut";
      found.parent = ref->parent.Get();
      size = ref->nameSize.Get();
      offset += sizeof(InodeExtref);
    }
    if (const char* wrong = TakeName(data, size, &offset, &found.name)) return wrong;
    visit(found);
  }
  return nullptr;
}

const char* VisitDirectoryEntries(ByteView data,
                                  const std::function<void(const DirectoryEntry&)>& visit) {
  for (size_t offset = 0; offset < data.Size();) {
    const DirItem* item = data.At<DirItem>(offset);
    if (item == nullptr) return "has a name that is cut";
    offset += sizeof(DirItem);
    DirectoryEntry entry{item->location.Get(), {}};
    if (const char* wrong = TakeName(data, item->nameSize.Get(), &offset, &entry.name))
      return wrong;
    offset += item->dataSize.Get();
    if (offset > data.Size()) return "has an entry that is cut";
    visit(entry);
  }
  return nullptr;
}

uint64_t DirItemOffset(std::string_view name) {
  return Crc32cFrom(kNameHashBegin,
                    ByteView(reinterpret_cast<const uint8_t*>(name.data()), name.size()));
}

}  // namespace ZorvEngine
