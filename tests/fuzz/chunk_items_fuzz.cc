// Chunk items: each is a logical address (8 bytes), a length (2 bytes) and that many bytes.
#include "tests/fuzz/chunk_laws.h"
#include "tests/fuzz/guarded_bytes.h"

using namespace ZorvTest;
using namespace ZorvEngine;

FUZZ_TARGET(chunk_items) {
  ChunkMap map;
  for (FuzzInput items(input); !items.AtEnd();) {
    const uint64_t logical = items.Number(8);
    const size_t size = items.Number(2);
    const GuardedBytes item(items.Bytes(size));
    const Status added = map.Add(Key{256, kChunkItemType, logical}, item.View());
    if (!added.Ok()) ExpectReason(added, logical);
    LookUpEverywhere(map);
  }
}
