// checksum.h: the checksums that stand at the head of superblocks and tree blocks.
#ifndef ENGINE_ONDISK_CHECKSUM_H_
#define ENGINE_ONDISK_CHECKSUM_H_

#include <cstdint>

#include "engine/ondisk/byte_view.h"

namespace ZorvEngine {

// Values of the superblock's checksum type.
enum ChecksumType : uint16_t {
  kCrc32c = 0,
  kXxhash64 = 1,
  kSha256 = 2,
  kBlake2b = 3,
};

// Name of a checksum type for messages; "unknown" for a number that means nothing.
const char* ChecksumName(uint16_t type);

// Whether blocks with this checksum type can be verified here.
bool IsChecksumSupported(uint16_t type);

// Whether `block` begins with the checksum of all that follows the 32 bytes kept for it.
// False also for a type that is not supported and for a block that is too short.
bool HasValidChecksum(uint16_t type, ByteView block);

}  // namespace ZorvEngine

#endif  // ENGINE_ONDISK_CHECKSUM_H_
