// Any bytes as the items that tie files to their names: a type (1 byte), the key's offset (8
// bytes), then the item.
#include "engine/ondisk/format.h"
#include "engine/ondisk/name_items.h"
#include "tests/fuzz/guarded_bytes.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

// A part of a path, in the item.
void ExpectName(std::string_view name, const GuardedBytes& item) {
  FUZZ_LAW(!name.empty() && name.size() <= kMostNameSize);
  FUZZ_LAW(name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos);
  FUZZ_LAW(item.Holds(ByteView(reinterpret_cast<const uint8_t*>(name.data()), name.size())));
}

}  // namespace

FUZZ_TARGET(name_items) {
  FuzzInput rest(input);
  const uint8_t kinds[] = {kInodeRefType, kInodeExtrefType, kDirItemType};
  const uint8_t type = kinds[rest.Number(1) % 3];
  const Key key{257, type, rest.Number(8)};
  const GuardedBytes item(rest.Rest());
  if (type == kDirItemType) {
    (void)VisitDirectoryEntries(item.View(), [&](const DirectoryEntry& entry) {
      ExpectName(entry.name, item);
      FUZZ_LAW(DirItemOffset(entry.name) <= UINT32_MAX);
    });
    return;
  }
  (void)VisitFileNames(key, item.View(), [&](const FileName& name) {
    ExpectName(name.name, item);
    FUZZ_LAW(type != kInodeRefType || name.parent == key.offset);
  });
}
