// Items of a leaf of the extent tree: each is a type (1 byte), by how much its address is above the
// one before (1 byte, in sectors), the key's offset (8 bytes), a length (1 byte) and that many
// bytes. What the assembler says of their extents is what the references add up to.
#include "engine/ondisk/extent_item.h"
#include "tests/fuzz/guarded_bytes.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

constexpr uint32_t kBlockBytes = 16384;

void Check(const ExtentRecord* extent) {
  if (extent == nullptr) return;
  uint64_t counted = 0;
  for (const ExtentReference& reference : extent->references) counted += reference.count;
  FUZZ_LAW(extent->found == counted);
  if (extent->continued) return;
  FUZZ_LAW(extent->level <= kMaxLevel);
  FUZZ_LAW(extent->isTreeBlock ? extent->length == kBlockBytes : extent->level == 0);
}

}  // namespace

FUZZ_TARGET(extent_items) {
  ExtentAssembler assembler(kBlockBytes);
  const ExtentRecord* ended = nullptr;
  const char* wrong = nullptr;
  Key key;
  uint64_t before = 0;
  for (FuzzInput items(input); !items.AtEnd() && wrong == nullptr;) {
    key.type = static_cast<uint8_t>(items.Number(1));
    key.objectid += items.Number(1) * 4096;
    key.offset = items.Number(8);
    const size_t size = items.Number(1);
    const GuardedBytes data(items.Bytes(size));
    wrong = assembler.Take(key, data.View(), &ended);
    FUZZ_LAW(wrong == nullptr || *wrong != '\0');
    if (wrong != nullptr || ended == nullptr) continue;
    Check(ended);
    FUZZ_LAW(ended->bytenr >= before && ended->bytenr <= key.objectid);
    FUZZ_LAW(ended->continued || ended->found == ended->refs);  // the last alone may go on
    before = ended->bytenr;
  }
  if (wrong != nullptr) return;
  if (assembler.Finish(&ended) != nullptr) return;
  Check(ended);
  FUZZ_LAW(ended == nullptr || ended->continued || ended->found <= ended->refs);
}
