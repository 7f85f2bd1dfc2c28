// A superblock with any content but a right checksum, then its features and its system chunks.
#include <string.h>

#include <algorithm>

#include "engine/io/superblock.h"
#include "tests/engine/blocks.h"
#include "tests/fuzz/chunk_laws.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

// The input as the superblock at its first place, so far that it is one.
Bytes AsSuperblock(std::string_view input) {
  Bytes block(kSuperblockSize);
  std::copy_n(input.begin(), std::min(input.size(), block.size()), block.begin());
  Superblock& superblock = ObjectAt<Superblock>(&block, 0);
  superblock.magic.Set(kSuperblockMagic);
  superblock.bytenr.Set(kSuperblockOffsets[0]);
  superblock.checksumType.Set(0);
  Seal(&block);
  return block;
}

}  // namespace

FUZZ_TARGET(superblock) {
  const Bytes block = AsSuperblock(input);
  static MemoryDevice device(kSuperblockOffsets[0] + kSuperblockSize);
  device.Put(kSuperblockOffsets[0], block);
  Superblock superblock;
  const uint8_t* const uuid =
      block.data() + offsetof(Superblock, device) + offsetof(DeviceItem, uuid);
  FUZZ_LAW(ReadNewestSuperblock(device, uuid, &superblock).Ok());
  FUZZ_LAW(memcmp(&superblock, block.data(), sizeof superblock) == 0);
  (void)TreeBlockFsid(superblock);

  const Status readable = CheckFeatures(superblock);
  if (!readable.Ok()) {
    FUZZ_LAW(!readable.Text().empty());
  } else {
    FUZZ_LAW(superblock.nodeSize.Get() >= 4096 && superblock.nodeSize.Get() <= 65536);
  }
  ChunkMap map;
  const Status added = map.AddSystemChunks(superblock);
  FUZZ_LAW(added.Ok() == added.Text().empty());
  LookUpEverywhere(map);
}
