// superblock.h: finds the newest committed superblock and says whether its features can be read.
#ifndef ENGINE_IO_SUPERBLOCK_H_
#define ENGINE_IO_SUPERBLOCK_H_

#include <cstdint>
#include <memory>

#include "engine/io/byte_source.h"
#include "engine/ondisk/format.h"
#include "engine/ondisk/status.h"

namespace ZorvEngine {

// Fills `out` with the newest of the superblock's copies on `source` that verify and belong to the
// device `deviceUuid` (16 bytes): a copy left behind by an earlier file system never counts.
// A copy that is just being written does not verify, so the search is tried a few times.
// Fails when there is none, or when its checksum type cannot be verified here.
Status ReadNewestSuperblock(ByteSource& source, const uint8_t* deviceUuid, Superblock* out);

// Looks at all copies that the newest one says there are.  Fails, naming the first that cannot be
// read or does not verify, however often it is tried; as ReadNewestSuperblock when there is none.
Status CheckSuperblockCopies(ByteSource& source, const uint8_t* deviceUuid);

// Fails, naming the feature, when a file system with this superblock cannot be read exactly:
// zoned, extent-tree-v2, unknown incompatible features, impossible sizes.
Status CheckFeatures(const Superblock& superblock);

// The uuid (16 bytes) that stands in the header of each tree block.
const uint8_t* TreeBlockFsid(const Superblock& superblock);

}  // namespace ZorvEngine

#endif  // ENGINE_IO_SUPERBLOCK_H_
